// SPDX-License-Identifier: Apache-2.0
//
// The verbs of mirelsnap: each puts itself on the command line, a file a verb.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

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
