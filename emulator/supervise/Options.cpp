// SPDX-License-Identifier: Apache-2.0
#include "emulator/supervise/Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string_view>
#include <vector>

#include "emulator/driver/EmulatedDriver.h"

namespace emulator {
namespace {

// Names in lines of at most four.
std::string inLines(const std::vector<std::string_view>& names) {
  std::string text;
  for (std::size_t i = 0; i < names.size(); ++i) {
    text += i % 4 == 0 ? "\n  " : ", ";
    text += names[i];
  }
  return text;
}

std::string commandNames() {
  std::vector<std::string_view> names;
  for (const Command& command : kCommands) names.push_back(command.name);
  return inLines(names);
}

std::string statusNames() {
  std::vector<std::string_view> names;
  for (const auto& [status, name] : kDriverStatusNames) names.emplace_back(name);
  return inLines(names);
}

std::string footer() {
  return std::string("COMMAND and everything it starts find ") + kDriverNumbersPath +
         ", can create and\n"
         "open " +
         kControlNodePath +
         ", and have their requests answered. Snapshots are real:\n"
         "they are taken of real devices and appear as " +
         kSnapshotDevicePrefix +
         "<major>_<minor>.\n"
         "When COMMAND exits, what it left running is terminated and everything is undone.\n\n"
         "Commands for --inject:" +
         commandNames() + "\nStatuses for --inject, beside numbers:" + statusNames() +
         "\nExamples: --inject snap:1:EIO:size-changed (the first snap fails with EIO and\n"
         "that status), --inject check-snapped:2:0:99 (the second such command is carried\n"
         "out and returns the status 99), --inject snap:1:lost=EIO (the first snap is\n"
         "carried out, and fails with EIO all the same).\n\n"
         "SIGTERM, SIGINT, SIGHUP and SIGQUIT are passed on to COMMAND, which then has 10\n"
         "seconds to exit. An interrupt typed at the terminal reaches COMMAND directly;\n"
         "the emulator exits when COMMAND does.\n\n"
         "Exit code: that of COMMAND; 128 + N if signal N terminated it; 127 if it was not\n"
         "found, 126 if it could not be executed; 2 for wrong usage, for a user other than\n"
         "root, and on a kernel without seccomp user notification or without loop devices\n"
         "(nothing has been changed then).";
}

// No line is wider than 80 columns.
class HelpText : public CLI::Formatter {
 public:
  HelpText() { column_width(18); }

 private:
  std::string make_usage(const CLI::App*, std::string) const override {
    return "Usage: mirelsnap-emulator [OPTIONS] -- COMMAND [ARG...]\n";
  }
};

std::string checkInjection(const std::string& text) {
  Injection ignored;
  return Injection::parse(text, ignored).value_or("");
}

std::string checkVersion(const std::string& text) {
  if (text.size() <= kLongestVersion) return "";
  return "the version text is longer than " + std::to_string(kLongestVersion) + " bytes";
}

std::string checkStore(const std::string& text) {
  std::error_code ignored;
  return std::filesystem::is_directory(text, ignored) ? "" : "the store " + text + " is not a directory";
}

}  // namespace

ParsedOptions parseOptions(int argc, char** argv) {
  ParsedOptions parsed;
  Options& options = parsed.options;
  options.version = "mirelsnap-emulator " MIRELSNAP_VERSION;
  std::vector<std::string> injections;
  unsigned int freezeLimit = 60;

  CLI::App app("Run a command as if the mirelsnap driver were loaded.");
  app.formatter(std::make_shared<HelpText>());
  app.footer(footer());
  app.add_option("--trace", options.trace, "Write one line of JSON per driver command to FILE")->type_name("FILE");
  app.add_option("--inject", injections, "Make the N-th such command fail, or return a status;\nmay be repeated")
      ->type_name("COMMAND:N:[lost=]ERRNO[:STATUS]")
      ->allow_extra_args(false)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->check(checkInjection);
  app.add_flag("--unloaded", options.unloaded, "No driver until modprobe mirelsnap is executed");
  app.add_option("--version", options.version, "Version that the driver reports")
      ->type_name("VERSIONTEXT")
      ->capture_default_str()
      ->check(checkVersion);
  app.add_option(
         "--store", options.store,
         "Directory for snapshot images (default: /var/tmp, or\n/dev/shm if that lies on a volume to be snapped)")
      ->type_name("DIR")
      ->check(checkStore);
  app.add_option("--freeze-limit", freezeLimit, "How long a snap may keep its volumes frozen, in seconds")
      ->type_name("SECONDS")
      ->capture_default_str();
  app.add_flag("--quiet", options.quiet, "Do not report refused commands");

  // Everything after the first "--" is COMMAND and its arguments, unchanged.
  const auto end = argv + argc;
  const auto separator = std::find(argv, end, std::string_view("--"));
  try {
    app.parse(static_cast<int>(separator - argv), argv);
    if (separator == end || separator + 1 == end) throw CLI::ParseError("no command given after '--'", kExitRefused);
  } catch (const CLI::CallForHelp& help) {
    parsed.exit = app.exit(help);
    return parsed;
  } catch (const CLI::ParseError& problem) {
    std::fprintf(stderr, "mirelsnap-emulator: %s; see 'mirelsnap-emulator --help'\n", problem.what());
    parsed.exit = kExitRefused;
    return parsed;
  }
  options.command.assign(separator + 1, end);
  options.freezeLimit = std::chrono::seconds(freezeLimit);
  if (!options.store.empty()) options.store = std::filesystem::absolute(options.store);
  for (const std::string& text : injections) {
    if (Injection injection; !Injection::parse(text, injection)) options.injections.push_back(injection);
  }
  return parsed;
}

}  // namespace emulator
