// SPDX-License-Identifier: Apache-2.0
//
// A driver with processes that use it, as a test starts, kills and questions them. When it ends it proves that nothing
// is left: see Session.
#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Channel.h"
#include "KernelDriver.h"
#include "World.h"

namespace test {

struct StartOptions {
  std::map<std::string, std::string> environment = {};  // added to the test's own
  std::vector<std::string> without = {};                // variables taken out of it
  std::optional<uid_t> user = {};
  std::string root = {};    // root directory
  std::string folder = {};  // working directory, inside the root
  int terminal = -1;        // standard streams and controlling terminal, when given
  int channel = -1;         // given to the program as kChannelDescriptor, when given
  std::vector<int> ignoredSignals = {};
};

// The environment of a program that is to meet with something that the machine does not do of itself (mischief.cpp).
std::map<std::string, std::string> withMischief(const std::string& mischief);

// A process that a session started. One that runs at its end is killed.
class Process {
 public:
  Process(Process&&) = default;
  Process& operator=(Process&&) = default;
  ~Process();

  pid_t id() const { return mProcess; }
  bool running();
  // Its exit code, or 128 + the signal that ended it. One that outlives kPatience is killed and fails the test.
  int wait();
  void signal(int number) const;
  // Waits until it has stopped (SIGSTOP). One that does not fails the test.
  void waitUntilStopped();
  // SIGKILL, and waits: afterwards nobody finds the process any more.
  void kill();
  // Waits until it has written a line to its output; false when it ends without.
  [[nodiscard]] bool writesLine();
  // What it wrote to its streams so far.
  std::string output() const;
  std::string errors() const;

 private:
  friend class Session;
  struct Files {
    TempDir folder;
  };
  Process(class Session& session, pid_t process, std::unique_ptr<Files> files)
      : mSession(&session), mProcess(process), mFiles(std::move(files)) {}

  class Session* mSession;
  pid_t mProcess;
  std::unique_ptr<Files> mFiles;
  std::optional<int> mStatus;
};

// How a program ended, and what it wrote.
struct Ended {
  int code;
  std::string output;
  std::string errors;
};

// The emulator with its options, or no driver at all. What is started must be gone before the session. Where the tests
// have the kernel's driver (KernelDriver.h) it takes the emulator's place: there are no options then, no trace, no
// complaints; a test that asks for one of them fails.
//
// Its end fails the test when anything is left that was not there at its start: a process, a snapshot, a mapping, a
// mount, a node, a loop device, a relocation file or its directory, the emulator's control node; or when the emulator
// refused a command that the test did not expect to be refused, or ended with a failure of its own. The kernel's
// driver, which is the machine's, must hold nothing at the start either.
class Session {
 public:
  explicit Session(std::vector<std::string> emulatorOptions = {});
  static Session withoutDriver() { return Session(Driver::kNone); }
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  Process start(const std::vector<std::string>& arguments, const StartOptions& options = {});
  // The errno that keeps a program from being started.
  int startError(const std::vector<std::string>& arguments);
  Ended run(const std::vector<std::string>& arguments, const StartOptions& options = {});
  Ended shell(const std::string& script, const StartOptions& options = {}) {
    return run({"/bin/sh", "-c", script}, options);
  }

  // The driver's commands so far, as the emulator's trace tells them.
  std::vector<Json> trace();
  // Those of one kind.
  std::vector<Json> trace(const std::string& command);
  // The emulator's complaints since the last time, line by line, which are expected then. They come when they come: at
  // least `count` are waited for.
  std::vector<std::string> takeComplaints(std::size_t count);
  // Complaints that match `pattern` may come or not.
  void tolerateComplaints(const std::string& pattern) { mTolerated = pattern; }
  pid_t emulator() const;
  // Processes that stay on purpose, or of which the test cannot know the end (a killed session).
  void forget() { mChecked = true; }

 private:
  friend class Process;
  enum class Driver { kEmulator, kKernel, kNone };
  explicit Session(Driver driver);
  void beginEmulator(const std::vector<std::string>& options);
  void begin(std::vector<std::string> command);
  std::optional<int> statusOf(pid_t process);
  void check();
  void checkEmulator();
  void waitForTrace();
  std::vector<std::string> newComplaints(std::size_t count);

  void requireEmulator(const std::string& what) const;

  TempDir mDir;
  const Driver mDriver;
  std::optional<UnloadedModule> mUnloaded;  // the kernel's, where there is to be none
  bool mChecked = false;
  pid_t mProcess = -1;  // of the emulator, or of the host itself
  Channel mHost{-1};
  std::size_t mComplaintsTaken = 0;
  std::string mTolerated;
  std::unique_ptr<class DriverClient> mMarker;  // its commands mark places in the trace
  std::size_t mMarks = 0;
  std::vector<std::string> mMountsBefore;
  std::vector<std::string> mRelocationBefore;
};

}  // namespace test
