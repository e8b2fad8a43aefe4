// SPDX-License-Identifier: Apache-2.0
#include "Syntax.h"

#include <memory>
#include <utility>

#include <CLI/CLI.hpp>

#include "Failure.h"

namespace cli {
namespace {

std::string checkNamed(const std::string& text) { return text.empty() ? "the value is empty" : ""; }

// A usage line of the verb's own, for what the option parser does not see.
class OwnUsage : public CLI::Formatter {
 public:
  explicit OwnUsage(std::string line) : mLine(std::move(line)) { column_width(kHelpColumn); }
  std::string make_usage(const CLI::App*, std::string) const override { return "Usage: " + mLine + "\n"; }

 private:
  std::string mLine;
};

template <class Value>
CLI::Option* addArgument(CLI::App& verb, const std::string& name, Value& value, const std::string& description) {
  return verb.add_option(name, value, description)->type_name("")->check(checkNamed);
}

}  // namespace

void refuseCommandLine(const std::string& message) { throw CLI::ParseError(message, kUsage); }

Syntax::Syntax(CLI::App& program, const std::string& verb, const std::string& description)
    : mVerb(program.add_subcommand(verb, description)) {}

void Syntax::argument(const std::string& name, std::string& value, const std::string& description, Check check) {
  CLI::Option* argument = addArgument(*mVerb, name, value, description)->required();
  if (check != nullptr) argument->check(check);
}

void Syntax::arguments(const std::string& name, std::vector<std::string>& values, const std::string& description) {
  addArgument(*mVerb, name, values, description)->required();
}

void Syntax::optionalArguments(const std::string& name, std::vector<std::string>& values,
                               const std::string& description) {
  addArgument(*mVerb, name, values, description);
}

void Syntax::flag(const std::string& name, bool& value, const std::string& description) {
  mVerb->add_flag(name, value, description);
}

void Syntax::option(const std::string& name, const std::string& type, std::string& value,
                    const std::string& description) {
  mVerb->add_option(name, value, description)->type_name(type)->check(checkNamed);
}

void Syntax::option(const std::string& name, const std::string& type, std::uint32_t& value,
                    const std::string& description, Check check) {
  mVerb->add_option(name, value, description)->type_name(type)->check(check);
}

void Syntax::repeatableOption(const std::string& name, const std::string& type, std::vector<std::string>& values,
                              const std::string& description) {
  mVerb->add_option(name, values, description)->type_name(type)->check(checkNamed)->allow_extra_args(false);
}

void Syntax::together(const std::string& one, const std::string& other) {
  CLI::Option* const first = mVerb->get_option(one);
  CLI::Option* const second = mVerb->get_option(other);
  first->needs(second);
  second->needs(first);
}

void Syntax::usage(const std::string& line) { mVerb->formatter(std::make_shared<OwnUsage>(line)); }

void Syntax::footer(const std::string& text) { mVerb->footer(text); }

void Syntax::whenRead(std::function<void()> callback) { mVerb->callback(std::move(callback)); }

}  // namespace cli
