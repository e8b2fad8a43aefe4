// SPDX-License-Identifier: Apache-2.0
//
// Any text as the kernel's mount table: the library's readers of it never crash, and what they answer is in it.
#include <cstdlib>

#include "FuzzWorld.h"
#include "driver/LinuxSnapLib.h"
#include "sysinfo/LinuxSystemInfo.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) { return layFuzzWorld(); }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const test::ProcFile mounts("mounts", std::string(reinterpret_cast<const char*>(data), size));
  mirelsnapsdk_linuxcomputer::LinuxSystemInfo system;
  system.volumeAliases["/dev/alias"] = "/dev/sda1";
  for (const auto& entry : system.GetProcMounts()) {
    if (system.GetMountPoints(entry.fsname).empty()) std::abort();
    if (system.GetVolumeFromMountPoint(entry.dir).empty() && !entry.fsname.empty()) std::abort();
    static_cast<void>(system.GetVolumeFromDir(entry.dir + "/below"));
    static_cast<void>(inPartitionRelocFile(entry.dir, entry.fsname));
  }
  return 0;
}
