// SPDX-License-Identifier: Apache-2.0
//
// The engine object: making it, its reference count and its two faces, what it can do, and the slots that are not
// provided.
#include "engine/MirelSnapshotEngine.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <new>

#include "base/Handle.h"
#include "engine/Boundary.h"
#include "qxtools/Log.h"
#include "qxtools/UnixUtils.h"

namespace MirelSnapSnapshotCoordinator {

_SSGUIDPLAIN MirelSnapshotEngine::sUUID{};
const _SSGUIDPLAIN MirelSnapshotEngine::sProviderUUID = {
    0x862B8DDD, 0x8146, 0x46A1, {0x98, 0x85, 0xEA, 0x7F, 0x74, 0xC1, 0x5B, 0xA7}};
pthread_mutex_t MirelSnapshotEngine::sLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t MirelSnapshotEngine::sCond = PTHREAD_COND_INITIALIZER;
pthread_cond_t MirelSnapshotEngine::sCondNewSnapshotSet = PTHREAD_COND_INITIALIZER;

namespace {

alignas(LinuxGuardedSnapshotSetParamsArray) std::byte sArrayStorage[sizeof(LinuxGuardedSnapshotSetParamsArray)];

// Drops the sets that are still listed when the library is unloaded or the process ends.
struct EmptiesArray {
  ~EmptiesArray() { MirelSnapshotEngine::sSnapshotSetParamsArray.RemoveAll(); }
};

// The name of the constructor in its messages.
constexpr char kConstructor[] = "MirelSnapshotEngine";

// A longer name is no volume.
constexpr std::size_t kLongestVolumeName = 4096;

// Opens `name` for reading. What is no block device is not waited for: a FIFO without a writer would hold the agent for
// ever. A block device is opened in earnest: without that, a drive lets itself be opened that has no medium.
UniqueFd openVolume(const char* name) {
  struct stat status;
  const bool other = stat(name, &status) == 0 && !S_ISBLK(status.st_mode);
  return UniqueFd(other ? open(name, O_RDONLY | O_CLOEXEC | O_NONBLOCK) : open(name, O_RDONLY | O_CLOEXEC));
}

// Whether `name` can be opened and is a block device of non-zero size.
bool isBlockDeviceWithRoom(const char* name) {
  if (access(name, F_OK) != 0) return false;
  const UniqueFd device = openVolume(name);
  if (!device) return false;
  static_assert(BLKGETSIZE64 == 0x80081272);
  std::uint64_t size = 0;
  return ioctl(device.get(), BLKGETSIZE64, &size) == 0 && size != 0;
}

}  // namespace

LinuxGuardedSnapshotSetParamsArray& MirelSnapshotEngine::sSnapshotSetParamsArray =
    *new (sArrayStorage) LinuxGuardedSnapshotSetParamsArray;
static const EmptiesArray sEmptiesArray;

// --- Making and unmaking

UnixSnapshotCoordinator::IUscSnapshotEngine* MirelSnapshotEngine::CreateSnapshotEngine() {
  void* created = nullptr;
  const int result = AtBoundary([&] {
    auto* engine = new MirelSnapshotEngine;
    const int queried = engine->QueryInterface(UnixSnapshotCoordinator::IUscSnapshotEngine::GetGUID(), &created);
    engine->Release();  // the query's reference is the agent's; without it the engine is freed here
    return queried;
  });
  return result < 0 ? nullptr : static_cast<UnixSnapshotCoordinator::IUscSnapshotEngine*>(created);
}

MirelSnapshotEngine::MirelSnapshotEngine() {
  mDriver = SnapDriverInterface::Instance();
  if (mDriver == nullptr) {
    QX_Zprintf(0, L"%hs: SnapDriverInterface::Instance() returned NULL!", kConstructor);
    return;
  }
  readDriverVersion();
}

void MirelSnapshotEngine::readDriverVersion() {
  constexpr unsigned int kNoMemory = 3;
  unsigned int result = kNoMemory;
  try {
    std::string version;
    result = mDriver->GetDriverVersionDetail(version);
    if (result == 0) {
      QX_Zprintf(0, L"%hs: MirelSnap Driver version: %hs", kConstructor, version.c_str());
      mVersionString.assign(version.c_str(), 0);
      return;
    }
  } catch (...) {
    // An engine without the driver's version is as good as any: the reference on the driver must not be lost for it.
    result = kNoMemory;
  }
  QX_Zprintf(0, L"%hs: GetDriverVersionDetail() failed with result = %d", kConstructor, static_cast<int>(result));
}

MirelSnapshotEngine::~MirelSnapshotEngine() {
  ResetState();
  if (mDriver != nullptr) {
    SnapDriverInterface::releaseInstance();
    mDriver = nullptr;
  }
  if (mSnapshotSetParams != nullptr) {
    mSnapshotSetParams->Done();
    mSnapshotSetParams = nullptr;
  }
  dropThreadParams();
}

// --- Both faces

int MirelSnapshotEngine::QueryInterface(const _SSGUIDPLAIN& iid, void** out) {
  using UnixInterfaces::InlineIsEqualGUID;
  if (out == nullptr) return E_POINTER;
  if (InlineIsEqualGUID(iid, UnixInterfaces::IUnknown::GetGUID()) ||
      InlineIsEqualGUID(iid, UnixSnapshotCoordinator::IUscSnapshotEngine::GetGUID())) {
    AddRef();
    *out = static_cast<UnixSnapshotCoordinator::IUscSnapshotEngine*>(this);
    return S_OK;
  }
  if (InlineIsEqualGUID(iid, UnixSnapshotCoordinator::IUscAsync::GetGUID())) {
    AddRef();
    *out = static_cast<UnixSnapshotCoordinator::IUscAsync*>(this);
    return S_OK;
  }
  return E_NOINTERFACE;
}

unsigned int MirelSnapshotEngine::AddRef() { return IUnknownImpl::AddRef(); }

unsigned int MirelSnapshotEngine::Release() { return IUnknownImpl::Release(); }

// --- What the engine can do

int MirelSnapshotEngine::GetVersionString(const wchar_t** version) {
  *version = mVersionString.c_str();  // the one output that is not checked for null: the contract
  return S_OK;
}

int MirelSnapshotEngine::SupportsSnapshots(int* supported) {
  return AtBoundary([&] {
    if (supported == nullptr) return E_POINTER;
    std::string version;
    *supported = mDriver != nullptr && mDriver->GetDriverVersionDetail(version) == 0 ? 1 : 0;
    return S_OK;
  });
}

int MirelSnapshotEngine::SupportsPITMultiVolumeSnaps(int* supported) {
  if (supported == nullptr) return E_POINTER;
  *supported = 1;
  return S_OK;
}

int MirelSnapshotEngine::IsVolumeSupported(const wchar_t* volume, int* supported) {
  return AtBoundary([&] {
    if (supported == nullptr) return S_OK;  // no E_POINTER here: the contract
    *supported = 0;
    if (volume == nullptr || wcsnlen(volume, kLongestVolumeName + 1) > kLongestVolumeName) return S_OK;

    const int length = std::snprintf(nullptr, 0, "%ls", volume);
    if (length <= 0) return S_OK;
    const std::size_t room = static_cast<std::size_t>(length) + 1;
    const UnixUtils::NarrowText name(static_cast<char*>(std::calloc(room, 1)));
    if (name == nullptr) return E_OUTOFMEMORY;
    if (std::snprintf(name.get(), room, "%ls", volume) <= 0) return S_OK;

    *supported = isBlockDeviceWithRoom(name.get()) ? 1 : 0;
    return S_OK;
  });
}

// --- Not provided

int MirelSnapshotEngine::PrepareForBackup(UnixSnapshotCoordinator::IUscAsync**) { return S_OK; }

int MirelSnapshotEngine::ExposeSnapshot(const _SSGUIDPLAIN&, const wchar_t*, const wchar_t**) { return E_NOTIMPL; }

int MirelSnapshotEngine::UnExposeSnapshot(const _SSGUIDPLAIN&) { return E_NOTIMPL; }

}  // namespace MirelSnapSnapshotCoordinator

UscCreateSnapshotEngine* GetCreatorFunction() {
  return &MirelSnapSnapshotCoordinator::MirelSnapshotEngine::CreateSnapshotEngine;
}
