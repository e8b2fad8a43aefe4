// SPDX-License-Identifier: Apache-2.0
//
// The kernel's mount table at one moment, read with libmount: which mount holds a path, and what lies under it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace UnixUtils {

class SystemMountPointCollection {
 public:
  // One mount. Reference-counted; what needs the device is read when it is asked for.
  class MountPointInformation {
   public:
    // `fsDeviceNumber` is the number that the kernel's table has for it; `pseudo` marks a file system that never has a
    // block device, whatever its source is called.
    MountPointInformation(std::string folder, std::string root, std::string type, std::string source,
                          std::uint64_t fsDeviceNumber, bool pseudo) noexcept;

    void Get() noexcept;
    // Drops a reference; true when that was the last one.
    bool Done() noexcept;

    // Folder and type as the kernel has them, escapes decoded.
    const char* GetMountFolder() const noexcept { return mFolder.c_str(); }
    // What of the file system is mounted there: "/" but for a bind of one of its folders or files.
    const char* GetMountRoot() const noexcept { return mRoot.c_str(); }
    const char* GetMountFileSystem() const noexcept { return mType.c_str(); }
    const char* GetMountSource() const noexcept { return mSource.c_str(); }
    // Number of the block device that is mounted; 0 when there is none.
    std::uint64_t GetDeviceNumber() const noexcept;
    // The file system's block size in bytes (FIGETBSZ on the mount folder); 0 when it has no block device.
    std::uint32_t GetBlockSize() const noexcept;
    // Size of the block device in bytes (BLKGETSIZE64); 0 when there is none or no node leads to it.
    std::uint64_t GetDeviceSize() const noexcept;

   private:
    ~MountPointInformation() = default;

    std::atomic<unsigned int> mReferences{1};
    std::string mFolder;
    std::string mRoot;
    std::string mType;
    std::string mSource;
    std::uint64_t mFsDeviceNumber;
    bool mPseudo;
  };

  // The mounts of this machine but for those of network file systems, in the kernel's order, those without a block
  // device included. One reference, to be dropped with Done; null when the table cannot be read or memory is short.
  static SystemMountPointCollection* GetLocalSystemMountPointCollection() noexcept;

  void Get() noexcept;
  bool Done() noexcept;

  std::size_t GetCount() const noexcept { return mEntries.size(); }
  // Entry `index` with a reference added; null when out of range.
  MountPointInformation* GetAt(std::size_t index) const noexcept;
  // The deepest mount that contains `path` once it is resolved; of several on one folder the last. With a reference
  // added; null for a null or empty path, for one that cannot be resolved and when the mount that holds it is not in
  // here.
  MountPointInformation* FindMountPointFromPath(const char* path) const noexcept;
  MountPointInformation* FindMountPointFromPath(const wchar_t* path) const noexcept;

 private:
  // A mount in the kernel's order. Network mounts stand here without an entry, because they too cover what lies below.
  struct Mount {
    int id;
    std::string folder;
    MountPointInformation* entry;
  };

  SystemMountPointCollection() = default;
  ~SystemMountPointCollection();

  // Reads the kernel's table; false when it cannot be read.
  bool read();
  const Mount* findById(int id) const noexcept;
  const Mount* findDeepest(const char* resolvedPath) const noexcept;

  std::atomic<unsigned int> mReferences{1};
  std::vector<Mount> mMounts;
  std::vector<MountPointInformation*> mEntries;  // those of mMounts that have one
};

}  // namespace UnixUtils
