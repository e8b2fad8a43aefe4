// SPDX-License-Identifier: Apache-2.0
//
// Another process seen from outside.
#include "emulator/machine/Caller.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <span>
#include <string>
#include <thread>

#include "LoopVolume.h"
#include "World.h"

namespace {

using emulator::Caller;
using emulator::CallerMemory;
using emulator::DeviceNumber;

struct Callers : testing::Test {
  emulator::Result<emulator::Kernel> kernel = emulator::Kernel::reach();
};

// A child that prepares itself and then waits to be killed.
class Child {
 public:
  explicit Child(const std::function<void()>& prepare) {
    int ready[2];
    EXPECT_EQ(pipe2(ready, O_CLOEXEC), 0);
    mProcess = fork();
    if (mProcess == 0) {
      prepare();
      static_cast<void>(!write(ready[1], "x", 1));
      while (true) pause();
    }
    close(ready[1]);
    char byte;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
  }
  ~Child() {
    kill(mProcess, SIGKILL);
    waitpid(mProcess, nullptr, 0);
  }
  pid_t process() const { return mProcess; }

 private:
  pid_t mProcess;
};

// A page with a missing page behind it.
struct LastPage {
  LastPage()
      : start(static_cast<char*>(mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))) {
    munmap(start + 4096, 4096);
  }
  ~LastPage() { munmap(start, 4096); }
  char* start;
};

std::uint64_t addressOf(const void* pointer) { return reinterpret_cast<std::uint64_t>(pointer); }

TEST_F(Callers, memory_is_copied_out_and_in_whole_or_not_at_all) {
  const CallerMemory self(getpid());
  const std::string text = "some text";
  std::string copy(text.size(), '\0');
  EXPECT_TRUE(self.readMemory(addressOf(text.data()), std::as_writable_bytes(std::span(copy))));
  EXPECT_EQ(copy, text);
  EXPECT_TRUE(self.writeMemory(addressOf(copy.data()), std::as_bytes(std::span("SOME", 4))));
  EXPECT_EQ(copy, "SOME text");
  const LastPage page;
  EXPECT_FALSE(self.readMemory(addressOf(page.start + 4090), std::as_writable_bytes(std::span(copy))));
  EXPECT_FALSE(self.writeMemory(addressOf(page.start + 4090), std::as_bytes(std::span(copy))));
  EXPECT_FALSE(self.readMemory(0, std::as_writable_bytes(std::span(copy))));
}

TEST_F(Callers, a_text_ends_with_its_nul_its_limit_or_the_memory) {
  const CallerMemory self(getpid());
  const LastPage page;
  std::string("text").copy(page.start + 4096 - 5, 5);
  EXPECT_EQ(self.readText(addressOf(page.start + 4096 - 5), 4096), "text");
  std::fill(page.start, page.start + 4096, 'x');
  EXPECT_EQ(self.readText(addressOf(page.start + 4093), 20), "xxx");
  EXPECT_EQ(self.readText(addressOf(page.start), 7), "xxxxxxx");
  EXPECT_EQ(self.readText(0, 20), "");
}

TEST_F(Callers, descriptors_are_seen_by_their_number) {
  const Caller self(*kernel, getpid());
  const UniqueFd null(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const auto found = self.descriptor(null.get());
  ASSERT_TRUE(found);
  EXPECT_EQ(found->st_rdev, makedev(1, 3));
  EXPECT_FALSE(self.descriptor(1000));
  EXPECT_FALSE(self.descriptor(-1));
}

TEST_F(Callers, a_thread_belongs_to_its_process) {
  pid_t thread = 0;
  pid_t process = 0;
  std::thread([&] {
    thread = gettid();
    process = Caller(*kernel, thread).process();
  }).join();
  EXPECT_NE(thread, getpid());
  EXPECT_EQ(process, getpid());
}

TEST_F(Callers, one_that_is_gone_answers_nothing) {
  const pid_t process = fork();
  if (process == 0) _exit(0);
  const Caller caller(*kernel, process);
  waitpid(process, nullptr, 0);
  EXPECT_FALSE(caller.descriptor(0));
  EXPECT_FALSE(caller.open("/", O_PATH));
  EXPECT_TRUE(caller.mounts().empty());
  EXPECT_EQ(caller.process(), process);
}

TEST_F(Callers, paths_lead_where_they_lead_in_the_callers_tree) {
  const test::TempDir tree;
  mkdir((tree / "inner").c_str(), 0755);
  test::writeFile(tree / "inner/file", "theirs");
  symlink("/inner/file", (tree / "link").c_str());
  const Child child([&] { static_cast<void>(!chroot(tree.path().c_str())); });
  const Caller caller(*kernel, child.process());
  for (const char* path : {"/inner/file", "/link", "/../inner/file"}) {
    const UniqueFd file = caller.open(path, O_RDONLY);
    ASSERT_TRUE(file) << path;
    char text[6];
    ASSERT_EQ(read(file.get(), text, 6), 6);
    EXPECT_EQ(std::string(text, 6), "theirs");
  }
  EXPECT_FALSE(caller.open("/mnt", O_PATH));
}

TEST_F(Callers, programs_are_found_at_the_root_or_at_the_working_directory) {
  const test::TempDir folder;
  test::writeFile(folder / "program", "");
  const Child child([&] { static_cast<void>(!chdir(folder.path().c_str())); });
  const Caller caller(*kernel, child.process());
  EXPECT_TRUE(caller.findsProgram(folder / "program"));
  EXPECT_TRUE(caller.findsProgram("program"));
  EXPECT_TRUE(caller.findsProgram("./program"));
  EXPECT_FALSE(caller.findsProgram("other"));
  EXPECT_FALSE(caller.findsProgram("/program"));
}

TEST_F(Callers, block_devices_are_told_from_other_files) {
  const test::LoopDevice loop(1 << 20);
  const Caller self(*kernel, getpid());
  EXPECT_EQ(self.blockDevice(loop.path()), (DeviceNumber{7, loop.minor()}));
  EXPECT_EQ(self.blockDevice("/dev/null"), std::nullopt);
  EXPECT_EQ(self.blockDevice("/nowhere"), std::nullopt);
}

TEST_F(Callers, mounts_are_those_of_its_namespace) {
  const test::TempDir folder;
  const Child child([&] {
    static_cast<void>(!unshare(CLONE_NEWNS));
    mount("theirs", folder.path().c_str(), "tmpfs", 0, nullptr);
  });
  const auto isThere = [&](pid_t process) {
    const auto mounts = Caller(*kernel, process).mounts();
    return std::any_of(mounts.begin(), mounts.end(),
                       [&](const MountLine& mount) { return mount.folder == folder.path(); });
  };
  EXPECT_TRUE(isThere(child.process()));
  EXPECT_FALSE(isThere(getpid()));
}

}  // namespace
