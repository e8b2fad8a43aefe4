// SPDX-License-Identifier: Apache-2.0
//
// A plain user of the machine.
#pragma once

#include <grp.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test {

inline constexpr uid_t kUser = 4711;

// What `act` answers in a process of that user's, who has no rights of root's.
template <class Act>
bool asUser(Act act) {
  const pid_t child = fork();
  if (child == 0) {
    const bool plain =
        setgroups(0, nullptr) == 0 && setresgid(kUser, kUser, kUser) == 0 && setresuid(kUser, kUser, kUser) == 0;
    _exit(plain && act() ? 0 : 1);
  }
  int status = -1;
  return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

}  // namespace test
