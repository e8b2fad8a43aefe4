// SPDX-License-Identifier: Apache-2.0
#include "base/MountInfo.h"

#include <libmount.h>

#include <cerrno>
#include <memory>
#include <new>

namespace {

using Table = std::unique_ptr<libmnt_table, CloseWith<&mnt_unref_table>>;
using Iterator = std::unique_ptr<libmnt_iter, CloseWith<&mnt_free_iter>>;

std::string textOf(const char* text) { return text == nullptr ? std::string() : std::string(text); }

// A line that is not of the format is left out. (Without this, libmount prints a warning.)
int skipLine(libmnt_table*, const char*, int) { return 1; }

}  // namespace

std::vector<MountLine> readMountInfo(UniqueFd file) {
  std::vector<MountLine> mounts;
  const UniqueFile stream(file ? fdopen(file.get(), "r") : nullptr);
  if (stream == nullptr) return mounts;
  static_cast<void>(file.release());
  const Table table(mnt_new_table());
  const Iterator iterator(mnt_new_iter(MNT_ITER_FORWARD));
  if (table == nullptr || iterator == nullptr) throw std::bad_alloc();
  mnt_table_set_parser_errcb(table.get(), skipLine);
  if (mnt_table_parse_stream(table.get(), stream.get(), "mountinfo") == -ENOMEM) throw std::bad_alloc();
  libmnt_fs* mount = nullptr;
  while (mnt_table_next_fs(table.get(), iterator.get(), &mount) == 0) {
    mounts.push_back({mnt_fs_get_id(mount), mnt_fs_get_devno(mount), textOf(mnt_fs_get_root(mount)),
                      textOf(mnt_fs_get_target(mount)), textOf(mnt_fs_get_fstype(mount)),
                      textOf(mnt_fs_get_source(mount))});
  }
  return mounts;
}
