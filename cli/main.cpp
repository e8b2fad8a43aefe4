// SPDX-License-Identifier: Apache-2.0
//
// mirelsnap, the command-line agent: its verbs, and which of them is asked for.
#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <exception>

#include <CLI/CLI.hpp>

#include "Failure.h"
#include "Text.h"
#include "Verbs.h"
#include "base/StandardStreams.h"

namespace {

using AddVerb = void (*)(CLI::App& program, cli::CommandLine& line);
constexpr AddVerb kVerbs[] = {
    cli::addRun,    cli::addShell, cli::addStatus,  cli::addDoctor,       cli::addPlan,     cli::addReconcile,
    cli::addFreeze, cli::addThaw,  cli::addChanges, cli::addStopTracking, cli::addLogLevel, cli::addDumpState,
};

// The verb whose arguments behind the first "--" are a command of its own.
constexpr char kRun[] = "run";

// A result that did not reach its file must not be taken for one.
int checkOutput(int exitCode) {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return exitCode;
  std::fprintf(stderr, "mirelsnap: standard output: cannot be written: %s; the result is lost, all else was done\n",
               std::strerror(errno));
  return exitCode == cli::kSuccess ? cli::kOutputLost : exitCode;
}

// Names that are not ASCII need a locale that can decode them.
void chooseLocale() {
  const char* chosen = std::setlocale(LC_ALL, "");
  if (chosen == nullptr || std::strcmp(std::setlocale(LC_CTYPE, nullptr), "C") == 0)
    std::setlocale(LC_CTYPE, "C.UTF-8");
}

// What a verb takes stands in its own help.
int usageError(const std::string& cause, const std::string& verb = "") {
  std::fprintf(stderr, "mirelsnap: %s; see mirelsnap %s--help\n", cli::onOneLine(cause).c_str(),
               verb.empty() ? "" : (verb + " ").c_str());
  return cli::kUsage;
}

// In the order in which they were typed, which the parser's own text does not keep.
std::string unexpected(const CLI::App& app, bool commandMissing) {
  const std::vector<std::string> words = app.remaining(true);
  std::string text = words.size() == 1 ? "this argument was not expected:" : "these arguments were not expected:";
  for (const std::string& word : words) text += " " + word;
  return text + (commandMissing ? " (the command to run stands behind --)" : "");
}

bool hasVerb(CLI::App& app, const std::string& name) {
  return !app.get_subcommands([&](CLI::App* verb) { return verb->get_name() == name; }).empty();
}

int runMain(int argc, char** argv) {
  CLI::App app("mirelsnap: point-in-time snapshots of mounted volumes", "mirelsnap");
  app.set_version_flag("--version", std::string("mirelsnap ") + MIRELSNAP_VERSION);
  app.require_subcommand(1);
  app.get_formatter()->label("SUBCOMMAND", "VERB");
  app.get_formatter()->column_width(cli::kHelpColumn);
  app.footer("mirelsnap VERB --help tells of each.");
  cli::CommandLine line;
  for (const AddVerb add : kVerbs) add(app, line);
  for (CLI::App* added : app.get_subcommands({})) added->group("Verbs");

  std::vector<std::string> arguments(argv + 1, argv + argc);
  const std::string verb = arguments.empty() ? "" : arguments.front();
  if (!verb.empty() && verb.front() != '-' && !hasVerb(app, verb))
    return usageError(verb + " is nothing that mirelsnap can do");
  if (const auto separator = std::find(arguments.begin(), arguments.end(), "--");
      verb == kRun && separator != arguments.end()) {
    line.command.assign(separator + 1, arguments.end());
    arguments.erase(separator, arguments.end());
  }
  if (verb.empty()) return usageError("what is to be done? Name a verb, such as doctor");
  if (verb.starts_with('-') && verb != "-h" && verb != "--help" && verb != "--version")
    return usageError("name a verb first: " + verb + " is none");
  std::reverse(arguments.begin(), arguments.end());
  try {
    app.parse(arguments);
  } catch (const CLI::Success& asked) {
    return app.exit(asked);
  } catch (const CLI::ExtrasError&) {
    return usageError(unexpected(app, verb == kRun && line.command.empty()), hasVerb(app, verb) ? verb : "");
  } catch (const CLI::ParseError& error) {
    return usageError(error.what(), hasVerb(app, verb) ? verb : "");
  }
  return line.action();
}

}  // namespace

int main(int argc, char** argv) {
  if (!openClosedStreams()) return cli::kOutputLost;
  chooseLocale();
  try {
    return checkOutput(runMain(argc, argv));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "mirelsnap: unexpected failure: %s\n", error.what());
    return cli::kSnapshotFailed;
  }
}
