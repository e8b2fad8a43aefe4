// SPDX-License-Identifier: Apache-2.0
//
// The engine's messages. QX_SetLogHandler (SnapshotEngine.h) says where they go.
#pragma once

#include <mirelsnap/SnapshotEngine.h>

// Formats and hands one message to the handler, or to the system log when none is set (level 0 at LOG_ERR, every other
// at LOG_INFO). The format is wide: "%hs" and "%s" take narrow strings, "%ls" wide ones; "%hc", "%c" and "%lc"
// characters; "%d", "%i", "%u", "%o", "%x" and "%X" whole numbers, with flags, width, precision and length; another
// conversion ends the formatting and the rest of the format is shown as it stands. Never throws, keeps errno. No
// message is lost: bytes that the locale cannot decode are shown as "\xE9", characters that it cannot encode for the
// system log as "\u00E9", and when memory is short the end of a long message is cut and shown as "...".
void QX_Zprintf(unsigned short level, const wchar_t* format, ...) noexcept;
