// SPDX-License-Identifier: Apache-2.0
//
// The kernel's mount table as it stands.
#pragma once

#include <optional>
#include <vector>

#include "sysinfo/MountEntry.h"

namespace mirelsnapsdk_linuxcomputer {

// Every entry, in the table's order, devices as the table names them. Nothing, with errno set, when the table cannot be
// opened.
std::optional<std::vector<MountEntry>> readMountTable();

}  // namespace mirelsnapsdk_linuxcomputer
