// SPDX-License-Identifier: Apache-2.0
//
// Any text as /proc/meminfo: it is read, or a line without a digit is refused with std::out_of_range.
#include <stdexcept>

#include "FuzzWorld.h"
#include "driver/LinuxSnapLibUtil.h"
#include "sysinfo/LinuxSystemInfo.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) { return layFuzzWorld(); }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const test::ProcFile meminfo("meminfo", std::string(reinterpret_cast<const char*>(data), size));
  mirelsnapsdk_linuxcomputer::LinuxSystemInfo system;
  try {
    mirelsnapsdk_linuxcomputer::_sysMemStateInfo state{};
    if (system.InitializeSystemMemoryState() == 0 && system.GetSpecificSystemMemoryState(&state) == 0) {
      static_cast<void>(SnapDriverInterfaceUtility().calculateMaxRelocBlocks(state));
    }
  } catch (const std::out_of_range&) {
    // The contract leaves the file open then; this program would run out of descriptors.
    for (int descriptor = 3; descriptor < 16; ++descriptor) {
      char link[64];
      std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
      char target[64] = {};
      if (readlink(link, target, sizeof target - 1) > 0 && std::string(target) == "/proc/meminfo") close(descriptor);
    }
  }
  return 0;
}
