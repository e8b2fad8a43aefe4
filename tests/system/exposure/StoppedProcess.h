// SPDX-License-Identifier: Apache-2.0
//
// A program that is held before each of its outside steps, with ptrace: a test does what it likes meanwhile, or kills
// it there.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "Session.h"

namespace test {

class StoppedProcess {
 public:
  // Held before its first step; those of its other threads and of its children are not seen.
  StoppedProcess(Session& session, std::vector<std::string> arguments);
  // Takes over one that stops itself (SIGSTOP): it goes on from there.
  explicit StoppedProcess(Process stopping);
  ~StoppedProcess();
  StoppedProcess(const StoppedProcess&) = delete;
  StoppedProcess& operator=(const StoppedProcess&) = delete;

  // Lets it go on to its next call that makes, removes or mounts something or writes a record: the call's number, or
  // nothing when it has ended.
  std::optional<long> next();
  // SIGKILL, in the middle of whatever it does.
  void kill();
  Process& process() { return mProcess; }

 private:
  Process mProcess;
  bool mTraced = false;
  bool mPending = false;  // it is held before a step
};

}  // namespace test
