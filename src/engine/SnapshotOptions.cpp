// SPDX-License-Identifier: Apache-2.0
//
// The options of a set and of its volumes.
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <limits>

#include "engine/Boundary.h"
#include "engine/GetDoneWrapper.h"
#include "engine/MirelSnapshotEngine.h"

namespace MirelSnapSnapshotCoordinator {
namespace {

bool isKey(const wchar_t* key, const wchar_t* name) { return key != nullptr && wcscasecmp(key, name) == 0; }

}  // namespace

int MirelSnapshotEngine::SetOption(const _SSGUIDPLAIN& snapshotId, const wchar_t* key, const wchar_t* value) {
  return AtBoundary([&] {
    // The volume is looked up before the arguments are tested, and for every key.
    const bool engineWide = isKey(key, L"MountPointBase");
    const GetDoneWrapper<MirelSnapshotVolumeParams> volume(
        mSnapshotSetParams != nullptr ? mSnapshotSetParams->GetFor(snapshotId) : nullptr);
    if (!volume && !engineWide) return USC_E_OBJECT_NOT_FOUND;
    if (key == nullptr || value == nullptr) return E_INVALIDARG;

    if (engineWide) return setMountPointBase(value);
    if (isKey(key, L"RelocationFileMountPoint")) return setRelocationFileMountPoint(*volume.get(), value);
    if (isKey(key, L"RelocationFileSize")) return setRelocationFileSize(*volume.get(), value);
    return E_INVALIDARG;
  });
}

int MirelSnapshotEngine::setMountPointBase(const wchar_t* value) {
  // What does not fit is cut off, in the midst of a character if need be: the contract. No such path can be made.
  char base[4097];
  if (std::snprintf(base, sizeof base, "%ls", value) < 1) return E_UNEXPECTED;
  if (base[0] != '/') return E_INVALIDARG;
  mMountPointBase = base;
  return S_OK;
}

int MirelSnapshotEngine::setRelocationFileMountPoint(MirelSnapshotVolumeParams& volume, const wchar_t* value) {
  return volume.SetRelocationFileMountName(value) ? S_OK : E_INVALIDARG;
}

int MirelSnapshotEngine::setRelocationFileSize(MirelSnapshotVolumeParams& volume, const wchar_t* value) {
  wchar_t* end = nullptr;
  const unsigned long blocks = std::wcstoul(value, &end, 0);
  if (*end != L'\0' || blocks > std::numeric_limits<std::uint32_t>::max()) return E_INVALIDARG;
  return volume.SetRelocationFileSizeInBlocks(static_cast<unsigned int>(blocks)) ? S_OK : E_INVALIDARG;
}

}  // namespace MirelSnapSnapshotCoordinator
