// SPDX-License-Identifier: Apache-2.0
//
// The real emulator with something running in it.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ClientProtocol.h"
#include "LoopVolume.h"
#include "WireCommand.h"

namespace test {

// Starts the emulator with its options and a command; ends it with SIGKILL where a test did not wait for it.
class EmulatorRun {
 public:
  // `prepare` is called in the new process before the emulator is executed.
  EmulatorRun(
      std::vector<std::string> options, std::vector<std::string> command, const std::function<void()>& prepare = [] {});
  ~EmulatorRun();
  EmulatorRun(const EmulatorRun&) = delete;
  EmulatorRun& operator=(const EmulatorRun&) = delete;

  pid_t process() const { return mProcess; }
  void signal(int number) const;
  // Waits for its end; the exit code, or 128 + the signal.
  int wait();
  // What it, and the command, wrote to the standard output and error; complete after wait().
  std::string output() const;
  std::string errors() const;

 private:
  TempDir mDir;
  pid_t mProcess = -1;
  int mStatus = 0;
};

// A client process under the emulator.
class Client {
 public:
  explicit Client(int socket) : mSocket(socket) {}
  Client(Client&& other) noexcept : mSocket(other.mSocket) { other.mSocket = -1; }
  ~Client();

  struct Outcome {
    int error;  // errno; 0: the request succeeded
    WireCommand command;
    std::int32_t status() const { return command.status(); }
  };
  Outcome issue(unsigned long request, WireCommand command);
  // On the device of a path, whatever it is.
  Outcome issueOn(const std::string& device, unsigned long request, const WireCommand& command);
  pid_t process();
  // Runs a shell command there; its exit code.
  int shell(const std::string& command);
  void leaveNamespace();
  // Hands an order over, and takes its answer later: for one that lasts.
  void begin(unsigned long request, WireCommand command);
  Outcome finish();
  // Whether what was begun has been answered already.
  bool isAnswered() const;

 private:
  client::Answer order(client::Order order, std::vector<std::byte>& bytes);
  void send(client::Order order, const std::vector<std::byte>& bytes) const;
  client::Answer receive(std::vector<std::byte>& bytes) const;

  int mSocket;
  std::vector<std::byte> mBytes;  // of the order that was begun
};

// The emulator with `clients` clients in it.
class ClientRun {
 public:
  explicit ClientRun(std::vector<std::string> options = {}, std::size_t clients = 1);
  ~ClientRun();
  Client& client(std::size_t index = 0) { return mClients[index]; }
  Client& operator*() { return client(); }
  Client* operator->() { return &client(); }
  EmulatorRun& emulator() { return *mRun; }
  // Lets the clients go and waits for the emulator's end; its exit code.
  int end();

 private:
  std::vector<Client> mClients;
  std::unique_ptr<EmulatorRun> mRun;
};

// A loop volume as the snap command names it, with a relocation file on the scratch file system and its mapping made.
class SnapCandidate {
 public:
  // Named `name` where the client sees the device under another name.
  SnapCandidate(Client& client, const std::string& device, const std::string& name = "");
  const WireSnapVolume& wire() const { return mVolume; }
  WireDevice device() const { return mVolume.device; }
  // "/dev/snap7_3"
  std::string node() const;
  const std::string& relocFile() const { return mVolume.relocFile; }

 private:
  TempDir mDir;
  WireSnapVolume mVolume;
};

// Runs a command under the emulator to its end.
struct Finished {
  int exitCode;
  std::string output;
  std::string errors;
};
Finished runToTheEnd(
    std::vector<std::string> options, std::vector<std::string> command, const std::function<void()>& prepare = [] {});

// The loop devices whose file lies, or lay, in a folder.
std::vector<std::string> loopDevicesOver(const std::string& folder);

}  // namespace test
