// SPDX-License-Identifier: Apache-2.0
//
// The driver's control node: loading the module, making the node, opening it.
#pragma once

#include <string>

#include "base/Handle.h"

inline constexpr char kDriverModule[] = "mirelsnap";
inline constexpr char kControlNode[] = "/dev/mirelsnapctl";

// Full path of the first file `name` in the system's program directories; empty when there is none.
std::string findExe(const std::string& name);

// Opens the control node, loading the module and (re)making the node where needed. Returns a descriptor that the
// caller closes, or -1 with errno saying why. When a node with wrong numbers cannot be replaced, the number of its
// closed descriptor comes back: it is the caller's to close as well, and every request on it fails. Where that number
// cannot be kept from others (no descriptor is free), -1 does.
int openControlDevice();

// The control device for one command; a failure is logged and gives an invalid handle.
UniqueFd openDriver();
