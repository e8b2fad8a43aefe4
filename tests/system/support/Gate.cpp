// SPDX-License-Identifier: Apache-2.0
#include "Gate.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include "Session.h"
#include "Waiting.h"

namespace test {

Gate::Gate() : mListening(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, (mDir / "gate").c_str(), sizeof address.sun_path - 1);
  if (mListening < 0 || bind(mListening, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(mListening, 1) != 0) {
    throw std::runtime_error("no gate");
  }
}

Gate::~Gate() {
  letGoOn();
  close(mListening);
}

std::map<std::string, std::string> Gate::environment(const std::string& mischief) const {
  std::map<std::string, std::string> variables = withMischief(mischief);
  variables["MISCHIEF_GATE"] = mDir / "gate";
  return variables;
}

void Gate::waitForProgram() {
  pollfd waiting{mListening, POLLIN, 0};
  if (poll(&waiting, 1, std::chrono::milliseconds(kPatience).count()) != 1)
    throw std::runtime_error("no program comes to the gate");
  mProgram = accept4(mListening, nullptr, nullptr, SOCK_CLOEXEC);
  if (mProgram < 0) throw std::runtime_error("the gate cannot be opened");
}

void Gate::letGoOn() {
  if (mProgram >= 0) close(mProgram);
  mProgram = -1;
}

}  // namespace test
