// SPDX-License-Identifier: Apache-2.0
//
// The standard streams of a program. The library itself leaves them alone.
#pragma once

// Opens /dev/null as each standard stream that is closed: the next file that is opened would stand in for it, and take
// what is meant for the stream. False when it cannot be opened.
bool openClosedStreams() noexcept;
