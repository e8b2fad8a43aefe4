// SPDX-License-Identifier: Apache-2.0
//
// The driver interface on a scripted driver, with two volumes, and what it sent compared byte for byte.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <string>
#include <vector>

#include "DriverFixture.h"

namespace test {

// A command as it must lie on the wire, put together by offsets; zero where nothing is put.
class Wire {
 public:
  Wire(std::uint32_t flags, std::uint32_t requestValue, std::uint32_t length) : mBytes(length) {
    u32(0, flags).u32(4, requestValue).u32(16, length);
  }
  Wire& u8(std::size_t at, std::uint8_t value) { return put(at, value); }
  Wire& u32(std::size_t at, std::uint32_t value) { return put(at, value); }
  Wire& u64(std::size_t at, std::uint64_t value) { return put(at, value); }
  Wire& text(std::size_t at, const std::string& text) {
    std::memcpy(mBytes.data() + at, text.data(), text.size());
    return *this;
  }
  const std::vector<std::byte>& bytes() const { return mBytes; }

 private:
  template <class T>
  Wire& put(std::size_t at, T value) {
    std::memcpy(mBytes.data() + at, &value, sizeof value);
    return *this;
  }
  std::vector<std::byte> mBytes;
};

// What the driver writes into a command.
template <class T>
void answer(std::byte* buffer, std::size_t at, T value) {
  std::memcpy(buffer + at, &value, sizeof value);
}

class TrackingTest : public DriverTest {
 protected:
  // Exactly one command went out, this one, with a handshake in order.
  void expectSent(unsigned long request, const Wire& wire) {
    ASSERT_EQ(kernel.calls().size(), 1U);
    const DriverCall& call = kernel.calls()[0];
    EXPECT_EQ(call.request, request);
    EXPECT_EQ(call.header().handshakeCheck, (call.header().handshakeValue % 12 + 1234) % 20);
    std::vector<std::byte> sent = call.sent;
    std::memset(sent.data() + 8, 0, 8);
    EXPECT_EQ(sent, wire.bytes());
  }
  // Nothing was asked of the driver, not even whether it is there.
  void expectUntouched() {
    EXPECT_TRUE(kernel.calls().empty());
    EXPECT_FALSE(log.has(LOG_DEBUG, "major-minor remained same.\n"));
  }

  const Node first{"/dev/vol-1", S_IFBLK, 8, 0x12345}, second{"/dev/vol-2", S_IFBLK, 259, 2};
  std::wstring volume = L"/dev/vol-1", missing = L"/dev/nothing", wrong = L"/dev/null";
};

}  // namespace test
