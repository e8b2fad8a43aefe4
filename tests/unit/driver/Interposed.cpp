// SPDX-License-Identifier: Apache-2.0
#include "Interposed.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>

namespace test {
namespace {

std::optional<std::time_t> fakeTime;
std::optional<timeval> fakeTimeOfDay;
std::optional<std::deque<int>> fakeRand;
struct SystemAnswer {
  int result;
  int error;
};
std::optional<SystemAnswer> fakeSystem;
std::vector<std::string> systemCommands;
std::function<void()> beforeMknod;
bool recordStat = false;
std::vector<std::string> statPaths;

template <class Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

FakeTime::FakeTime(std::time_t now) { fakeTime = now; }
FakeTime::~FakeTime() { fakeTime.reset(); }

FakeTimeOfDay::FakeTimeOfDay(timeval now) { fakeTimeOfDay = now; }
FakeTimeOfDay::~FakeTimeOfDay() { fakeTimeOfDay.reset(); }
void FakeTimeOfDay::set(timeval now) { fakeTimeOfDay = now; }

FakeRand::FakeRand(std::deque<int> values) { fakeRand = std::move(values); }
FakeRand::~FakeRand() { fakeRand.reset(); }

FakeSystem::FakeSystem(int result, int error) {
  systemCommands.clear();
  fakeSystem = SystemAnswer{result, error};
}
FakeSystem::~FakeSystem() { fakeSystem.reset(); }
const std::vector<std::string>& FakeSystem::commands() const { return systemCommands; }

BeforeMknod::BeforeMknod(std::function<void()> act) { beforeMknod = std::move(act); }
BeforeMknod::~BeforeMknod() { beforeMknod = nullptr; }

StatRecorder::StatRecorder() {
  statPaths.clear();
  recordStat = true;
}
StatRecorder::~StatRecorder() { recordStat = false; }
const std::vector<std::string>& StatRecorder::paths() const { return statPaths; }

}  // namespace test

extern "C" {

std::time_t time(std::time_t* out) noexcept {
  timespec real{};
  clock_gettime(CLOCK_REALTIME, &real);
  const std::time_t now = test::fakeTime.value_or(real.tv_sec);
  if (out != nullptr) *out = now;
  return now;
}

int gettimeofday(timeval* out, void*) noexcept {
  timespec real{};
  clock_gettime(CLOCK_REALTIME, &real);
  *out = test::fakeTimeOfDay.value_or(timeval{real.tv_sec, real.tv_nsec / 1000});
  return 0;
}

int rand() noexcept {
  if (!test::fakeRand) return test::next<int (*)()>("rand")();
  if (test::fakeRand->empty()) return 0;
  const int value = test::fakeRand->front();
  test::fakeRand->pop_front();
  return value;
}

int system(const char* command) {
  test::systemCommands.emplace_back(command);
  if (!test::fakeSystem) return test::next<int (*)(const char*)>("system")(command);
  errno = test::fakeSystem->error;
  return test::fakeSystem->result;
}

int mknod(const char* path, mode_t mode, dev_t device) noexcept {
  if (test::beforeMknod) test::beforeMknod();
  return static_cast<int>(syscall(SYS_mknodat, AT_FDCWD, path, mode, device));
}

int stat(const char* path, struct stat* out) noexcept {
  if (test::recordStat) test::statPaths.emplace_back(path);
  return static_cast<int>(syscall(SYS_newfstatat, AT_FDCWD, path, out, 0));
}

}  // extern "C"
