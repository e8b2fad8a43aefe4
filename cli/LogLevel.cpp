// SPDX-License-Identifier: Apache-2.0
//
// `mirelsnap log-level`: how much the driver writes to its log.
#include <algorithm>
#include <array>
#include <memory>
#include <string_view>

#include "Driver.h"
#include "Report.h"
#include "Verbs.h"
#include "driver/ControlDevice.h"

namespace cli {
namespace {

// By their numbers.
constexpr std::array<std::string_view, 8> kLevels = {"emerg",   "alert",  "crit", "err",
                                                     "warning", "notice", "info", "debug"};

// Its number; kLevels.size() for none.
std::size_t levelOf(const std::string& text) {
  for (std::size_t level = 0; level < kLevels.size(); ++level) {
    if (text == kLevels.at(level) || text == std::to_string(level)) return level;
  }
  return kLevels.size();
}

std::string checkLevel(const std::string& text) {
  return levelOf(text) < kLevels.size() ? "" : text + " is no level (0 to 7, or emerg to debug)";
}

int setLevel(const std::string& text, bool asJson) {
  const std::size_t level = levelOf(text);
  Report report(asJson);
  report.document()["level"] = nullptr;
  report.document()["name"] = nullptr;
  const auto done = [&](const Failure& failure) {
    report.failed(failure);
    return report.finish();
  };
  if (const Outcome failure = requireRoot("log-level", "it talks to the kernel driver")) return done(*failure);
  Driver driver;
  if (const Outcome failure = driver.check()) return done(*failure);
  if (const unsigned int status = driver.get()->SetLogLevel(static_cast<unsigned char>(level)); status != 0)
    return done(refused(kControlNode, status));
  report.document()["level"] = level;
  report.document()["name"] = kLevels.at(level);
  report.print("The driver logs up to level " + std::to_string(level) + " (" + std::string(kLevels.at(level)) + ").\n");
  return report.finish();
}

}  // namespace

void addLogLevel(CLI::App& program, CommandLine& line) {
  CLI::App* verb = program.add_subcommand("log-level", "Set how much the driver writes to its log");
  struct Options {
    std::string level;
    bool json = false;
  };
  const auto options = std::make_shared<Options>();
  verb->add_option("LEVEL", options->level,
                   "0 to 7, or emerg, alert, crit, err, warning, notice, info,\ndebug: each with all before it")
      ->type_name("")
      ->required()
      ->check(checkLevel);
  verb->add_flag("--json", options->json, "Print one JSON document instead");
  verb->footer("It holds for the driver until it is set again or the driver is loaded anew.\n\n" +
               exitCodeHelp({kSuccess, kNotRoot, kNoDriver, kRefused}));
  verb->callback([options, &line] { line.action = [options] { return setLevel(options->level, options->json); }; });
}

}  // namespace cli
