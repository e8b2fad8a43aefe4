// SPDX-License-Identifier: Apache-2.0
#include "EmulatorRun.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>

#include "ClientProtocol.h"

namespace test {
namespace {

void readAll(int from, void* data, std::size_t length) {
  auto* at = static_cast<char*>(data);
  while (length > 0) {
    const ssize_t got = read(from, at, length);
    if (got <= 0) throw std::runtime_error("the client is gone");
    at += got;
    length -= static_cast<std::size_t>(got);
  }
}

void writeAll(int to, const void* data, std::size_t length) {
  const auto* at = static_cast<const char*>(data);
  while (length > 0) {
    const ssize_t written = send(to, at, length, MSG_NOSIGNAL);
    if (written <= 0) throw std::runtime_error("the client is gone");
    at += written;
    length -= static_cast<std::size_t>(written);
  }
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

std::string processFolder(const std::string& proc, pid_t process) { return proc + "/" + std::to_string(process); }

std::uint64_t deviceBytes(const std::string& device) {
  std::uint64_t bytes = 0;
  const int opened = open(device.c_str(), O_RDONLY | O_CLOEXEC);
  if (opened < 0 || ioctl(opened, BLKGETSIZE64, &bytes) != 0) throw std::runtime_error("cannot measure " + device);
  close(opened);
  return bytes;
}

}  // namespace

EmulatorRun::EmulatorRun(std::vector<std::string> options, std::vector<std::string> command,
                         const std::function<void()>& prepare) {
  std::vector<std::string> arguments = {EMULATOR_PROGRAM};
  arguments.insert(arguments.end(), options.begin(), options.end());
  arguments.emplace_back("--");
  arguments.insert(arguments.end(), command.begin(), command.end());
  const std::vector<char*> argv = pointersTo(arguments);
  const std::string output = mDir / "output";
  const std::string errors = mDir / "errors";
  mProcess = fork();
  if (mProcess < 0) throw std::runtime_error("cannot fork");
  if (mProcess > 0) return;
  // Where the world's /proc shows no processes: a sanitizer looks for its own.
  static_cast<void>(!symlink(processFolder(kRealProc, getpid()).c_str(), processFolder("/proc", getpid()).c_str()));
  dup2(open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDOUT_FILENO);
  dup2(open(errors.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
  prepare();
  execv(argv[0], argv.data());
  _exit(125);
}

EmulatorRun::~EmulatorRun() {
  if (mProcess < 0) return;
  kill(mProcess, SIGKILL);
  wait();
}

void EmulatorRun::signal(int number) const { kill(mProcess, number); }

int EmulatorRun::wait() {
  if (mProcess >= 0) {
    waitpid(mProcess, &mStatus, 0);
    unlink(processFolder("/proc", mProcess).c_str());
  }
  mProcess = -1;
  return WIFSIGNALED(mStatus) ? 128 + WTERMSIG(mStatus) : WEXITSTATUS(mStatus);
}

std::string EmulatorRun::output() const { return readFile(mDir / "output"); }
std::string EmulatorRun::errors() const { return readFile(mDir / "errors"); }

Client::~Client() {
  if (mSocket >= 0) close(mSocket);
}

void Client::send(client::Order order, const std::vector<std::byte>& bytes) const {
  order.length = bytes.size();
  writeAll(mSocket, &order, sizeof order);
  writeAll(mSocket, bytes.data(), bytes.size());
}

client::Answer Client::receive(std::vector<std::byte>& bytes) const {
  client::Answer answer;
  readAll(mSocket, &answer, sizeof answer);
  readAll(mSocket, bytes.data(), bytes.size());
  return answer;
}

client::Answer Client::order(client::Order order, std::vector<std::byte>& bytes) {
  send(order, bytes);
  return receive(bytes);
}

void Client::begin(unsigned long request, WireCommand command) {
  mBytes = std::move(command.bytes());
  send({client::Order::kRequest, request, 0}, mBytes);
}

Client::Outcome Client::finish() {
  const client::Answer answer = receive(mBytes);
  return {answer.error, WireCommand(std::move(mBytes))};
}

bool Client::isAnswered() const {
  pollfd waiting{mSocket, POLLIN, 0};
  return poll(&waiting, 1, 0) == 1;
}

Client::Outcome Client::issue(unsigned long request, WireCommand command) {
  begin(request, std::move(command));
  return finish();
}

Client::Outcome Client::issueOn(const std::string& device, unsigned long request, const WireCommand& command) {
  std::vector<std::byte> bytes(client::kPathRoom);
  std::memcpy(bytes.data(), device.data(), device.size());
  bytes.insert(bytes.end(), command.bytes().begin(), command.bytes().end());
  const client::Answer answer = order({client::Order::kRequestOn, request, 0}, bytes);
  bytes.erase(bytes.begin(), bytes.begin() + client::kPathRoom);
  return {answer.error, WireCommand(std::move(bytes))};
}

pid_t Client::process() {
  std::vector<std::byte> none;
  return order({client::Order::kProcess, 0, 0}, none).result;
}

int Client::shell(const std::string& command) {
  const auto* start = reinterpret_cast<const std::byte*>(command.c_str());
  std::vector<std::byte> bytes(start, start + command.size() + 1);
  return order({client::Order::kShell, 0, 0}, bytes).result;
}

void Client::leaveNamespace() {
  std::vector<std::byte> none;
  if (order({client::Order::kLeaveNamespace, 0, 0}, none).error != 0) {
    throw std::runtime_error("the client cannot leave its namespace");
  }
}

ClientRun::ClientRun(std::vector<std::string> options, std::size_t clients) {
  std::vector<std::string> command = {EMULATOR_CLIENT};
  std::vector<int> theirs;
  for (std::size_t i = 0; i < clients; ++i) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) throw std::runtime_error("no socket");
    fcntl(ends[0], F_SETFD, FD_CLOEXEC);
    mClients.emplace_back(ends[0]);
    theirs.push_back(ends[1]);
    command.push_back(std::to_string(ends[1]));
  }
  mRun = std::make_unique<EmulatorRun>(std::move(options), std::move(command));
  for (const int end : theirs) close(end);
}

ClientRun::~ClientRun() {
  mClients.clear();
  mRun->wait();
}

int ClientRun::end() {
  mClients.clear();
  return mRun->wait();
}

SnapCandidate::SnapCandidate(Client& client, const std::string& device, const std::string& name) {
  constexpr std::uint32_t kBlockSize = 4096;
  constexpr std::uint32_t relocBlocks = 16;
  struct stat found;
  if (stat(device.c_str(), &found) != 0) throw std::runtime_error("no " + device);
  mVolume.device = {major(found.st_rdev), minor(found.st_rdev)};
  mVolume.name = name.empty() ? device : name;
  mVolume.blockSize = kBlockSize;
  mVolume.numBlocks = deviceBytes(device) / kBlockSize;
  mVolume.relocFile = mDir / "relocation";
  mVolume.relocBlocks = relocBlocks;
  mVolume.process = static_cast<std::uint32_t>(client.process());
  writeFile(mVolume.relocFile, std::string(relocBlocks * kBlockSize, '\0'));
  if (chmod(mVolume.relocFile.c_str(), 0600) != 0) throw std::runtime_error("no chmod of " + mVolume.relocFile);
  const auto mapped =
      client.issue(IOC_CREATE_RELOC_FILE_MAPPING,
                   createMappingCommand(static_cast<std::int32_t>(mVolume.process), mVolume.name, mVolume.relocFile));
  if (mapped.error != 0) throw std::runtime_error("no mapping for " + device + ": " + std::strerror(mapped.error));
}

std::string SnapCandidate::node() const {
  return "/dev/snap" + std::to_string(mVolume.device.majorNum) + "_" + std::to_string(mVolume.device.minorNum);
}

Finished runToTheEnd(std::vector<std::string> options, std::vector<std::string> command,
                     const std::function<void()>& prepare) {
  EmulatorRun run(std::move(options), std::move(command), prepare);
  const int exitCode = run.wait();
  return {exitCode, run.output(), run.errors()};
}

std::vector<std::string> loopDevicesOver(const std::string& folder) {
  std::vector<std::string> devices;
  for (const auto& device : std::filesystem::directory_iterator("/sys/block")) {
    std::ifstream file(device.path() / "loop/backing_file");
    std::string path;
    if (std::getline(file, path) && path.starts_with(folder + "/")) devices.push_back(device.path().filename());
  }
  return devices;
}

}  // namespace test
