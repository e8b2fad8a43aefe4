// SPDX-License-Identifier: Apache-2.0
//
// What mirelsnap opens no program inherits that it starts: each call that opens something is looked at.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/openat2.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <set>

#include "Run.h"
#include "Waiting.h"

namespace {

using test::LoopDevice;
using test::Mounted;
using test::Process;
using test::Session;
using test::TempDir;
using test::Volume;

using Texts = std::vector<std::string>;

std::string textAt(pid_t process, unsigned long address) {
  std::string text;
  for (;;) {
    const long word = ptrace(PTRACE_PEEKDATA, process, address + text.size(), nullptr);
    for (std::size_t i = 0; i < sizeof word; ++i) {
      const char character = static_cast<char>(word >> (8 * i));
      if (character == '\0') return text;
      text += character;
    }
    if (text.size() > 4096) return text;
  }
}

// The path that a call opens without O_CLOEXEC; empty for any other call.
std::string inheritedPath(pid_t process, const __ptrace_syscall_info& call) {
  const auto* arguments = call.entry.args;
  unsigned long path = arguments[1];
  unsigned long flags = 0;
  switch (call.entry.nr) {
    case SYS_open:
      path = arguments[0];
      flags = arguments[1];
      break;
    case SYS_openat:
      flags = arguments[2];
      break;
    case SYS_openat2:
      static_assert(offsetof(open_how, flags) == 0);
      flags = static_cast<unsigned long>(ptrace(PTRACE_PEEKDATA, process, arguments[2], nullptr));
      break;
    default:
      return "";
  }
  return (flags & O_CLOEXEC) != 0 ? "" : textAt(process, path);
}

// The C library's own, for messages and character sets.
bool isLibrarys(const std::string& path) { return path.starts_with("/usr/"); }

// What the first thread of a program opened to be inherited, in a run to its end.
std::set<std::string> inheritedBy(Session& session, Texts arguments) {
  arguments.insert(arguments.begin(), {"/bin/sh", "-c", "kill -STOP $$; exec \"$@\"", "sh"});
  Process process = session.start(arguments);
  process.waitUntilStopped();
  EXPECT_EQ(ptrace(PTRACE_SEIZE, process.id(), nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEEXEC), 0);
  process.signal(SIGCONT);
  std::set<std::string> found;
  bool executed = false;
  int status = 0;
  while (waitpid(process.id(), &status, __WALL) == process.id() && !WIFEXITED(status) && !WIFSIGNALED(status)) {
    __ptrace_syscall_info call{};
    const int signal = WSTOPSIG(status);
    if (status >> 8 == (SIGTRAP | (PTRACE_EVENT_EXEC << 8))) executed = true;
    if (executed && signal == (SIGTRAP | 0x80) &&
        ptrace(PTRACE_GET_SYSCALL_INFO, process.id(), sizeof call, &call) > 0 && call.op == PTRACE_SYSCALL_INFO_ENTRY) {
      if (std::string path = inheritedPath(process.id(), call); !path.empty() && !isLibrarys(path))
        found.insert(std::move(path));
    }
    const bool own = signal == (SIGTRAP | 0x80) || status >> 16 != 0;
    ptrace(PTRACE_SYSCALL, process.id(), nullptr, own ? 0 : signal);
  }
  process.wait();
  return found;
}

TEST(Descriptors, of_no_verb_are_inherited_by_a_program) {
  const Volume volume("ext4", 32 << 20);
  const Volume live("ext4", 32 << 20);
  const TempDir dir;
  Session session;
  const std::set<std::string> none;
  const Texts run = test::runArguments({"--volume", volume.device(), "--base", dir / "base", "--bind", live.folder()},
                                       {"/bin/sh", "-c", "echo $$; exec sleep 60"});
  // What a killed run left, so that there is something to tell and to remove.
  Process killed = session.start(run);
  ASSERT_TRUE(killed.writesLine());
  killed.kill();
  const pid_t command = std::stoi(killed.output());
  EXPECT_EQ(inheritedBy(session, {MIRELSNAP_PROGRAM, "status"}), none);
  EXPECT_EQ(inheritedBy(session, {MIRELSNAP_PROGRAM, "doctor", "/dev/loop-control", volume.device()}), none);
  EXPECT_EQ(inheritedBy(session, {MIRELSNAP_PROGRAM, "plan"}), none);
  kill(command, SIGKILL);
  EXPECT_EQ(inheritedBy(session, {MIRELSNAP_PROGRAM, "reconcile"}), none);
  // One that is busy for a moment, so that it is told who keeps it.
  EXPECT_EQ(
      inheritedBy(session, test::runArguments({"--volume", volume.device()},
                                              {"/bin/sh", "-c", "sleep 1 <$MIRELSNAP_VOLUME_1 >/dev/null 2>&1 &"})),
      none);
}

}  // namespace
