// SPDX-License-Identifier: Apache-2.0
//
// Any option and any value: SetOption answers one of its results and the engine lives on.
#include <cstdlib>

#include <mirelsnap/SnapshotEngine.h>

#include "FuzzWorld.h"

namespace {

UnixSnapshotCoordinator::IUscSnapshotEngine* engine = nullptr;

void dropMessage(unsigned short, const wchar_t*, void*) {}

std::wstring widened(const char* text, std::size_t size) {
  std::wstring result;
  for (std::size_t i = 0; i < size; ++i) result += static_cast<wchar_t>(static_cast<unsigned char>(text[i]) * 3);
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  QX_SetLogHandler(&dropMessage, nullptr);
  layFuzzWorld();
  engine = (*GetCreatorFunction())();
  _SSGUIDPLAIN set{};
  if (engine == nullptr || engine->StartSnapshotSet(&set) != S_OK) std::abort();
  return 0;
}

// The first byte chooses the key, the rest is the value.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const char* text = reinterpret_cast<const char*>(data);
  const wchar_t* keys[] = {
      L"MountPointBase", L"mountpointbase", L"RelocationFileMountPoint", L"RelocationFileSize", L"", nullptr};
  const wchar_t* key = keys[data[0] % 6];
  const std::wstring value = data[0] < 128 ? std::wstring(text + 1, text + size) : widened(text + 1, size - 1);
  const int result = engine->SetOption(_SSGUIDPLAIN{}, key, value.c_str());
  if (result != S_OK && result != E_INVALIDARG && result != E_UNEXPECTED && result != USC_E_OBJECT_NOT_FOUND)
    std::abort();
  if (result == S_OK && (value.empty() || value[0] != L'/')) std::abort();
  return 0;
}
