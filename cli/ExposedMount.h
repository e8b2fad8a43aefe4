// SPDX-License-Identifier: Apache-2.0
//
// What a live mount forbids, forbidden where its snapshot is shown: set-user-ID bits, device nodes, programs.
#pragma once

#include <string>

#include "Failure.h"
#include "VolumeChoice.h"

namespace cli {

// Gives the snapshot of `volume` that is mounted at `target` the restrictions of the live mount; all of them where
// those cannot be told.
Outcome restrictSnapshot(const std::string& target, const ChosenVolume& volume);
// Makes the bind of a live mount at `target` read-only, with the restrictions that it brought along. What is mounted or
// unmounted live from now on does not pass into it, nor back, unless it `holdsAnother` bind: that one was passed on
// when it was made, and its unmounting must be.
Outcome restrictBind(const std::string& target, bool holdsAnother);

}  // namespace cli
