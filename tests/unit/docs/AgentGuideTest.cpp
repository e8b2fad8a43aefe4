// SPDX-License-Identifier: Apache-2.0
//
// The table of results in docs/agent-guide.md against the code.
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>
#include <string>

#include "Names.h"
#include "World.h"
#include "mirelsnap/SnapshotEngine.h"

namespace {

using Results = std::map<std::string, unsigned int>;

#define RESULT(name) \
  { #name, static_cast < unsigned int>(name) }

const Results& compiledResults() {
  static const Results results = {
      RESULT(S_OK),
      RESULT(USC_S_ASYNC_PENDING),
      RESULT(USC_S_ASYNC_FINISHED),
      RESULT(E_NOTIMPL),
      RESULT(E_OUTOFMEMORY),
      RESULT(E_INVALIDARG),
      RESULT(E_NOINTERFACE),
      RESULT(E_POINTER),
      RESULT(E_FAIL),
      RESULT(E_UNEXPECTED),
      RESULT(USC_E_BAD_STATE),
      RESULT(USC_E_OBJECT_NOT_FOUND),
      RESULT(USC_E_VOLUME_NOT_SUPPORTED),
      RESULT(USC_E_OBJECT_ALREADY_EXISTS),
      RESULT(USC_E_SNAPSHOT_SET_IN_PROGRESS),
      RESULT(USC_E_VOLUME_ALREADY_SNAPPED),
      RESULT(USC_E_INSUFFICIENT_STORAGE),
  };
  return results;
}

TEST(AgentGuide, has_every_result_with_its_value) {
  const std::string text = test::readFile(AGENT_GUIDE);
  const std::regex row("\\| `(\\w+)` \\| 0x([0-9A-F]{8}) \\|");
  Results written;
  for (std::sregex_iterator match(text.begin(), text.end(), row), end; match != end; ++match)
    written.emplace((*match)[1], static_cast<unsigned int>(std::stoul((*match)[2], nullptr, 16)));
  EXPECT_EQ(written, compiledResults());
}

TEST(AgentGuide, knows_every_result_of_the_header) {
  std::set<std::string> names;
  for (const auto& [name, value] : compiledResults()) names.insert(name);
  EXPECT_EQ(names, test::namesIn(ENGINE_HEADER, "constexpr int (\\w+) ="));
}

// Every call of both interfaces stands in the guide.
TEST(AgentGuide, names_every_operation_of_the_interfaces) {
  const std::string guide = test::readFile(AGENT_GUIDE);
  for (const std::string& name : test::namesIn(ENGINE_HEADER, "virtual (?:int|unsigned int) (\\w+)\\("))
    EXPECT_NE(guide.find(name), std::string::npos) << name;
}

}  // namespace
