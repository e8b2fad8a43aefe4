// SPDX-License-Identifier: Apache-2.0
//
// Change tracking and dumps, through the driver's interface of the shipped library.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <map>
#include <ostream>

#include "BlockDifference.h"
#include "DriverClient.h"
#include "LoopVolume.h"
#include "Tree.h"

namespace {

using test::DriverClient;
using test::Session;
using test::Volume;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

using Runs = std::vector<DriverClient::Run>;

DriverClient::Request tracked(const Volume& volume) {
  return {.device = volume.device(), .folder = volume.folder(), .tracked = true};
}
std::string nodeOf(const Volume& volume) { return "/dev/snap7_" + std::to_string(volume.loop().minor()); }
std::string numberOf(const Volume& volume) { return "7:" + std::to_string(volume.loop().minor()); }

// All that changed, read with room for `room` runs at a time.
Runs allChanges(DriverClient& client, const Volume& volume, unsigned int room) {
  Runs all;
  DriverClient::Changes part = client.changes(volume.device(), room);
  while (true) {
    EXPECT_EQ(part.result, 0u);
    all.insert(all.end(), part.runs.begin(), part.runs.end());
    if (part.result != 0 || part.type != 1) return all;
    EXPECT_EQ(part.runs.size(), room) << "more is to come, so the room is used";
    if (part.runs.empty()) return all;
    part = client.changes(volume.device(), room, 1, all.back().start + all.back().blocks);
  }
}

struct Kind {
  const char* name;
  const char* type;
  std::uint64_t bytes;
  std::vector<std::string> options;
  std::size_t blockSize;
};

void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }

class ChangedRuns : public testing::TestWithParam<Kind> {};

TEST_P(ChangedRuns, are_the_blocks_in_which_the_live_device_and_the_snapshot_differ) {
  const Volume volume(GetParam().type, GetParam().bytes, GetParam().options);
  test::plantTree(volume.folder());
  Session session;
  DriverClient client(session);
  ASSERT_EQ(client.snap({tracked(volume)}).result, 0);
  test::disturbTree(volume.folder());
  ASSERT_EQ(client.freeze({volume.device()}), 0u);
  const Runs compared =
      test::differingRuns(test::wholeOf(volume.device()), test::wholeOf(nodeOf(volume)), GetParam().blockSize);
  EXPECT_GT(compared.size(), 3u);
  EXPECT_EQ(client.changes(volume.device(), 1024).runs, compared);
  EXPECT_EQ(allChanges(client, volume, 3), compared) << "in pieces it is the same";
  ASSERT_EQ(client.thaw({volume.device()}), 0u);
  EXPECT_EQ(client.unsnap({volume.device()}), 0u);
}

INSTANTIATE_TEST_SUITE_P(FileSystems, ChangedRuns,
                         testing::Values(Kind{"ext4_of_1k_blocks", "ext4", 32 << 20, {"-b", "1024"}, 1024},
                                         Kind{"ext4_of_4k_blocks", "ext4", 64 << 20, {"-b", "4096"}, 4096},
                                         Kind{"xfs", "xfs", 300 << 20, {}, 4096}),
                         [](const testing::TestParamInfo<Kind>& kind) { return kind.param.name; });

TEST(ChangedRunsOfAnyNumber, are_all_read_in_pieces) {
  const Volume volume("ext4", 64 << 20, {"-b", "1024"});
  const std::string file = volume.folder() + "/file";
  test::writeFile(file, std::string(16 << 20, 'a'));
  Session session;
  DriverClient client(session);
  ASSERT_EQ(client.snap({tracked(volume)}).result, 0);
  const int opened = open(file.c_str(), O_WRONLY | O_CLOEXEC);
  for (off_t at = 0; at < 16 << 20; at += 4096) ASSERT_EQ(pwrite(opened, "b", 1, at), 1);
  close(opened);
  ASSERT_EQ(client.freeze({volume.device()}), 0u);
  const Runs compared = test::differingRuns(test::wholeOf(volume.device()), test::wholeOf(nodeOf(volume)), 1024);
  EXPECT_GT(compared.size(), 4000u);
  EXPECT_EQ(allChanges(client, volume, 1024), compared);
  client.thaw({volume.device()});
  EXPECT_EQ(client.unsnap({volume.device()}), 0u);
}

TEST(Tracking, starts_with_the_snap_that_asks_for_it_and_has_what_that_carried) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  DriverClient client(session);
  EXPECT_FALSE(client.isTracked(volume.device()));
  std::string last;
  for (const unsigned int round : {1u, 2u}) {
    ASSERT_EQ(client.snap({tracked(volume)}).result, 0);
    EXPECT_TRUE(client.isTracked(volume.device()));
    const DriverClient::TrackingVars vars = client.trackingVars(volume.device());
    EXPECT_EQ(vars.result, 0u);
    EXPECT_EQ(vars.guid, session.trace("snap").back()["volumes"][0]["tracking_guid"]);
    EXPECT_EQ(vars.guid.size(), 36u);
    EXPECT_NE(vars.guid, last);
    EXPECT_EQ(vars.sequenceNumber, round);
    last = vars.guid;
    EXPECT_EQ(client.unsnap({volume.device()}), 0u);
    EXPECT_FALSE(client.isTracked(volume.device())) << "it ends with the snapshot";
  }
}

TEST(Tracking, of_a_snapshot_that_does_not_ask_for_it_is_none) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  DriverClient client(session);
  ASSERT_EQ(client.snap({{.device = volume.device(), .folder = volume.folder()}}).result, 0);
  EXPECT_FALSE(client.isTracked(volume.device()));
  EXPECT_EQ(client.trackingVars(volume.device()).result, 6u);
  EXPECT_EQ(client.changes(volume.device(), 10).result, 6u);
  EXPECT_EQ(client.pushUsed(volume.device(), {{0, 1}}), 6u);
  EXPECT_EQ(session.takeComplaints(3).size(), 3u);
  EXPECT_EQ(client.unsnap({volume.device()}), 0u);
}

TEST(Tracking, is_stopped_for_several_volumes_at_once_and_their_snapshots_stay) {
  const Volume one("ext4", 32 << 20), two("ext4", 32 << 20);
  Session session;
  DriverClient client(session);
  ASSERT_EQ(client.snap({tracked(one), tracked(two)}).result, 0);
  EXPECT_EQ(client.stopTracking({one.device(), two.device()}), 0u);
  EXPECT_FALSE(client.isTracked(one.device()));
  EXPECT_FALSE(client.isTracked(two.device()));
  EXPECT_EQ(client.snapped().size(), 2u);
  EXPECT_EQ(client.unsnap({one.device(), two.device()}), 0u);
  EXPECT_EQ(client.stopTracking({one.device()}), 0u) << "what is not snapped is not tracked either";
  EXPECT_THAT(session.takeComplaints(1), ElementsAre(HasSubstr("the volume " + numberOf(one) + " is not snapped")));
}

TEST(Tracking, fills_no_more_than_a_small_array_holds_and_says_that_more_follow) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  DriverClient client(session);
  ASSERT_EQ(client.snap({tracked(volume)}).result, 0);
  test::plantTree(volume.folder());
  ASSERT_EQ(client.freeze({volume.device()}), 0u);
  const Runs all = client.changes(volume.device(), 1024).runs;
  ASSERT_GT(all.size(), 2u);
  const DriverClient::Changes two = client.changes(volume.device(), 2);
  EXPECT_EQ(two.result, 0u);
  EXPECT_EQ(two.type, 1u);
  EXPECT_EQ(two.runs, (Runs{all[0], all[1]}));
  const DriverClient::Changes none = client.changes(volume.device(), 0);
  EXPECT_EQ(none.result, 0u);
  EXPECT_EQ(none.type, 1u);
  EXPECT_TRUE(none.runs.empty());
  EXPECT_EQ(client.changes(volume.device(), 1025).result, 15u);
  client.thaw({volume.device()});
  EXPECT_EQ(client.unsnap({volume.device()}), 0u);
}

TEST(Tracking, outlives_its_maker_and_goes_with_the_snapshot_when_that_is_reconciled) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  DriverClient maker(session), reader(session);
  ASSERT_EQ(maker.snap({tracked(volume)}).result, 0);
  maker.kill();
  EXPECT_TRUE(reader.isTracked(volume.device()));
  EXPECT_EQ(reader.changes(volume.device(), 1024).result, 0u);
  EXPECT_EQ(reader.reconcile(), 0u);
  EXPECT_FALSE(reader.isTracked(volume.device()));
}

// ---- dumps

TEST(Dump, tells_what_the_driver_holds_and_whose_it_is) {
  const Volume volume("ext4", 32 << 20), other("ext4", 32 << 20);
  const test::TempDir folder;
  const std::string file = folder / "state";
  Session session;
  DriverClient maker(session), reader(session);
  const DriverClient::Snapped snapped = maker.snap({tracked(volume)});
  ASSERT_EQ(snapped.result, 0);
  const DriverClient::TrackingVars vars = maker.trackingVars(volume.device());
  ASSERT_EQ(reader.freeze({other.device()}), 0u);
  ASSERT_EQ(reader.pushUsed(volume.device(), {{0, 1}, {5, 2}}), 0u);

  ASSERT_EQ(reader.dumpState(file), 0u);
  std::string state = test::readFile(file);
  const std::string owner = "process " + std::to_string(maker.id());
  EXPECT_THAT(state, HasSubstr("\nsnapped volumes: 1\n  " + numberOf(volume) + " " + volume.device() + ": "));
  EXPECT_THAT(state, HasSubstr(", of " + owner + ", relocation file " + snapped.relocationFiles[0] + " of " +
                               std::to_string(snapped.relocationBlocks[0]) + " blocks on " + numberOf(volume) +
                               ", snapshot " + nodeOf(volume) + "\n"));
  EXPECT_THAT(state, HasSubstr("\nmappings: 1\n  " + volume.device() + ": " + snapped.relocationFiles[0] + ", of " +
                               owner + "\n"));
  EXPECT_THAT(state, HasSubstr("\nfrozen volumes: 1\n  " + numberOf(other) + "\n"));
  EXPECT_THAT(state, HasSubstr("\ntracked volumes: 1\n  " + numberOf(volume) + ": " + vars.guid +
                               ", sequence number 1, 2 runs in use\n"));

  maker.kill();
  reader.thaw({other.device()});
  ASSERT_EQ(reader.dumpState(file), 0u);
  state = test::readFile(file);
  EXPECT_THAT(state, HasSubstr(", of " + owner + " (gone), relocation file "));
  EXPECT_THAT(state, HasSubstr("\nfrozen volumes: 0\n"));
  EXPECT_EQ(reader.reconcile(), 0u);
}

TEST(Dump, into_a_frozen_volume_is_refused_and_a_name_that_is_too_long_never_sent) {
  const Volume volume("ext4", 32 << 20);
  Session session;
  DriverClient client(session);
  ASSERT_EQ(client.freeze({volume.device()}), 0u);
  EXPECT_EQ(client.dumpState(volume.folder() + "/state"), 6u);
  EXPECT_THAT(session.takeComplaints(1), ElementsAre(HasSubstr("lies on the volume " + numberOf(volume))));
  ASSERT_EQ(client.thaw({volume.device()}), 0u);
  const std::size_t before = session.trace("dump-state").size();
  EXPECT_EQ(client.dumpState("/" + std::string(256, 'n')), 3u);
  EXPECT_EQ(session.trace("dump-state").size(), before);
  EXPECT_EQ(client.dumpState(volume.folder() + "/state"), 0u);
  EXPECT_THAT(test::readFile(volume.folder() + "/state"), HasSubstr("frozen volumes: 0\n"));
}

TEST(Dump, without_a_file_goes_to_where_the_driver_tells_things) {
  Session session;
  DriverClient client(session);
  EXPECT_EQ(client.dumpState(""), 0u);
  EXPECT_THAT(session.takeComplaints(6),
              testing::IsSupersetOf({HasSubstr("snapped volumes: 0"), HasSubstr("tracked volumes: 0")}));
}

TEST(LogLevel, of_7_and_above_has_the_driver_tell_what_went_well_too) {
  Session session;
  DriverClient client(session);
  EXPECT_EQ(client.setLogLevel(7), 0u);
  client.version();
  const std::string from = " from process " + std::to_string(client.id()) + " done";
  EXPECT_THAT(session.takeComplaints(2), ElementsAre(HasSubstr("set-log-level" + from), HasSubstr("version" + from)));
  EXPECT_EQ(client.setLogLevel(3), 0u);
  EXPECT_EQ(client.setLogLevel(8), 0u);
  EXPECT_THAT(session.takeComplaints(1), ElementsAre(HasSubstr("set-log-level" + from)));
  EXPECT_EQ(client.setLogLevel(3), 0u);
}

}  // namespace
