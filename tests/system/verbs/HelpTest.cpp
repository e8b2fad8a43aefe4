// SPDX-License-Identifier: Apache-2.0
//
// What `--help` shows fits into a terminal of 80 columns.
#include "Verbs.h"

namespace {

using test::Session;
using test::Texts;

// Lines of a text that are wider than a terminal.
Texts tooWide(const std::string& text) {
  Texts found;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.size() > 80) found.push_back(line);
  }
  return found;
}

// The verbs that the program's own help names.
Texts verbsIn(const std::string& help) {
  Texts verbs;
  std::istringstream lines(help.substr(std::min(help.find("\nVerbs:\n"), help.size())));
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("  ") && line[2] != ' ') verbs.push_back(line.substr(2, line.find(' ', 2) - 2));
  }
  return verbs;
}

TEST(Help, of_every_verb_is_no_wider_than_a_terminal) {
  Session session = Session::withoutDriver();
  const std::string help = test::verb(session, {"--help"}).output;
  EXPECT_EQ(tooWide(help), Texts());
  const Texts verbs = verbsIn(help);
  EXPECT_EQ(verbs.size(), 12u) << help;
  for (const std::string& verb : verbs) {
    const test::Ended ended = test::verb(session, {verb, "--help"});
    EXPECT_EQ(ended.code, 0);
    EXPECT_NE(ended.output.find("Exit codes:\n"), std::string::npos);
    EXPECT_EQ(tooWide(ended.output), Texts()) << verb;
  }
}

TEST(Help, of_the_emulator_is_no_wider_than_a_terminal) {
  Session session = Session::withoutDriver();
  const test::Ended ended = session.run({EMULATOR_PROGRAM, "--help"});
  EXPECT_NE(ended.output.find("Exit code:"), std::string::npos);
  EXPECT_EQ(tooWide(ended.output), Texts());
}

}  // namespace
