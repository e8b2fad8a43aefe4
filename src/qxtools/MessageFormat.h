// SPDX-License-Identifier: Apache-2.0
//
// The formatting of the engine's messages; QX_Zprintf (Log.h) says which formats there are.
#pragma once

#include <cstdarg>

#include "qxtools/MessageText.h"

// Appends `format` with its arguments to the message. The C library's own formatting gives up the whole text on the
// first byte that it cannot decode; this one shows such bytes and goes on.
void FormatMessage(MessageText<wchar_t>& message, const wchar_t* format, std::va_list arguments) noexcept;
