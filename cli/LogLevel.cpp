// SPDX-License-Identifier: Apache-2.0
//
// `mirelsnap log-level`: how much the driver writes to its log.
#include <algorithm>
#include <array>
#include <string_view>

#include "Driver.h"
#include "Report.h"
#include "Verbs.h"
#include "driver/ControlDevice.h"

namespace cli {
namespace {

struct LevelOptions {
  std::string level;
  bool json = false;
};

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

void setLevel(const LevelOptions& options, Report& report) {
  const std::size_t level = levelOf(options.level);
  report.document() = {{"level", nullptr}, {"name", nullptr}};
  if (const Outcome failure = requireRoot("log-level", "it talks to the kernel driver")) return report.failed(*failure);
  Driver driver;
  if (const Outcome failure = driver.check()) return report.failed(*failure);
  if (const unsigned int status = driver.get()->SetLogLevel(static_cast<unsigned char>(level)); status != 0)
    return report.failed(refused(kControlNode, status));
  report.document()["level"] = level;
  report.document()["name"] = kLevels.at(level);
  report.print("The driver logs up to level " + std::to_string(level) + " (" + std::string(kLevels.at(level)) + ").\n");
}

}  // namespace

void addLogLevel(CLI::App& program, CommandLine& line) {
  auto [verb, options] =
      addVerb<LevelOptions>(program, line, "log-level", "Set how much the driver writes to its log", &setLevel);
  verb.argument("LEVEL", options->level,
                "0 to 7, or emerg, alert, crit, err, warning, notice, info,\ndebug: each with all before it",
                checkLevel);
  addJsonOption(verb, options->json);
  verb.footer("It holds for the driver until it is set again or the driver is loaded anew.\n\n" +
              exitCodeHelp({kSuccess, kNotRoot, kNoDriver, kRefused}));
}

}  // namespace cli
