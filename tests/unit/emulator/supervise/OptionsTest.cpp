// SPDX-License-Identifier: Apache-2.0
#include "emulator/supervise/Options.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include <cerrno>

#include "World.h"

namespace {

using emulator::Options;
using emulator::ParsedOptions;

ParsedOptions parse(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "mirelsnap-emulator");
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  return emulator::parseOptions(static_cast<int>(argv.size()), argv.data());
}

// Parses what must be refused; the complaint.
std::string complaint(const std::vector<std::string>& arguments) {
  testing::internal::CaptureStderr();
  const ParsedOptions parsed = parse(arguments);
  std::string text = testing::internal::GetCapturedStderr();
  EXPECT_EQ(parsed.exit, 2);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
  return text;
}

TEST(EmulatorOptions, have_defaults) {
  const ParsedOptions parsed = parse({"--", "true"});
  ASSERT_FALSE(parsed.exit);
  EXPECT_EQ(parsed.options.command, std::vector<std::string>{"true"});
  EXPECT_EQ(parsed.options.version, "mirelsnap-emulator 1.0.0");
  EXPECT_EQ(parsed.options.store, "");
  EXPECT_EQ(parsed.options.trace, "");
  EXPECT_EQ(parsed.options.freezeLimit, std::chrono::seconds(60));
  EXPECT_FALSE(parsed.options.unloaded);
  EXPECT_FALSE(parsed.options.quiet);
}

TEST(EmulatorOptions, are_taken) {
  const ParsedOptions parsed =
      parse({"--trace", "t", "--inject", "snap:1:EIO:-8", "--inject", "discard:2:EPERM", "--unloaded", "--version",
             "v 2", "--store", "/mnt", "--freeze-limit", "5", "--quiet", "--", "true"});
  ASSERT_FALSE(parsed.exit);
  const Options& options = parsed.options;
  EXPECT_EQ(options.trace, "t");
  ASSERT_EQ(options.injections.size(), 2u);
  EXPECT_EQ(options.injections[0].status, -8);
  EXPECT_EQ(options.injections[1].error, EPERM);
  EXPECT_TRUE(options.unloaded);
  EXPECT_EQ(options.version, "v 2");
  EXPECT_EQ(options.store, "/mnt");
  EXPECT_EQ(options.freezeLimit, std::chrono::seconds(5));
  EXPECT_TRUE(options.quiet);
}

TEST(EmulatorOptions, end_at_the_first_separator_and_all_behind_it_is_the_commands_own) {
  const ParsedOptions parsed = parse({"--quiet", "--", "agent", "run", "--quiet", "--", "tar", "--help", ""});
  ASSERT_FALSE(parsed.exit);
  EXPECT_EQ(parsed.options.command, (std::vector<std::string>{"agent", "run", "--quiet", "--", "tar", "--help", ""}));
}

TEST(EmulatorOptions, that_are_wrong_are_refused_with_one_line_and_2) {
  EXPECT_EQ(complaint({}), "mirelsnap-emulator: no command given after '--'; see 'mirelsnap-emulator --help'\n");
  complaint({"--"});
  complaint({"true"});
  complaint({"--nonsense", "--", "true"});
  complaint({"--freeze-limit", "soon", "--", "true"});
  EXPECT_NE(complaint({"--inject", "snap:x:EIO", "--", "true"}).find("N counts from 1"), std::string::npos);
  EXPECT_NE(complaint({"--store", "/nowhere", "--", "true"}).find("the store /nowhere is not a directory"),
            std::string::npos);
}

TEST(EmulatorOptions, take_a_version_text_that_fits_the_drivers_answer) {
  EXPECT_FALSE(parse({"--version", std::string(66, 'v'), "--", "true"}).exit);
  EXPECT_NE(complaint({"--version", std::string(67, 'v'), "--", "true"}).find("longer than 66 bytes"),
            std::string::npos);
}

TEST(EmulatorOptions, make_the_store_a_full_path) {
  const test::TempDir dir;
  ASSERT_EQ(chdir(dir.path().c_str()), 0);
  EXPECT_EQ(parse({"--store", ".", "--", "true"}).options.store, dir.path() + "/.");
  ASSERT_EQ(chdir("/"), 0);
}

TEST(EmulatorOptions, help_names_every_command_and_every_option) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(parse({"--help"}).exit, 0);
  const std::string help = testing::internal::GetCapturedStdout();
  for (const emulator::Command& command : emulator::kCommands) EXPECT_NE(help.find(command.name), std::string::npos);
  for (const auto& [status, name] : kDriverStatusNames) EXPECT_NE(help.find(name), std::string::npos) << name;
  for (const char* option :
       {"--trace", "--inject", "--unloaded", "--version", "--store", "--freeze-limit", "--quiet", "-- COMMAND"}) {
    EXPECT_NE(help.find(option), std::string::npos) << option;
  }
}

}  // namespace
