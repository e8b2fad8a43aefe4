// SPDX-License-Identifier: Apache-2.0
//
// Several volumes in one set stand at one instant, while a writer goes on.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Agent.h"
#include "AlternatingWriter.h"
#include "Base.h"
#include "Tree.h"

namespace {

using test::Agent;
using test::AlternatingWriter;
using test::Base;
using test::Engine;
using test::Session;
using test::Volume;

TEST(OneInstant, holds_for_ext4_and_xfs_of_one_set_while_a_writer_alternates_between_them) {
  const Volume ext4("ext4", 64 << 20, {"-b", "4096"});
  const Volume xfs("xfs", 300 << 20);
  const Base base({ext4.folder(), xfs.folder()});
  Session session;
  Agent agent(session);
  const AlternatingWriter writer({ext4.folder(), xfs.folder()});
  for (int round = 0; round < 4; ++round) {
    writer.waitForSteps(100);
    Engine engine = agent.openedSet({&ext4, &xfs});
    ASSERT_EQ(engine.snap(), 0);
    writer.waitForSteps(100);
    ASSERT_EQ(engine.expose(base.path()), S_OK);
    EXPECT_TRUE(AlternatingWriter::standAtOneInstant({base.at(ext4.folder()), base.at(xfs.folder())}));
    EXPECT_GT(AlternatingWriter::valueIn(xfs.folder()), AlternatingWriter::valueIn(base.at(xfs.folder())))
        << "the live files do not move on";
    engine.unexpose();
    EXPECT_EQ(engine.deleteSet(), S_OK);
    EXPECT_EQ(engine.release(), 0u);
    EXPECT_EQ(session.trace("snap").size(), static_cast<std::size_t>(round) + 1) << "one command for both";
  }
}

TEST(OneSet, of_ext4_and_xfs_shows_both_trees_as_they_were) {
  const Volume ext4("ext4", 64 << 20, {"-b", "1024"});
  const Volume xfs("xfs", 300 << 20);
  for (const Volume* volume : {&ext4, &xfs}) test::plantTree(volume->folder());
  const test::Tree ext4Instant(ext4.folder());
  const test::Tree xfsInstant(xfs.folder());
  const Base base({ext4.folder(), xfs.folder()});
  Session session;
  Agent agent(session);
  Engine engine = agent.openedSet({&ext4, &xfs});
  ASSERT_EQ(engine.snap(), 0);
  for (const Volume* volume : {&ext4, &xfs}) test::disturbTree(volume->folder());
  ASSERT_EQ(engine.expose(base.path()), S_OK);
  EXPECT_EQ(test::Tree(base.at(ext4.folder())).difference(ext4Instant), "");
  EXPECT_EQ(test::Tree(base.at(xfs.folder())).difference(xfsInstant), "");

  const test::Json first = engine.properties(0);
  const test::Json second = engine.properties(1);
  EXPECT_EQ(first["set"], engine.set());
  EXPECT_EQ(second["set"], engine.set());
  EXPECT_EQ(first["count"], 2);
  EXPECT_EQ(first["volume"], ext4.device());
  EXPECT_EQ(second["mount_points"], test::Json::array({xfs.folder()}));
  EXPECT_EQ(first["device"], "/dev/snap7_" + std::to_string(ext4.loop().minor()));
  EXPECT_EQ(second["device"], "/dev/snap7_" + std::to_string(xfs.loop().minor()));
  const auto name = [](const Volume& volume) { return volume.device().substr(sizeof("/dev/") - 1); };
  EXPECT_EQ(first["relocation_file"], ext4.folder() + "/.verrelocarea/" + name(ext4));
  EXPECT_EQ(second["relocation_file"], xfs.folder() + "/.verrelocarea/" + name(xfs));

  engine.unexpose();
  EXPECT_EQ(engine.deleteSet(), S_OK);
  engine.release();
}

// The xfs snapshot shares its UUID with the mounted live volume, and its log needs no replay.
TEST(Snapshot, of_xfs_is_mounted_without_uuid_check_and_recovery) {
  const Volume xfs("xfs", 300 << 20);
  const Base base({xfs.folder()});
  Session session;
  Agent agent(session);
  Engine engine = agent.openedSet({&xfs});
  ASSERT_EQ(engine.snap(), 0);
  agent.messages();
  ASSERT_EQ(engine.expose(base.path()), S_OK);
  EXPECT_EQ(agent.messages(),
            std::vector<std::string>{"DoMount: mount( \"/dev/snap7_" + std::to_string(xfs.loop().minor()) + "\", \"" +
                                     base.at(xfs.folder()) +
                                     "\", \"xfs\", MS_MGC_VAL | MS_RDONLY, \"nouuid,norecovery\" ) SUCCEEDED!"});
  EXPECT_EQ(open((base.at(xfs.folder()) + "/new").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), -1);
  EXPECT_EQ(errno, EROFS);
  engine.unexpose();
  EXPECT_EQ(engine.deleteSet(), S_OK);
  engine.release();
}

}  // namespace
