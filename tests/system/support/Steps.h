// SPDX-License-Identifier: Apache-2.0
//
// The calls by which the library under a test's agent changes something outside its process: driver commands, mounts,
// files made, written and removed. Each is a step, which can be the last thing before which the process dies.
#pragma once

#include <string>
#include <vector>

namespace steps {

// From here steps are counted, from 1; before step `last` is taken the process kills itself (0: it never does).
void count(unsigned int last);
// The steps taken since, "ioctl 19", "mkdir /mnt/x".
std::vector<std::string> taken();

}  // namespace steps
