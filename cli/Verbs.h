// SPDX-License-Identifier: Apache-2.0
//
// The verbs of mirelsnap: each puts itself on the command line, a file a verb.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "Report.h"

namespace cli {

struct CommandLine {
  // What stands behind "--", for the verb that runs a command.
  std::vector<std::string> command;
  // What the verb that was named is to do once the options are read; returns the exit code.
  std::function<int()> action;
};

// The column in which help texts explain: no line of a help is wider than 80.
constexpr std::size_t kHelpColumn = 18;

// An empty name is a variable of a script that is not set: a default in its place would be another run than was meant.
std::string checkNamed(const std::string& text);

// A verb of the command line and what its options are read into, which lives as long as the verb.
template <class Options>
struct Verb {
  CLI::App* app;
  Options* options;
};

// Puts a verb on the command line that does `work` and ends with what it reports, as JSON if `options.json` says so.
template <class Options>
Verb<Options> addVerb(CLI::App& program, CommandLine& line, const std::string& name, const std::string& description,
                      std::function<void(const Options&, Report&)> work) {
  CLI::App* verb = program.add_subcommand(name, description);
  const auto options = std::make_shared<Options>();
  verb->callback([=, &line] {
    line.action = [=] {
      Report report(options->json);
      work(*options, report);
      return report.finish();
    };
  });
  return {verb, options.get()};
}

// An argument that is known by its place, or several of them.
template <class Values>
CLI::Option* addPositional(CLI::App& verb, const std::string& name, Values& values, const std::string& description) {
  return verb.add_option(name, values, description)->type_name("")->check(checkNamed);
}

void addJsonOption(CLI::App& verb, bool& json);

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
