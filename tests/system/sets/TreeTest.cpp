// SPDX-License-Identifier: Apache-2.0
//
// One set from its start to its end on each file system: what is exposed is the instant, whatever becomes of the live
// files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ostream>

#include "Agent.h"
#include "Base.h"
#include "MountList.h"
#include "Tree.h"

namespace {

using test::Agent;
using test::Base;
using test::Engine;
using test::Session;
using test::Tree;
using test::Volume;

struct Case {
  const char* name;
  std::string type;
  std::uint64_t bytes;
  std::vector<std::string> mkfsOptions;
};

void PrintTo(const Case& one, std::ostream* out) { *out << one.name; }

class ExposedTree : public testing::TestWithParam<Case> {};

TEST_P(ExposedTree, is_the_instant_byte_for_byte_while_the_live_files_move_on) {
  const Volume volume(GetParam().type, GetParam().bytes, GetParam().mkfsOptions);
  test::plantTree(volume.folder());
  const Tree instant(volume.folder());
  const Base base({volume.folder()});
  Session session;
  Agent agent(session);
  Engine engine = agent.openedSet({&volume});
  ASSERT_EQ(engine.snap(), 0);
  test::disturbTree(volume.folder());
  ASSERT_EQ(engine.expose(base.path()), S_OK);

  const Tree exposed(base.at(volume.folder()));
  EXPECT_EQ(exposed.difference(instant), "");
  EXPECT_TRUE(exposed.contains("some/1")) << "deleted meanwhile";
  EXPECT_FALSE(exposed.contains("new 0")) << "made meanwhile";
  EXPECT_NE(Tree(volume.folder()), instant) << "the live files did not move on";
  test::writeFile(volume.folder() + "/large", "smaller and smaller");
  EXPECT_EQ(Tree(base.at(volume.folder())).difference(instant), "");

  EXPECT_EQ(engine.unexpose(), E_UNEXPECTED) << "the base has folders that are not the engine's";
  EXPECT_EQ(test::mountsUnder(base.path()).size(), 0u);
  EXPECT_EQ(engine.deleteSet(), S_OK);
  EXPECT_EQ(engine.release(), 0u);
}

INSTANTIATE_TEST_SUITE_P(FileSystems, ExposedTree,
                         testing::Values(Case{"ext4_1k", "ext4", 96 << 20, {"-b", "1024"}},
                                         Case{"ext4_4k", "ext4", 96 << 20, {"-b", "4096"}},
                                         Case{"xfs", "xfs", 300 << 20, {}}),
                         [](const auto& instance) { return instance.param.name; });

}  // namespace
