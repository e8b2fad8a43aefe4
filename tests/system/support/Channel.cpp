// SPDX-License-Identifier: Apache-2.0
#include "Channel.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace test {
namespace {

constexpr std::size_t kLongestMessage = 192 * 1024;
constexpr std::size_t kMostDescriptors = 8;
constexpr std::size_t kControlSize = CMSG_SPACE(kMostDescriptors * sizeof(int));

struct alignas(cmsghdr) ControlBuffer {
  std::array<char, kControlSize> bytes{};
};

void takeDescriptors(msghdr& header, std::vector<int>* descriptors) {
  for (cmsghdr* part = CMSG_FIRSTHDR(&header); part != nullptr; part = CMSG_NXTHDR(&header, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
    std::vector<int> came((part->cmsg_len - CMSG_LEN(0)) / sizeof(int));
    std::memcpy(came.data(), CMSG_DATA(part), came.size() * sizeof(int));
    if (descriptors == nullptr) {
      for (const int descriptor : came) ::close(descriptor);
    } else {
      descriptors->insert(descriptors->end(), came.begin(), came.end());
    }
  }
}

}  // namespace

Channel::Channel(Channel&& other) noexcept : mSocket(other.mSocket) { other.mSocket = -1; }

Channel& Channel::operator=(Channel&& other) noexcept {
  std::swap(mSocket, other.mSocket);
  return *this;
}

Channel::~Channel() { close(); }

void Channel::close() {
  if (mSocket >= 0) ::close(mSocket);
  mSocket = -1;
}

std::pair<Channel, Channel> Channel::pair() {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) throw std::runtime_error("no socket");
  return {Channel(ends[0]), Channel(ends[1])};
}

bool Channel::send(const Json& message, const std::vector<int>& descriptors) {
  std::string text = message.dump();
  if (text.size() > kLongestMessage || descriptors.size() > kMostDescriptors) {
    throw std::length_error("a message is too long");
  }
  iovec part{text.data(), text.size()};
  ControlBuffer control;
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  if (!descriptors.empty()) {
    header.msg_control = control.bytes.data();
    header.msg_controllen = CMSG_SPACE(descriptors.size() * sizeof(int));
    cmsghdr* rights = CMSG_FIRSTHDR(&header);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
    std::memcpy(CMSG_DATA(rights), descriptors.data(), descriptors.size() * sizeof(int));
  }
  ssize_t sent = -1;
  do {
    sent = sendmsg(mSocket, &header, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent == static_cast<ssize_t>(text.size());
}

std::optional<Json> Channel::receive(std::vector<int>* descriptors) {
  std::string text(kLongestMessage, '\0');
  iovec part{text.data(), text.size()};
  ControlBuffer control;
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  header.msg_control = control.bytes.data();
  header.msg_controllen = control.bytes.size();
  ssize_t got = -1;
  do {
    got = recvmsg(mSocket, &header, MSG_CMSG_CLOEXEC);
  } while (got < 0 && errno == EINTR);
  if (got <= 0) return std::nullopt;
  takeDescriptors(header, descriptors);
  text.resize(static_cast<std::size_t>(got));
  return Json::parse(text);
}

}  // namespace test
