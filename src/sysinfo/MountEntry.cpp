// SPDX-License-Identifier: Apache-2.0
#include "sysinfo/MountEntry.h"

namespace mirelsnapsdk_linuxcomputer {

MountEntry::MountEntry(const mntent& record)
    : fsname(record.mnt_fsname),
      dir(record.mnt_dir),
      type(record.mnt_type),
      opts(record.mnt_opts),
      freq(record.mnt_freq),
      passno(record.mnt_passno) {}

}  // namespace mirelsnapsdk_linuxcomputer
