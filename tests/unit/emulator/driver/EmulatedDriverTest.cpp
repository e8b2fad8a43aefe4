// SPDX-License-Identifier: Apache-2.0
//
// The driver's version and its log level.
#include "DriverFixture.h"

namespace {

using test::WireCommand;

struct Driver : DriverTest {};

TEST_F(Driver, the_version_is_the_one_it_was_given) {
  WireCommand command = test::versionCommand();
  EXPECT_EQ(ask(IOC_GET_DRIVER_VERSION, command), 0);
  EXPECT_STREQ(command.record<DriverVersionPayload>().version, "version 1");
}

TEST_F(Driver, the_log_level_is_that_of_errors_until_it_is_set) {
  EXPECT_EQ(driver->logLevel(), 3u);
  EXPECT_EQ(error(IOC_SET_LOG_LEVEL, test::logLevelCommand(7)), 0);
  EXPECT_EQ(driver->logLevel(), 7u);
  EXPECT_EQ(error(IOC_SET_LOG_LEVEL, test::logLevelCommand(0)), 0);
  EXPECT_EQ(driver->logLevel(), 0u);
  EXPECT_EQ(error(IOC_SET_LOG_LEVEL, test::logLevelCommand(255)), 0);
  EXPECT_EQ(driver->logLevel(), 255u);
}

}  // namespace
