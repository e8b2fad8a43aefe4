// SPDX-License-Identifier: Apache-2.0
//
// The verbs of mirelsnap: each puts itself on the command line, a file a verb.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Report.h"
#include "Syntax.h"

namespace cli {

struct CommandLine {
  // What stands behind "--", for the verb that runs a command.
  std::vector<std::string> command;
  // What the verb that was named is to do once the options are read; returns the exit code.
  std::function<int()> action;
};

// A verb of the command line and what its options are read into, which lives as long as the verb.
template <class Options>
struct Verb {
  Syntax syntax;
  Options* options;
};

// Puts a verb on the command line that does `work` and ends with what it reports, as JSON if `options.json` says so.
template <class Options>
Verb<Options> addVerb(CLI::App& program, CommandLine& line, const std::string& name, const std::string& description,
                      std::function<void(const Options&, Report&)> work) {
  Syntax syntax(program, name, description);
  const auto options = std::make_shared<Options>();
  syntax.whenRead([=, &line] {
    line.action = [=] {
      Report report(options->json);
      work(*options, report);
      return report.finish();
    };
  });
  return {syntax, options.get()};
}

void addJsonOption(Syntax& verb, bool& json);

void addRun(CLI::App& program, CommandLine& line);
void addShell(CLI::App& program, CommandLine& line);
void addStatus(CLI::App& program, CommandLine& line);
void addDoctor(CLI::App& program, CommandLine& line);
void addPlan(CLI::App& program, CommandLine& line);
void addReconcile(CLI::App& program, CommandLine& line);
void addFreeze(CLI::App& program, CommandLine& line);
void addThaw(CLI::App& program, CommandLine& line);
void addChanges(CLI::App& program, CommandLine& line);
void addStopTracking(CLI::App& program, CommandLine& line);
void addLogLevel(CLI::App& program, CommandLine& line);
void addDumpState(CLI::App& program, CommandLine& line);

}  // namespace cli
