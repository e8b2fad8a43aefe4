// SPDX-License-Identifier: Apache-2.0
//
// Dumps of the state.
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "DriverFixture.h"

namespace {

struct StateDump : DriverTest {
  const test::LoopDevice loop{kVolumeBytes};
};

TEST_F(StateDump, a_dump_of_nothing_tells_so) {
  EXPECT_EQ(dump(),
            "version: version 1\n"
            "log level: 3\n"
            "snapped volumes: 0\n"
            "mappings: 0\n"
            "frozen volumes: 0\n"
            "tracked volumes: 0\n");
}

TEST_F(StateDump, a_dump_tells_volumes_mappings_freezes_trackings_and_their_owners) {
  snapTracked(loop);
  const test::LoopDevice frozen(kVolumeBytes);
  ASSERT_EQ(error(IOC_FREEZE, test::volumeListCommand({deviceOf(frozen)})), 0);
  ASSERT_EQ(error(IOC_SET_LOG_LEVEL, test::logLevelCommand(6)), 0);
  ASSERT_EQ(error(IOC_CREATE_RELOC_FILE_MAPPING, test::createMappingCommand(2000000000, "/dev/dead", "/r/dead")), 0);
  const std::string minor = std::to_string(loop.minor());
  const std::string owner = std::to_string(getpid());
  const std::string reloc = files / ("reloc" + minor);
  EXPECT_EQ(dump(),
            "version: version 1\n"
            "log level: 6\n"
            "snapped volumes: 1\n"
            "  7:" +
                minor + " " + loop.path() + ": 2048 blocks of 4096 bytes, of process " + owner + ", relocation file " +
                reloc + " of 4 blocks on 0:0, snapshot /dev/snap7_" + minor +
                "\n"
                "mappings: 2\n"
                "  " +
                loop.path() + ": " + reloc + ", of process " + owner +
                "\n"
                "  /dev/dead: /r/dead, of process 2000000000 (gone)\n"
                "frozen volumes: 1\n"
                "  7:" +
                std::to_string(frozen.minor()) +
                "\n"
                "tracked volumes: 1\n"
                "  7:" +
                minor + ": " + kGuid + ", sequence number 1, 0 runs in use\n");
}

TEST_F(StateDump, a_dump_makes_its_file_for_its_owner_alone_and_replaces_what_was_in_it) {
  const std::string file = files / "state";
  EXPECT_EQ(error(IOC_DUMP_STATE, test::dumpStateCommand(file)), 0);
  struct stat found;
  ASSERT_EQ(stat(file.c_str(), &found), 0);
  EXPECT_EQ(found.st_mode, S_IFREG | 0600u);
  test::writeFile(file, std::string(100000, 'x'));
  EXPECT_EQ(error(IOC_DUMP_STATE, test::dumpStateCommand(file)), 0);
  EXPECT_TRUE(test::readFile(file).starts_with("version: version 1\n"));
  EXPECT_TRUE(test::readFile(file).ends_with("tracked volumes: 0\n"));
}

TEST_F(StateDump, a_dump_goes_into_no_folder_pipe_or_missing_place) {
  EXPECT_EQ(error(IOC_DUMP_STATE, test::dumpStateCommand(files.path())), EINVAL);
  const std::string pipe = files / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(error(IOC_DUMP_STATE, test::dumpStateCommand(pipe)), EINVAL);
  EXPECT_EQ(error(IOC_DUMP_STATE, test::dumpStateCommand(files / "no/such/file")), ENOENT);
}

// Whoever writes there waits for the thaw, which no other command could bring.
TEST_F(StateDump, a_dump_onto_a_frozen_volume_is_refused) {
  const test::Volume outer("ext4", 32 << 20);
  const test::Volume inner("ext4", kVolumeBytes, {}, outer.folder());
  test::writeFile(outer.folder() + "/old", "old");
  ASSERT_EQ(error(IOC_FREEZE, test::volumeListCommand({deviceOf(outer.loop()), deviceOf(inner.loop())})), 0);
  for (const std::string& file : {outer.folder() + "/new", outer.folder() + "/old", inner.folder() + "/new"}) {
    EXPECT_EQ(error(IOC_DUMP_STATE, test::dumpStateCommand(file)), EDEADLK) << file;
  }
  driver->thawAll();
  EXPECT_EQ(test::readFile(outer.folder() + "/old"), "old");
  EXPECT_EQ(error(IOC_DUMP_STATE, test::dumpStateCommand(outer.folder() + "/new")), 0);
}

TEST_F(StateDump, a_dump_into_the_log_writes_no_file) { EXPECT_EQ(error(IOC_DUMP_STATE, test::dumpStateCommand()), 0); }

}  // namespace
