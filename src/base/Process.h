// SPDX-License-Identifier: Apache-2.0
//
// Whether a process that the driver names still lives: one answer for the library and its agents.
#pragma once

// True when process `id` is dead: it cannot be signalled, for whatever reason (the contract: one that may not be
// signalled counts as gone too), or it is a zombie. A first thread that has ended while others of its process run is
// none, and what /proc does not tell about counts as alive. An `id` that is not above 0 names no process that could be
// judged, so it is never gone: the driver's 0 says that it knows of no owner, and a negative one would address a
// process group.
[[nodiscard]] bool processIsGone(int id) noexcept;
