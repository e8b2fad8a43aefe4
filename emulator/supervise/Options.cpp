// SPDX-License-Identifier: Apache-2.0
#include "emulator/supervise/Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string_view>

#include "emulator/driver/EmulatedDriver.h"

namespace emulator {
namespace {

std::string commandNames() {
  std::string names;
  std::size_t column = 0;
  for (const Command& command : kCommands) {
    names += column == 0 ? "\n  " : ", ";
    names += command.name;
    column = (column + 1) % 4;
  }
  return names;
}

std::string footer() {
  return "COMMAND, and everything that it starts, finds /proc/mirelsnap/dev, can make and\n"
         "open /dev/mirelsnapctl, and has its requests answered: snapshots are real, of\n"
         "real devices, and appear as /dev/snap<major>_<minor>. When COMMAND ends, what is\n"
         "left of it is ended too and everything is undone.\n\n"
         "The commands that --inject can name:" +
         commandNames() +
         "\nExamples: --inject snap:1:EIO:-8 (the first snap fails with EIO, driver status\n"
         "-8), --inject check-snapped:2:0:99 (the second such command is carried out and\n"
         "answers the status 99), --inject snap:1:lost=EIO (the first snap is carried out,\n"
         "and fails with EIO all the same).\n\n"
         "SIGTERM, SIGINT, SIGHUP and SIGQUIT are passed on to COMMAND, which has 10\n"
         "seconds to end. An interrupt from the terminal reaches COMMAND by itself: the\n"
         "emulator ends when COMMAND does.\n\n"
         "Exit code: COMMAND's; 128 + the signal that ended it; 127 COMMAND not found;\n"
         "126 not executable; 2 wrong usage, not root, no seccomp user notification, no\n"
         "loop devices: then nothing was touched.";
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
  return std::filesystem::is_directory(text, ignored) ? "" : "the store " + text + " is no directory";
}

}  // namespace

ParsedOptions parseOptions(int argc, char** argv) {
  ParsedOptions parsed;
  Options& options = parsed.options;
  options.version = "mirelsnap-emulator " MIRELSNAP_VERSION;
  std::vector<std::string> injections;
  unsigned int freezeLimit = 60;

  CLI::App app("Runs a command as if the mirelsnap driver were loaded.");
  app.formatter(std::make_shared<HelpText>());
  app.footer(footer());
  app.add_option("--trace", options.trace, "Write one JSON line a driver command to FILE")->type_name("FILE");
  app.add_option("--inject", injections, "Make the N-th command of a kind fail or answer so; may be\nrepeated")
      ->type_name("COMMAND:N:[lost=]ERRNO[:STATUS]")
      ->allow_extra_args(false)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->check(checkInjection);
  app.add_flag("--unloaded", options.unloaded, "No driver until a process has executed modprobe mirelsnap");
  app.add_option("--version", options.version, "What the driver answers when asked for its version")
      ->type_name("VERSIONTEXT")
      ->capture_default_str()
      ->check(checkVersion);
  app.add_option(
         "--store", options.store,
         "Folder for the images of snapshots (default: /var/tmp, or\n/dev/shm when that lies on a snapped volume)")
      ->type_name("DIR")
      ->check(checkStore);
  app.add_option("--freeze-limit", freezeLimit, "How long a snap may hold its volumes still, in seconds")
      ->type_name("SECONDS")
      ->capture_default_str();
  app.add_flag("--quiet", options.quiet, "Do not say which commands were refused, and why");

  // What follows the first "--" is COMMAND's own, to the letter.
  const auto end = argv + argc;
  const auto separator = std::find(argv, end, std::string_view("--"));
  try {
    app.parse(static_cast<int>(separator - argv), argv);
    if (separator == end || separator + 1 == end) throw CLI::RequiredError("-- COMMAND");
  } catch (const CLI::CallForHelp& help) {
    parsed.exit = app.exit(help);
    return parsed;
  } catch (const CLI::ParseError& problem) {
    std::fprintf(stderr, "mirelsnap-emulator: %s (see --help)\n", problem.what());
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
