// SPDX-License-Identifier: Apache-2.0
#include "driver/RequestName.h"

#include <gtest/gtest.h>

#include <string>

#include "driver/DriverProtocol.h"

TEST(RequestName, is_that_of_the_protocol) {
  EXPECT_STREQ(requestName(IOC_FREEZE), "IOC_FREEZE");
  EXPECT_STREQ(requestName(IOC_SNAP), "IOC_SNAP");
  EXPECT_STREQ(requestName(IOC_VERIFY_AND_CLEAN_VOLUMES), "IOC_VERIFY_AND_CLEAN_VOLUMES");
}

// The numbers of the protocol are 3, 4 and 7 to 25.
TEST(RequestName, is_known_of_every_request_and_of_nothing_else) {
  for (unsigned long number = 0; number < 32; ++number) {
    const bool isRequest = number == 3 || number == 4 || (number >= 7 && number <= 25);
    EXPECT_EQ(std::string(requestName(0xC01C5300 + number)) != "?", isRequest) << number;
  }
}
