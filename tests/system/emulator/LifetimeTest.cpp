// SPDX-License-Identifier: Apache-2.0
//
// How the emulator starts and ends, and that it leaves nothing. (What is left in /dev, /mnt or mounted fails every
// test.)
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/audit.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <filesystem>

#include "EmulatorRun.h"
#include "Frozen.h"
#include "ProcessState.h"
#include "Waiting.h"
#include "World.h"
#include "base/Handle.h"

namespace {

using test::ClientRun;
using test::comesTrue;
using test::EmulatorRun;
using test::runToTheEnd;
using test::SnapCandidate;
using test::Volume;

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }
std::vector<std::string> shell(const std::string& script) { return {"sh", "-c", script}; }

// ---- exit codes

TEST(Exit, code_is_the_commands_own) {
  EXPECT_EQ(runToTheEnd({}, {"true"}).exitCode, 0);
  EXPECT_EQ(runToTheEnd({}, shell("exit 7")).exitCode, 7);
}

TEST(Exit, code_tells_the_signal_that_ended_the_command) {
  EXPECT_EQ(runToTheEnd({}, shell("kill -9 $$")).exitCode, 137);
  EXPECT_EQ(runToTheEnd({}, shell("kill -TERM $$")).exitCode, 143);
}

TEST(Exit, code_is_127_for_a_command_that_is_not_there_and_126_for_one_that_cannot_be_executed) {
  const auto notThere = runToTheEnd({}, {"no-such-command"});
  EXPECT_EQ(notThere.exitCode, 127);
  EXPECT_EQ(notThere.errors, "mirelsnap-emulator: no-such-command: No such file or directory\n");
  const test::TempDir dir;
  test::writeFile(dir / "plain", "");
  const auto notExecutable = runToTheEnd({}, {dir / "plain"});
  EXPECT_EQ(notExecutable.exitCode, 126);
  EXPECT_EQ(notExecutable.errors, "mirelsnap-emulator: " + dir / "plain" + ": Permission denied\n");
}

// A filter that answers one system call with an errno, where argument `index` is `value`.
void forbid(long call, unsigned int index, std::uint32_t value, std::uint32_t error) {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(call), 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offsetof(seccomp_data, args) + index * 8)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog filter{sizeof program / sizeof program[0], program};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0)
    _exit(99);
}

// Another user than root, who may only pass through folders: the program may lie in one that is root's alone.
bool becomeNobody() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  constexpr std::uint32_t kPass = 1U << CAP_DAC_READ_SEARCH;
  const __user_cap_data_struct sets[2] = {{kPass, kPass, kPass}, {0, 0, 0}};
  return prctl(PR_SET_KEEPCAPS, 1) == 0 && setgid(65534) == 0 && setuid(65534) == 0 &&
         syscall(SYS_capset, &header, sets) == 0 &&
         prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, CAP_DAC_READ_SEARCH, 0, 0) == 0;
}

// Refused in one line, the command not run, the trace not begun.
void expectRefused(const std::string& why, const std::function<void()>& prepare) {
  const test::TempDir dir;
  // The store is there before it is looked at by somebody who may not enter it.
  const auto refused = runToTheEnd({"--trace", dir / "trace"}, {"touch", dir / "run"}, prepare);
  EXPECT_EQ(refused.exitCode, 2);
  EXPECT_EQ(refused.errors, "mirelsnap-emulator: " + why + "\n");
  EXPECT_FALSE(exists(dir / "run"));
  EXPECT_FALSE(exists(dir / "trace"));
}

TEST(Exit, code_is_2_before_anything_is_touched_where_the_caller_is_not_root) {
  expectRefused("must be run as root: it freezes file systems and creates loop devices and device nodes", [] {
    if (!becomeNobody()) _exit(99);
  });
}

TEST(Exit, code_is_2_where_the_kernel_hands_no_system_calls_over) {
  expectRefused("this kernel lacks seccomp user notification; Linux 5.14 or newer is needed",
                [] { forbid(SYS_seccomp, 0, SECCOMP_GET_ACTION_AVAIL, EOPNOTSUPP); });
}

TEST(Exit, code_is_2_where_there_are_no_loop_devices) {
  ASSERT_EQ(unlink("/dev/loop-control"), 0);
  expectRefused("no loop devices (/dev/loop-control): No such file or directory", [] {});
  ASSERT_EQ(mknod("/dev/loop-control", S_IFCHR | 0600, makedev(10, 237)), 0);
  constexpr std::uint32_t kGetFree = 0x4C82;
  expectRefused("no loop devices (/dev/loop-control): Inappropriate ioctl for device",
                [] { forbid(SYS_ioctl, 1, kGetFree, ENOTTY); });
}

TEST(Exit, code_is_2_under_another_emulator) {
  // The inner one's leaks are not looked for: that wants a /proc that shows it.
  const auto nested = runToTheEnd({}, {"env", "ASAN_OPTIONS=detect_leaks=0", EMULATOR_PROGRAM, "--", "true"});
  EXPECT_EQ(nested.exitCode, 2);
  EXPECT_EQ(nested.errors,
            "mirelsnap-emulator: the system calls of this process are already supervised (by another emulator?)\n");
}

TEST(Exit, code_is_2_for_wrong_usage_and_for_a_trace_that_cannot_be_written) {
  EXPECT_EQ(runToTheEnd({"--nonsense"}, {"true"}).exitCode, 2);
  const auto trace = runToTheEnd({"--trace", "/nowhere/trace"}, {"true"});
  EXPECT_EQ(trace.exitCode, 2);
  EXPECT_EQ(trace.errors,
            "mirelsnap-emulator: cannot write the trace file /nowhere/trace: No such file or directory\n");
}

// ---- the command's world

TEST(Command, has_the_emulators_standard_streams_environment_and_folder) {
  const test::TempDir dir;
  test::writeFile(dir / "input", "what comes in\n");
  const auto done = runToTheEnd({}, shell("cat; echo $MARK; pwd; echo problem >&2"), [&] {
    dup2(open((dir / "input").c_str(), O_RDONLY), STDIN_FILENO);
    setenv("MARK", "marked", 1);
    if (chdir(dir.path().c_str()) != 0) _exit(99);
  });
  EXPECT_EQ(done.output, "what comes in\nmarked\n" + dir.path() + "\n");
  EXPECT_EQ(done.errors, "problem\n");
}

TEST(Command, keeps_its_callers_signal_mask_and_ignored_signals) {
  // SIGPIPE is the emulator's own to ignore; SIGHUP the caller's.
  const auto done = runToTheEnd({}, {"grep", "-E", "Sig(Blk|Ign)", std::string(test::kRealProc) + "/self/status"}, [] {
    signal(SIGHUP, SIG_IGN);
    signal(SIGCHLD, SIG_IGN);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    sigprocmask(SIG_SETMASK, &blocked, nullptr);
  });
  EXPECT_EQ(done.exitCode, 0);
  EXPECT_EQ(done.output, "SigBlk:\t0000000000000200\nSigIgn:\t0000000000000001\n");
}

// ---- nothing is left

// A set up with everything that there is to undo: a snapshot that is mounted, a frozen volume, a process in the
// background.
struct Everything {
  Everything()
      : volume("ext4", 16 << 20),
        frozen("ext4", 16 << 20),
        run({"--store", store.path()}),
        candidate(*run, volume.device()) {
    EXPECT_EQ(run->issue(IOC_SNAP, test::snapCommand({candidate.wire()})).error, 0);
    EXPECT_EQ(mount(candidate.node().c_str(), folder.path().c_str(), "ext4", MS_RDONLY, nullptr), 0);
    const SnapCandidate other(*run, frozen.device());
    EXPECT_EQ(run->issue(IOC_FREEZE, test::volumeListCommand({other.device()})).error, 0);
    EXPECT_EQ(run->shell("sleep 1000 & echo $! > " + files / "background"), 0);
    EXPECT_EQ(test::loopDevicesOver(store.path()).size(), 1u);
    EXPECT_TRUE(exists("/dev/mirelsnapctl"));
  }

  bool isUndone() const {
    if (test::isFrozen(frozen.folder())) return false;
    struct stat inside;
    struct stat above;
    stat(folder.path().c_str(), &inside);
    stat(test::kScratch, &above);
    return inside.st_dev == above.st_dev && test::loopDevicesOver(store.path()).empty() && !exists(candidate.node()) &&
           !exists("/dev/mirelsnapctl") && std::filesystem::is_empty(store.path());
  }
  bool backgroundRuns() const { return kill(std::stoi(test::readFile(files / "background")), 0) == 0; }

  test::TempDir store;
  test::TempDir folder;
  test::TempDir files;
  Volume volume;
  Volume frozen;
  ClientRun run;
  SnapCandidate candidate;
};

TEST(End, undoes_everything_when_the_command_ends) {
  Everything everything;
  EXPECT_EQ(everything.run.end(), 0);
  EXPECT_TRUE(everything.isUndone());
  EXPECT_FALSE(everything.backgroundRuns());
}

TEST(End, undoes_everything_when_the_emulator_is_told_to_end) {
  for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
    Everything everything;
    everything.run.emulator().signal(number);
    EXPECT_EQ(everything.run.emulator().wait(), 128 + number);
    EXPECT_TRUE(everything.isUndone());
    EXPECT_FALSE(everything.backgroundRuns());
  }
}

TEST(End, of_a_killed_emulator_takes_the_command_with_it_and_is_cleaned_up_behind_it) {
  Everything everything;
  everything.run.emulator().signal(SIGKILL);
  EXPECT_EQ(everything.run.emulator().wait(), 137);
  EXPECT_TRUE(comesTrue([&] { return everything.isUndone(); }));
  // COMMAND is gone; what it started cannot open files any more and is nobody's.
  kill(std::stoi(test::readFile(everything.files / "background")), SIGKILL);
}

TEST(End, leaves_the_default_store_as_it_was) {
  const Volume volume("ext4", 16 << 20);
  const test::Mounted store("tests", "/var/tmp", "tmpfs");  // of which nobody else knows
  const auto entries = [] {
    return std::distance(std::filesystem::directory_iterator("/var/tmp"), std::filesystem::directory_iterator());
  };
  const auto before = entries();
  ClientRun run;
  const SnapCandidate candidate(*run, volume.device());
  ASSERT_EQ(run->issue(IOC_SNAP, test::snapCommand({candidate.wire()})).error, 0);
  EXPECT_EQ(entries(), before);  // images have no names
  run.end();
  EXPECT_EQ(entries(), before);
}

TEST(End, detaches_a_busy_mount_and_says_so) {
  const Volume volume("ext4", 16 << 20);
  test::writeFile(volume.folder() + "/file", "read on");
  const test::TempDir store;
  const test::TempDir folder;
  ClientRun run({"--quiet", "--store", store.path()});
  const SnapCandidate candidate(*run, volume.device());
  ASSERT_EQ(run->issue(IOC_SNAP, test::snapCommand({candidate.wire()})).error, 0);
  ASSERT_EQ(mount(candidate.node().c_str(), folder.path().c_str(), "ext4", MS_RDONLY, nullptr), 0);
  UniqueFd user(open((folder / "file").c_str(), O_RDONLY | O_CLOEXEC));
  run.end();
  EXPECT_EQ(run.emulator().errors(), "mirelsnap-emulator: " + folder.path() +
                                         ": still in use; detached, the snapshot goes away with its last user\n");
  char text[7];
  EXPECT_EQ(read(user.get(), text, 7), 7);
  EXPECT_EQ(test::loopDevicesOver(store.path()).size(), 1u);
  user.reset();
  EXPECT_TRUE(comesTrue([&] { return test::loopDevicesOver(store.path()).empty(); }));
}

TEST(End, leaves_a_control_node_that_is_not_its_own) {
  const test::Node node("/dev/mirelsnapctl", S_IFCHR, 1, 5);
  EXPECT_EQ(runToTheEnd({}, {"true"}).exitCode, 0);
  EXPECT_TRUE(exists(node.path()));
}

// ---- signals and what is left of the command

TEST(End, signals_are_passed_on_and_the_command_says_how_it_ends) {
  const test::TempDir dir;
  EmulatorRun run({}, shell("trap 'exit 42' TERM; touch " + dir / "ready" + "; while true; do sleep 0.01; done"));
  ASSERT_TRUE(comesTrue([&] { return exists(dir / "ready"); }));
  run.signal(SIGTERM);
  EXPECT_EQ(run.wait(), 42);
}

TEST(End, a_command_that_cleans_up_is_served_meanwhile) {
  const Volume volume("ext4", 16 << 20);
  const test::TempDir dir;
  EmulatorRun run({}, shell("trap 'cat /proc/mirelsnap/dev; exit 0' TERM; touch " + dir / "ready" +
                            "; while true; do sleep 0.01; done"));
  ASSERT_TRUE(comesTrue([&] { return exists(dir / "ready"); }));
  run.signal(SIGTERM);
  EXPECT_EQ(run.wait(), 0);
  EXPECT_EQ(run.output(), "1 3\n");
}

TEST(End, a_command_that_does_not_want_to_end_is_killed) {
  const test::TempDir dir;
  const auto start = std::chrono::steady_clock::now();
  EmulatorRun run({}, shell("trap '' TERM; touch " + dir / "ready" + "; while true; do sleep 0.1; done"));
  ASSERT_TRUE(comesTrue([&] { return exists(dir / "ready"); }));
  run.signal(SIGTERM);
  EXPECT_EQ(run.wait(), 137);
  EXPECT_GT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10)) << "what it is given";
}

TEST(End, processes_that_the_command_left_get_SIGTERM_and_are_still_served) {
  const test::TempDir dir;
  const std::string daemon = "trap 'cat /proc/mirelsnap/dev > " + dir / "said" + "; exit' TERM; touch " +
                             dir / "ready" + "; while true; do sleep 0.01; done";
  const auto done = runToTheEnd({}, shell("setsid sh -c \"" + daemon + "\" & while ! test -e " + dir / "ready" +
                                          "; do sleep 0.01; done; exit 5"));
  EXPECT_EQ(done.exitCode, 5);
  EXPECT_EQ(test::readFile(dir / "said"), "1 3\n");
}

TEST(End, processes_that_ignore_SIGTERM_or_are_stopped_are_killed_after_two_seconds) {
  const test::TempDir dir;
  const auto start = std::chrono::steady_clock::now();
  const auto done = runToTheEnd({}, shell("setsid sh -c 'trap \"\" TERM; echo $$ > " + dir / "a" +
                                          "; while true; do sleep 1; done' &"
                                          "sh -c 'echo $$ > " +
                                          dir / "b" +
                                          "; kill -STOP $$; sleep 1000' &"
                                          "while ! test -s " +
                                          dir / "a" + " || ! test -s " + dir / "b" + "; do sleep 0.01; done"));
  EXPECT_EQ(done.exitCode, 0);
  EXPECT_NE(kill(std::stoi(test::readFile(dir / "a")), 0), 0);
  EXPECT_NE(kill(std::stoi(test::readFile(dir / "b")), 0), 0);
  EXPECT_GT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2)) << "what they are given";
}

TEST(End, gives_up_a_snap_whose_client_is_gone) {
  const Volume volume("ext4", 16 << 20);
  const Volume store("ext4", 64 << 20);
  const test::TempDir dir;
  ClientRun run({"--quiet", "--store", store.folder(), "--trace", dir / "trace"});
  const SnapCandidate candidate(*run, volume.device());
  const pid_t client = run->process();
  test::Frozen frozen(store.folder());  // the snap waits for it
  run->begin(IOC_SNAP, test::snapCommand({candidate.wire()}));
  const pid_t emulator = run.emulator().process();
  EXPECT_TRUE(comesTrue([&] {
    const std::vector<pid_t> threads = test::threadsOf(emulator);
    return std::any_of(threads.begin(), threads.end(), [](pid_t thread) { return test::stateOf(thread) == 'D'; });
  }));
  run.emulator().signal(SIGTERM);
  EXPECT_TRUE(comesTrue([&] { return kill(client, 0) != 0; }));
  EXPECT_TRUE(comesTrue([&] { return test::waitsForAThread(emulator); })) << "for the one with the snap";
  frozen.thaw();
  EXPECT_EQ(run.emulator().wait(), 143);
  EXPECT_FALSE(exists(candidate.node()));
  EXPECT_NE(test::readFile(dir / "trace").find("\"why\":\"the emulator is shutting down\""), std::string::npos);
}

}  // namespace
