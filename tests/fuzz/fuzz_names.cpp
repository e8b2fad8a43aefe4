// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as names and paths: conversions answer null or the same text back, messages are never lost.
#include <cstdlib>

#include <mirelsnap/SnapshotEngine.h>

#include "FuzzWorld.h"
#include "driver/VolumeRecords.h"
#include "engine/MountPath.h"
#include "qxtools/Log.h"
#include "qxtools/UnixUtils.h"
#include "reloc/LinuxSnapshotreloc.h"

namespace {

unsigned int messages = 0;

void countMessage(unsigned short, const wchar_t*, void*) { ++messages; }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  QX_SetLogHandler(&countMessage, nullptr);
  return layFuzzWorld();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string name = text.c_str();
  const std::size_t half = name.size() / 2;

  const UnixUtils::WideText wide = UnixUtils::ConvertToWide(name.c_str());
  if (wide != nullptr) {
    const UnixUtils::NarrowText back = UnixUtils::ConvertToANSI(wide.get());
    if (back == nullptr || name != back.get()) std::abort();
    static_cast<void>(UnixUtils::ValidatePathAndConvertToANSI(wide.get()));
  }
  if (WStringToString(StringToWString(text)) != text) std::abort();
  if (prepareRelocFileName(text).find('/') != std::string::npos) std::abort();
  static_cast<void>(MirelSnapSnapshotCoordinator::FolderDepth(name.c_str()));
  static_cast<void>(
      MirelSnapSnapshotCoordinator::JoinMountPath(name.substr(0, half).c_str(), name.substr(half).c_str()));

  messages = 0;
  QX_Zprintf(0, L"%hs: umount( %s ) FAILED! Error: #%d, {%s}", "Fuzz", name.c_str(), 16, name.c_str());
  if (messages != 1) std::abort();
  return 0;
}
