// SPDX-License-Identifier: Apache-2.0
#include "base/Handle.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace {

int openNull() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }
bool isOpen(int descriptor) { return fcntl(descriptor, F_GETFD) != -1; }

}  // namespace

TEST(UniqueFd, closes_its_descriptor_when_it_goes) {
  int descriptor;
  {
    const UniqueFd owner(openNull());
    descriptor = owner.get();
    EXPECT_TRUE(owner.valid());
    EXPECT_TRUE(isOpen(descriptor));
  }
  EXPECT_FALSE(isOpen(descriptor));
}

TEST(UniqueFd, hands_its_descriptor_on_and_keeps_none) {
  UniqueFd first(openNull());
  const int descriptor = first.get();
  UniqueFd second(std::move(first));
  EXPECT_FALSE(first);
  UniqueFd third;
  third = std::move(second);
  EXPECT_EQ(third.get(), descriptor);
  const int released = third.release();
  EXPECT_EQ(released, descriptor);
  EXPECT_FALSE(third);
  EXPECT_TRUE(isOpen(released));
  close(released);
}

TEST(UniqueFd, closes_the_old_descriptor_when_it_takes_another) {
  UniqueFd owner(openNull());
  const int old = owner.get();
  owner.reset(openNull());
  EXPECT_TRUE(isOpen(owner.get()));
  EXPECT_TRUE(owner.get() != old || isOpen(old));
  UniqueFd& itself = owner;
  owner = std::move(itself);
  EXPECT_TRUE(isOpen(owner.get()));
}

TEST(UniqueFd, keeps_errno_while_it_closes) {
  UniqueFd stale(openNull());
  close(stale.get());
  errno = ENOTBLK;
  stale.reset();  // closing fails with EBADF
  EXPECT_EQ(errno, ENOTBLK);
}
