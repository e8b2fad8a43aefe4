// SPDX-License-Identifier: Apache-2.0
//
// JSON messages, with descriptors, between a test and the programs that it starts.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

namespace test {

using Json = nlohmann::json;

// One end of a connection; closes its socket.
class Channel {
 public:
  explicit Channel(int socket) : mSocket(socket) {}
  Channel(Channel&& other) noexcept;
  Channel& operator=(Channel&& other) noexcept;
  ~Channel();

  // Two ends; both are closed when a program is executed.
  static std::pair<Channel, Channel> pair();

  int socket() const { return mSocket; }
  bool isOpen() const { return mSocket >= 0; }
  void close();
  // False when the other end is gone. The descriptors stay the caller's.
  bool send(const Json& message, const std::vector<int>& descriptors = {});
  // The next message; nothing when the other end is gone. Descriptors that came along are the caller's.
  std::optional<Json> receive(std::vector<int>* descriptors = nullptr);

 private:
  int mSocket;
};

// Answers messages with what `handle` makes of them until the other end goes.
template <class Handler>
void serve(Channel channel, Handler handle) {
  while (true) {
    std::vector<int> descriptors;
    const std::optional<Json> message = channel.receive(&descriptors);
    if (!message || !channel.send(handle(*message, descriptors))) return;
  }
}

// In the programs, the descriptor of the test's connection.
inline constexpr int kChannelDescriptor = 3;

}  // namespace test
