// SPDX-License-Identifier: Apache-2.0
//
// The engine's messages. QX_SetLogHandler (SnapshotEngine.h) says where they go.
#pragma once

#include <mirelsnap/SnapshotEngine.h>

// Formats and hands one message to the handler, or to the system log when none is set (level 0 at LOG_ERR, every other
// at LOG_INFO). The format is wide: "%hs" and "%s" take narrow strings, "%ls" wide ones. Never throws; a name that the
// locale cannot decode, or a shortage of memory, never loses a message.
void QX_Zprintf(unsigned short level, const wchar_t* format, ...) noexcept;
