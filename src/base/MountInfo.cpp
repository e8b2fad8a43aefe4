// SPDX-License-Identifier: Apache-2.0
#include "base/MountInfo.h"

#include <libmount.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <string_view>

namespace {

using Table = std::unique_ptr<libmnt_table, CloseWith<&mnt_unref_table>>;
using Iterator = std::unique_ptr<libmnt_iter, CloseWith<&mnt_free_iter>>;

std::string textOf(const char* text) { return text == nullptr ? std::string() : std::string(text); }

// What libmount takes for a network file system, and what its versions differ in or do not know.
bool isNetworkFileSystem(libmnt_fs* mount) {
  static constexpr std::string_view kOthers[] = {
      "afs",       "beegfs",         "ceph",       "coda",           "lustre",      "ncpfs",     "orangefs",  "smb3",
      "fuse.ceph", "fuse.curlftpfs", "fuse.davfs", "fuse.glusterfs", "fuse.rclone", "fuse.s3fs", "fuse.sshfs"};
  return mnt_fs_is_netfs(mount) != 0 ||
         std::find(std::begin(kOthers), std::end(kOthers), textOf(mnt_fs_get_fstype(mount))) != std::end(kOthers);
}

// A line that is not of the format is left out. (Without this, libmount prints a warning.)
int skipLine(libmnt_table*, const char*, int) { return 1; }

}  // namespace

std::optional<std::vector<MountLine>> readMountInfo(UniqueFd file) {
  const UniqueFile stream(file ? fdopen(file.get(), "r") : nullptr);
  if (stream == nullptr) return std::nullopt;
  static_cast<void>(file.release());
  const Table table(mnt_new_table());
  const Iterator iterator(mnt_new_iter(MNT_ITER_FORWARD));
  if (table == nullptr || iterator == nullptr) throw std::bad_alloc();
  mnt_table_set_parser_errcb(table.get(), skipLine);
  const int error = mnt_table_parse_stream(table.get(), stream.get(), "mountinfo");
  if (error == -ENOMEM) throw std::bad_alloc();
  if (error != 0) return std::nullopt;
  std::vector<MountLine> mounts;
  mounts.reserve(static_cast<std::size_t>(std::max(0, mnt_table_get_nents(table.get()))));
  libmnt_fs* mount = nullptr;
  while (mnt_table_next_fs(table.get(), iterator.get(), &mount) == 0) {
    mounts.push_back({mnt_fs_get_id(mount), mnt_fs_get_devno(mount), textOf(mnt_fs_get_root(mount)),
                      textOf(mnt_fs_get_target(mount)), textOf(mnt_fs_get_fstype(mount)),
                      textOf(mnt_fs_get_source(mount)), isNetworkFileSystem(mount), mnt_fs_is_pseudofs(mount) != 0});
  }
  return mounts;
}
