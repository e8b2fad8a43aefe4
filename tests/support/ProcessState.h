// SPDX-License-Identifier: Apache-2.0
//
// What the kernel tells of a running process: where it stands. A thread is named as a process is, by its number.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace test {

// The program's short name, "sleep"; empty when the process is gone.
std::string programOf(pid_t process);
// 'R', 'S', 'D' (in the kernel, and no signal reaches it), 'T', 'Z', ...; 0 when it is gone.
char stateOf(pid_t process);
// Whether it stands in a system call (SYS_...).
bool isInCall(pid_t process, long call);
// Whether it waits for a lock, a condition or another thread's end.
bool waitsForAThread(pid_t process);
// Whether it has taken a signal that was sent to it, and stands still again.
bool hasTaken(pid_t process, int signal);
std::vector<pid_t> threadsOf(pid_t process);
// Whether what is typed at the terminal goes to `program`.
bool runsInForeground(int terminal, const std::string& program);

}  // namespace test
