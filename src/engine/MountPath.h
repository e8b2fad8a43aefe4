// SPDX-License-Identifier: Apache-2.0
//
// Paths of mount points: joined under a base, measured, recognised.
#pragma once

#include "qxtools/UnixUtils.h"

namespace MirelSnapSnapshotCoordinator {

// Base directory joined with an absolute mount point, one trailing "/" removed; the mount point "/" gives the base
// itself. Null when either is null or not absolute, and when memory is short.
UnixUtils::NarrowText JoinMountPath(const char* base, const char* mountPoint);

// The number of "/" characters of `path`, read as multibyte text; -1 for undecodable text.
int FolderDepth(const char* path);

// Whether `path` is a local mount point itself and spelled as the mount table spells it.
bool IsLocalMountPoint(const char* path);

}  // namespace MirelSnapSnapshotCoordinator
