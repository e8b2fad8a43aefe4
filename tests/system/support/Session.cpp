// SPDX-License-Identifier: Apache-2.0
#include "Session.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "DriverClient.h"
#include "Leftovers.h"
#include "MountList.h"
#include "Waiting.h"

namespace test {
namespace {

std::vector<std::string> linesOf(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> mountTexts() {
  std::vector<std::string> texts;
  for (const MountLine& mount : mountLines()) texts.push_back(mount.source + " on " + mount.folder);
  return texts;
}

// What is in `now` and was not in `before`, and the other way round with a "gone: ".
std::vector<std::string> changes(std::vector<std::string> before, const std::vector<std::string>& now) {
  std::vector<std::string> found;
  for (const std::string& text : now) {
    const auto same = std::find(before.begin(), before.end(), text);
    same == before.end() ? found.push_back(text) : static_cast<void>(before.erase(same));
  }
  for (const std::string& text : before) found.push_back("gone: " + text);
  return found;
}

const std::vector<std::string> kNothing;

int opened(const std::string& path, int flags) {
  const int descriptor = open(path.c_str(), flags | O_CLOEXEC, 0600);
  if (descriptor < 0) throw std::runtime_error("cannot open " + path + ": " + std::strerror(errno));
  return descriptor;
}

// Closes what was opened for a program that has it now.
class Descriptors {
 public:
  ~Descriptors() {
    for (const int descriptor : mOwned) close(descriptor);
  }
  void own(int descriptor) { add(descriptor), mOwned.push_back(descriptor); }
  void add(int descriptor) { mAll.push_back(descriptor); }
  const std::vector<int>& all() const { return mAll; }

 private:
  std::vector<int> mAll;
  std::vector<int> mOwned;
};

Json orderFor(const std::vector<std::string>& arguments, const StartOptions& options) {
  Json order = {{"arguments", arguments}};
  for (const auto& [name, value] : options.environment) order["environment"][name] = value;
  for (const std::string& name : options.without) order["environment"][name] = nullptr;
  if (options.user) order["user"] = *options.user;
  if (!options.root.empty()) order["root"] = options.root;
  if (!options.folder.empty()) order["folder"] = options.folder;
  if (options.terminal >= 0) order["terminal"] = true;
  if (!options.ignoredSignals.empty()) order["ignored_signals"] = options.ignoredSignals;
  return order;
}

}  // namespace

std::map<std::string, std::string> withMischief(const std::string& mischief) {
  // A program with the address sanitizer wants to be the first, and to be the only one that allocates.
  return {{"MISCHIEF", mischief},
          {"LD_PRELOAD", MISCHIEF_LIBRARY},
          {"ASAN_OPTIONS", "verify_asan_link_order=0:alloc_dealloc_mismatch=0"}};
}

// ---- a process

Process::~Process() {
  if (mFiles != nullptr && !mStatus) kill();
}

bool Process::running() {
  if (!mStatus) mStatus = mSession->statusOf(mProcess);
  return !mStatus;
}

int Process::wait() {
  if (!comesTrue([this] { return !running(); })) {
    ADD_FAILURE() << "process " << mProcess << " does not end; it wrote: " << errors();
    kill();
  }
  return WIFSIGNALED(*mStatus) ? 128 + WTERMSIG(*mStatus) : WEXITSTATUS(*mStatus);
}

void Process::signal(int number) const {
  if (!mStatus) ::kill(mProcess, number);
}

void Process::waitUntilStopped() {
  const auto hasStopped = [this] {
    const std::string stat = readFile("/proc/" + std::to_string(mProcess) + "/stat");
    const std::size_t state = stat.rfind(") ");
    return state != std::string::npos && stat[state + 2] == 'T';
  };
  if (!comesTrue([&] { return hasStopped() || !running(); }) || !hasStopped())
    ADD_FAILURE() << "process " << mProcess << " does not stop; it wrote: " << errors();
}

void Process::kill() {
  signal(SIGKILL);
  if (!comesTrue([this] { return !running(); })) {
    throw std::runtime_error("process " + std::to_string(mProcess) + " cannot be killed");
  }
}

bool Process::writesLine() {
  return comesTrue([this] { return !running() || output().find('\n') != std::string::npos; }) &&
         output().find('\n') != std::string::npos;
}

std::string Process::output() const { return readFile(mFiles->folder / "output"); }
std::string Process::errors() const { return readFile(mFiles->folder / "errors"); }

// ---- the session

Session::Session(std::vector<std::string> emulatorOptions)
    : mDriver(hasKernelDriver() ? Driver::kKernel : Driver::kEmulator) {
  if (mDriver == Driver::kKernel) {
    if (!emulatorOptions.empty()) requireEmulator("an option");
    const std::string held = heldByKernelDriver();
    if (!held.empty()) throw std::runtime_error("the driver holds " + held);
    begin({HOST_PROGRAM});
  } else {
    beginEmulator(emulatorOptions);
  }
}

Session::Session(Driver driver) : mDriver(driver) {
  if (hasKernelDriver()) mUnloaded.emplace();
  begin({HOST_PROGRAM});
}

void Session::requireEmulator(const std::string& what) const {
  if (mDriver != Driver::kEmulator) throw std::logic_error(what + " is the emulator's: this session has none");
}

pid_t Session::emulator() const {
  requireEmulator("a process");
  return mProcess;
}

void Session::beginEmulator(const std::vector<std::string>& options) {
  std::vector<std::string> command = {EMULATOR_PROGRAM, "--trace", mDir / "trace", "--store", mDir.path()};
  command.insert(command.end(), options.begin(), options.end());
  command.insert(command.end(), {"--", HOST_PROGRAM});
  begin(std::move(command));
}

void Session::begin(std::vector<std::string> command) {
  mMountsBefore = mountTexts();
  mRelocationBefore = relocationRemains();
  auto [ours, theirs] = Channel::pair();
  mHost = std::move(ours);
  std::vector<char*> arguments;
  for (std::string& argument : command) arguments.push_back(argument.data());
  arguments.push_back(nullptr);
  Descriptors streams;
  streams.own(opened("/dev/null", O_RDONLY));
  streams.own(opened(mDir / "output", O_WRONLY | O_CREAT | O_APPEND));
  streams.own(opened(mDir / "errors", O_WRONLY | O_CREAT | O_APPEND));
  mProcess = fork();
  if (mProcess < 0) throw std::runtime_error("cannot fork");
  if (mProcess > 0) return;
  // Above the numbers that they are to get.
  std::vector<int> moved;
  for (const int descriptor : streams.all()) moved.push_back(fcntl(descriptor, F_DUPFD, 64));
  moved.push_back(fcntl(theirs.socket(), F_DUPFD, 64));
  for (std::size_t i = 0; i < moved.size(); ++i) {
    dup2(moved[i], static_cast<int>(i));
    close(moved[i]);
  }
  execv(arguments[0], arguments.data());
  _exit(125);
}

Session::~Session() {
  try {
    if (!mChecked) check();
  } catch (const std::exception& problem) {
    ADD_FAILURE() << "the session's end: " << problem.what();
  }
  mHost.close();
  int status = 0;
  if (!comesTrue([&] { return waitpid(mProcess, &status, WNOHANG) != 0; })) {
    ADD_FAILURE() << "the emulator, or the process host, does not end";
    kill(mProcess, SIGKILL);
    waitpid(mProcess, &status, 0);
  }
  // The kernel's driver stays, and so does the library's node of it.
  if (mDriver == Driver::kKernel) unlink("/dev/mirelsnapctl");
  if (mChecked) return;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the emulator ended with wait status " << status;
  for (const std::string& complaint : newComplaints(0)) {
    if (!std::regex_match(complaint, std::regex(mTolerated))) ADD_FAILURE() << "the emulator says: " << complaint;
  }
  EXPECT_NE(access("/dev/mirelsnapctl", F_OK), 0) << "the control node is left";
  EXPECT_EQ(loopsInScratch(true), kNothing) << "left by the emulator";
}

std::optional<int> Session::statusOf(pid_t process) {
  if (!mHost.send({{"state", process}})) throw std::runtime_error("the process host is gone");
  const std::optional<Json> answer = mHost.receive();
  if (!answer) throw std::runtime_error("the process host is gone");
  if (!answer->contains("status")) return std::nullopt;
  return (*answer)["status"].get<int>();
}

Process Session::start(const std::vector<std::string>& arguments, const StartOptions& options) {
  auto files = std::make_unique<Process::Files>();
  Descriptors descriptors;
  if (options.terminal >= 0) {
    for (int stream = 0; stream < 3; ++stream) descriptors.add(options.terminal);
  } else {
    descriptors.own(opened("/dev/null", O_RDONLY));
    descriptors.own(opened(files->folder / "output", O_WRONLY | O_CREAT | O_APPEND));
    descriptors.own(opened(files->folder / "errors", O_WRONLY | O_CREAT | O_APPEND));
  }
  if (options.channel >= 0) descriptors.add(options.channel);
  if (!mHost.send({{"start", orderFor(arguments, options)}}, descriptors.all())) {
    throw std::runtime_error("the process host is gone");
  }
  const std::optional<Json> answer = mHost.receive();
  if (!answer) throw std::runtime_error("the process host is gone");
  if (!answer->contains("process")) {
    throw std::runtime_error("cannot start " + arguments[0] + ": " + std::strerror((*answer)["error"].get<int>()));
  }
  return Process(*this, (*answer)["process"].get<pid_t>(), std::move(files));
}

Ended Session::run(const std::vector<std::string>& arguments, const StartOptions& options) {
  Process process = start(arguments, options);
  const int code = process.wait();
  return {code, process.output(), process.errors()};
}

// The emulator writes its trace behind its answers: what came before a mark is there when the mark is.
void Session::waitForTrace() {
  requireEmulator("the trace");
  if (mMarker == nullptr) mMarker = std::make_unique<DriverClient>(*this);
  mMarker->mark();
  ++mMarks;
  const std::string mark = "\"pid\":" + std::to_string(mMarker->id()) + ",";
  const bool complete = comesTrue([&] {
    const std::vector<std::string> lines = linesOf(mDir / "trace");
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
             return line.find(mark) != std::string::npos && Json::accept(line);
           })) == mMarks;
  });
  if (!complete) throw std::runtime_error("the trace does not go on");
}

std::vector<Json> Session::trace() {
  waitForTrace();
  std::vector<Json> commands;
  for (const std::string& line : linesOf(mDir / "trace")) {
    Json command = Json::parse(line);
    if (command["pid"] != mMarker->id()) commands.push_back(std::move(command));
  }
  return commands;
}

std::vector<Json> Session::trace(const std::string& command) {
  std::vector<Json> commands = trace();
  std::erase_if(commands, [&](const Json& entry) { return entry["command"] != command; });
  return commands;
}

std::vector<std::string> Session::takeComplaints(std::size_t count) {
  requireEmulator("a complaint");
  return newComplaints(count);
}

std::vector<std::string> Session::newComplaints(std::size_t count) {
  std::vector<std::string> lines;
  static_cast<void>(comesTrue([&] {
    lines = linesOf(mDir / "errors");
    return lines.size() >= mComplaintsTaken + count;
  }));
  lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(std::min(mComplaintsTaken, lines.size())));
  mComplaintsTaken += lines.size();
  return lines;
}

void Session::check() {
  mMarker.reset();
  // The emulator and its host; a plain host has nobody above it.
  const std::size_t ours = mDriver == Driver::kEmulator ? 1 : 0;
  static_cast<void>(comesTrue([&] { return processesBelow(mProcess).size() <= ours; }));
  for (const pid_t process : processesBelow(mProcess)) {
    if (processesBelow(process).empty() && processesBelow(mProcess).size() <= ours) continue;  // the host
    ADD_FAILURE() << "left behind: process " << process << " "
                  << readFile("/proc/" + std::to_string(process) + "/comm");
  }
  if (mDriver == Driver::kEmulator) checkEmulator();
  if (mDriver == Driver::kKernel) {
    EXPECT_EQ(heldByKernelDriver(), "");
  }
  EXPECT_EQ(snapshotNodes(), kNothing);
  EXPECT_EQ(changes(mRelocationBefore, relocationRemains()), kNothing);
  EXPECT_EQ(changes(mMountsBefore, mountTexts()), kNothing);
  EXPECT_NE(access("/run/mirelsnap", F_OK), 0) << "/run/mirelsnap is left";
}

void Session::checkEmulator() {
  DriverClient driver(*this);
  EXPECT_EQ(driver.snapped(), Json::array());
  EXPECT_EQ(driver.mappings(), Json::array());
  EXPECT_EQ(loopsInScratch(true), kNothing);
}

}  // namespace test
