// SPDX-License-Identifier: Apache-2.0
//
// Takes the system calls that the filter hands over: the driver's files and the control node's requests are answered
// here, everything else goes on to the kernel. One thread takes calls, another carries out commands, so that processes
// go on opening files while a snapshot is copied.
#pragma once

#include <linux/seccomp.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "base/Handle.h"
#include "emulator/driver/CommandDesk.h"
#include "emulator/driver/Messages.h"
#include "emulator/machine/Caller.h"
#include "emulator/machine/Kernel.h"
#include "emulator/supervise/DriverFile.h"

namespace emulator {

class Supervisor {
 public:
  // `listener`: where the calls arrive. With `loaded` false there is no driver until a process loads it. `broken` is
  // called once, from another thread, when calls cannot be taken any more.
  Supervisor(const Kernel& kernel, CommandDesk& desk, Messages& messages, DriverFile numbers, UniqueFd listener,
             bool loaded, std::function<void()> broken);
  // Ends: a call that is not answered yet fails, for the caller, as one that the kernel does not have.
  ~Supervisor();
  Supervisor(const Supervisor&) = delete;
  Supervisor& operator=(const Supervisor&) = delete;

  // Does something between commands, on their thread.
  void betweenCommands(std::function<void()> work);

 private:
  struct ControlRequest;

  void takeCalls();
  void takeCall(const seccomp_notif& call);
  void takeRequest(const seccomp_notif& call);
  void takeExecution(const seccomp_notif& call);
  bool takeDriverFile(const seccomp_notif& call, const CallerMemory& caller);
  void carryOutCommands();
  void serve(const ControlRequest& request);
  void serveSnapshots(const seccomp_notif& call);
  void queue(std::function<void()> work);

  bool stillWaits(std::uint64_t id) const;
  void letThrough(std::uint64_t id) const;
  void answer(std::uint64_t id, int error) const;
  void reply(std::uint64_t id, const CallerMemory& caller, const DriverFile::Reply& reply) const;

  const Kernel& mKernel;
  CommandDesk& mDesk;
  Messages& mMessages;
  DriverFile mNumbers;
  UniqueFd mListener;
  UniqueFd mStop;  // readable once the threads are to end
  bool mLoaded;    // of the thread that takes calls
  std::function<void()> mBroken;

  std::mutex mMutex;
  std::condition_variable mChanged;
  std::deque<std::function<void()>> mQueue;
  bool mEnding = false;
  std::thread mCallThread;
  std::thread mCommandThread;
};

}  // namespace emulator
