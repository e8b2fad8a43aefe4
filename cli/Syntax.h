// SPDX-License-Identifier: Apache-2.0
//
// How a verb is typed, and its help. The parser behind it (CLI11) is included by Syntax.cpp and main.cpp alone: a file
// that includes it takes ten times as long to compile as a verb.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace cli {

// The column in which help texts explain: no line of a help is wider than 80.
constexpr std::size_t kHelpColumn = 18;

// Ends the reading of the command line: it is wrong, and `message` says why. Only for what Syntax::whenRead() calls.
[[noreturn]] void refuseCommandLine(const std::string& message);

// One verb. What is typed is read into the variables that are named here, which must live until then. No value may be
// empty: that is a variable of a script that is not set, and a default in its place would be another run than was
// meant.
class Syntax {
 public:
  // What is wrong with a value; empty when nothing is.
  using Check = std::string (*)(const std::string& value);

  Syntax(CLI::App& program, const std::string& verb, const std::string& description);

  // An argument that is known by its place and must be there.
  void argument(const std::string& name, std::string& value, const std::string& description, Check check = nullptr);
  // One or more of them.
  void arguments(const std::string& name, std::vector<std::string>& values, const std::string& description);
  // Any number of them.
  void optionalArguments(const std::string& name, std::vector<std::string>& values, const std::string& description);

  void flag(const std::string& name, bool& value, const std::string& description);
  void option(const std::string& name, const std::string& type, std::string& value, const std::string& description);
  void option(const std::string& name, const std::string& type, std::uint32_t& value, const std::string& description,
              Check check);
  void repeatableOption(const std::string& name, const std::string& type, std::vector<std::string>& values,
                        const std::string& description);
  // Options of which neither is given without the other.
  void together(const std::string& one, const std::string& other);

  // The help's line of usage, in place of the one made from the options.
  void usage(const std::string& line);
  // What the help says last.
  void footer(const std::string& text);

  // What to do when this verb was typed and its options are read.
  void whenRead(std::function<void()> callback);

 private:
  CLI::App* mVerb;  // the command line's
};

}  // namespace cli
