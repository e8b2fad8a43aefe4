// SPDX-License-Identifier: Apache-2.0
//
// `mirelsnap plan`: what it says is what a run then does, and it leaves no trace.
#include <sys/mount.h>

#include <filesystem>

#include "NamedVolume.h"
#include "Verbs.h"

namespace fs = std::filesystem;

namespace {

using test::document;
using test::Ended;
using test::expectFailure;
using test::Json;
using test::Session;
using test::Texts;
using test::verb;
using test::Volume;

class Plan : public testing::Test {
 protected:
  // The plan of a set, after a run has proved it. Nothing was made for it.
  Json proved(const Texts& volumes) {
    Texts arguments = {"plan"};
    arguments.insert(arguments.end(), volumes.begin(), volumes.end());
    const Json planned = document(session, arguments)["volumes"];
    EXPECT_TRUE(session.trace("create-mapping").empty());
    EXPECT_TRUE(session.trace("snap").empty());
    arguments = {"run"};
    for (const std::string& volume : volumes) arguments.insert(arguments.end(), {"--volume", volume});
    arguments.insert(arguments.end(), {"--", "/bin/true"});
    const Ended ended = verb(session, arguments);
    EXPECT_EQ(ended.code, 0) << ended.errors;
    const Json made = session.trace("snap").at(0)["volumes"];
    EXPECT_EQ(made.size(), planned.size());
    for (std::size_t i = 0; i < std::min(made.size(), planned.size()); ++i) {
      EXPECT_EQ(planned[i]["relocation_file"]["path"], made[i]["relocation_file"]);
      EXPECT_EQ(planned[i]["relocation_file"]["blocks"], made[i]["relocation_blocks"]);
    }
    return planned;
  }

  Session session;
};

TEST_F(Plan, of_volumes_with_room_keeps_each_file_on_its_own) {
  const Volume first("ext4", 32 << 20);
  const Volume second("xfs", 300 << 20);
  const Json planned = proved({first.device(), second.folder()});
  EXPECT_EQ(planned[0]["device"], first.device());
  EXPECT_EQ(planned[0]["size"], 32 << 20);
  const Json& file = planned[0]["relocation_file"];
  EXPECT_EQ(file["on_volume_itself"], true);
  EXPECT_EQ(file["size"].get<int>(), file["blocks"].get<int>() * file["block_size"].get<int>());
  EXPECT_EQ(file["file_system"], (Json{{"mount_point", first.folder()}, {"device", first.device()}, {"type", "ext4"}}));
  EXPECT_EQ(file["why_there"], "it stays on the volume itself");
  EXPECT_EQ(file["why_this_size"], "a tenth of the space free there");
  EXPECT_EQ(file["cost"], "allocated at once");
  EXPECT_EQ(file["bytes_written"], 0);
  const Json& onXfs = planned[1]["relocation_file"];
  EXPECT_EQ(onXfs["bytes_written"], onXfs["size"]);
}

TEST_F(Plan, reads_well) {
  const Volume volume("ext4", 32 << 20);
  const Volume place("ext4", 32 << 20);
  const Ended ended = verb(session, {"plan", volume.device(), "--reloc-mount", place.folder(), "--reloc-size", "1024"});
  const std::string name = volume.device().substr(5);
  const Json file = document(session, {"plan", volume.device(), "--reloc-mount", place.folder(), "--reloc-size",
                                       "1024"})["volumes"][0]["relocation_file"];
  const int block = file["block_size"];
  test::expectText(ended, volume.device() + " on " + volume.folder() +
                              " (ext4, 32.0 MiB)\n"
                              "  relocation file  " +
                              place.folder() + "/.verrelocarea/" + name + "\n  size             " +
                              std::to_string(block / 1024) + ".0 MiB (" + std::to_string(1024 * block) +
                              " bytes: 1024 blocks of " + std::to_string(block) +
                              "): --reloc-size says so\n"
                              "  on               " +
                              place.folder() + " (ext4, " + place.device() +
                              "): --reloc-mount says so\n"
                              "  cost             allocated at once\n\n");
}

TEST_F(Plan, tells_what_is_written_out_and_where_it_would_take_no_time) {
  const Volume volume("ext4", 32 << 20, {"-b", "4096"});
  for (const char* type : {"xfs", "ext2", "ext3"}) {
    const Volume place(type, 300 << 20);
    const Ended ended =
        verb(session, {"plan", volume.device(), "--reloc-mount", place.folder(), "--reloc-size", "1024"});
    EXPECT_NE(ended.output.find("  cost             written out: 4.0 MiB, " + std::string(type) +
                                "; a place on ext4 takes no time (--reloc-mount and --reloc-size)\n"),
              std::string::npos)
        << ended.output;
  }
}

TEST_F(Plan, of_a_full_volume_goes_to_the_roomiest_other) {
  const Volume full("ext4", 32 << 20);
  const Volume small("ext4", 32 << 20);
  const Volume roomy("ext4", 64 << 20);
  test::fillVolume(full.folder(), 92);
  const Json file = proved({full.device()})[0]["relocation_file"];
  EXPECT_EQ(file["file_system"]["device"], roomy.device());
  EXPECT_EQ(file["why_there"],
            "the volume is nine tenths full; this file system has the most space free of the others");
}

TEST_F(Plan, of_a_full_volume_without_a_roomier_one_stays) {
  const Volume full("ext4", 32 << 20);
  test::fillVolume(full.folder(), 92);
  EXPECT_EQ(proved({full.device()})[0]["relocation_file"]["why_there"],
            "the volume is nine tenths full, but no other file system has more space free");
}

TEST_F(Plan, of_two_read_only_volumes_that_share_a_place_sees_the_file_of_the_first) {
  const Volume first("ext4", 500 << 20);
  const Volume second("ext4", 500 << 20);
  const Volume place("ext4", 64 << 20);
  for (const Volume* volume : {&first, &second})
    ASSERT_EQ(mount(nullptr, volume->folder().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  const Json planned = document(session, {"plan", first.device(), second.device()})["volumes"];
  const Json& one = planned[0]["relocation_file"];
  const Json& two = planned[1]["relocation_file"];
  EXPECT_EQ(one["file_system"]["device"], place.device());
  EXPECT_EQ(two["file_system"]["device"], place.device());
  EXPECT_EQ(one["why_there"],
            "nothing can be written to the volume; this file system has the most space free of the others");
  EXPECT_LT(two["blocks"], one["blocks"]) << "a tenth of what is left";
  const Json& passedOver = two["passed_over"];
  EXPECT_NE(std::find(passedOver.begin(), passedOver.end(), first.folder() + " (cannot be written)"), passedOver.end());
  EXPECT_FALSE(fs::exists(place.folder() + "/.verrelocarea"));
}

TEST_F(Plan, without_a_place_fails_as_a_run_would) {
  const Volume volume("ext4", 32 << 20);
  ASSERT_EQ(mount(nullptr, volume.folder().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  const Ended ended = verb(session, {"plan", volume.device()});
  EXPECT_EQ(ended.output,
            volume.device() + " on " + volume.folder() + " (ext4, 32.0 MiB)\n  relocation file  none\n\n");
  expectFailure(ended, 115,
                volume.device() +
                    ": no mounted file system has room for its relocation file (nothing can be written to the volume); "
                    "free some space or name a place with --reloc-mount and --reloc-size");
}

TEST_F(Plan, of_a_device_whose_size_cannot_be_read_says_why) {
  const Volume volume("ext4", 32 << 20);
  fs::rename(volume.device(), "/dev/moved");
  const Ended ended = verb(session, {"plan", volume.folder()});
  const Json planned = document(session, {"plan", volume.folder()})["volumes"][0];
  fs::rename("/dev/moved", volume.device());
  EXPECT_EQ(ended.output,
            volume.device() + " on " + volume.folder() + " (ext4, size unknown)\n  relocation file  none\n\n");
  expectFailure(ended, 113, volume.device() + ": its size cannot be read: No such file or directory; check the device");
  EXPECT_EQ(planned["size"], nullptr);
  EXPECT_EQ(planned["relocation_file"], nullptr);
}

TEST_F(Plan, of_names_that_a_run_cannot_use_fails_as_a_run_would) {
  const test::NamedVolume device(
      "/dev/gr\xc3\xbc\xc3\x9f"
      "e");
  const test::NamedVolume folder("/dev/plain", "latin-\xe9");
  const test::NamedVolume place("/dev/place",
                                "gr\xc3\xb6\xc3\x9f"
                                "e");
  const auto sameFailure = [&](const Texts& volume, int code) {
    Texts planning = {"plan"}, running = {"run"};
    planning.insert(planning.end(), volume.begin(), volume.end());
    running.insert(running.end(), volume.begin(), volume.end());
    running[1] = "--volume=" + volume[0];
    running.insert(running.end(), {"--", "/bin/true"});
    const Ended planned = verb(session, planning);
    const Ended ran = verb(session, running);
    EXPECT_EQ(planned.code, code);
    EXPECT_EQ(ran.code, code);
    EXPECT_EQ(planned.errors, ran.errors);
    return planned.output;
  };
  const std::string none = " (ext4, 32.0 MiB)\n  relocation file  none\n\n";
  EXPECT_EQ(sameFailure({device.device()}, 113), device.device() + " on " + device.folder() + none);
  EXPECT_EQ(sameFailure({"/dev/plain"}, 113),
            "/dev/plain on " + fs::path(folder.folder()).parent_path().string() + "/latin-\\xe9" + none);
  EXPECT_EQ(sameFailure({"/dev/place", "--reloc-mount", place.folder(), "--reloc-size", "100"}, 115), "");
}

TEST_F(Plan, of_a_place_that_cannot_be_used_says_why) {
  const Volume volume("ext4", 32 << 20);
  const Volume place("ext4", 32 << 20);
  const auto refused = [&](const std::string& where, const std::string& blocks, const std::string& why) {
    expectFailure(verb(session, {"plan", volume.device(), "--reloc-mount", where, "--reloc-size", blocks}), 115,
                  where + ": cannot hold a relocation file of " + blocks + " blocks for " + volume.device() + ": " +
                      why + "; name another --reloc-mount or a smaller --reloc-size");
  };
  refused("/nothing", "10", "there is no such directory");
  refused("/mnt", "10", "it is not the mount point of a block device");
  refused(place.folder(), "1000000", "not enough space is free there");
  test::DriverClient driver(session);
  ASSERT_EQ(driver.freeze({place.device()}), 0u);
  refused(place.folder(), "10", "that volume is frozen");
  ASSERT_EQ(driver.thaw({place.device()}), 0u);
  ASSERT_EQ(mount(nullptr, place.folder().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  refused(place.folder(), "10", "nothing can be written there");
}

TEST_F(Plan, of_a_snapped_or_frozen_volume_is_114) {
  const Volume snapped("ext4", 32 << 20);
  const Volume frozen("ext4", 32 << 20);
  test::DriverClient driver(session);
  ASSERT_EQ(driver.snap({{.device = snapped.device(), .folder = snapped.folder()}}).result, 0);
  ASSERT_EQ(driver.freeze({frozen.device()}), 0u);
  expectFailure(verb(session, {"plan", snapped.device()}), 114,
                snapped.device() + ": is already snapped by process " + std::to_string(driver.id()) +
                    " (driver_client); wait until that snapshot is deleted");
  expectFailure(verb(session, {"plan", frozen.device()}), 114, frozen.device() + ": is frozen; thaw it first");
  ASSERT_EQ(driver.thaw({frozen.device()}), 0u);
  ASSERT_EQ(driver.unsnap({snapped.device()}), 0u);
}

// MemFree 96 kB are 12 pages that the driver may use: 4096 entries, a block each.
TEST_F(Plan, of_a_machine_short_of_memory_is_capped) {
  const Volume volume("ext4", 500 << 20);
  const test::TempDir dir;
  test::writeFile(dir / "meminfo", "MemTotal: 100000 kB\nMemFree: 96 kB\nCached: 0 kB\nAnonPages: 0 kB\n");
  const Ended ended =
      session.shell("unshare -m --propagation private sh -c 'mount --bind " + (dir / "meminfo") +
                    " /proc/meminfo && exec " + MIRELSNAP_PROGRAM + " plan --json " + volume.device() + "'");
  EXPECT_EQ(ended.code, 0) << ended.errors;
  const Json file = Json::parse(ended.output)["volumes"][0]["relocation_file"];
  EXPECT_EQ(file["blocks"], 4096);
  EXPECT_EQ(file["why_this_size"], "capped by memory: the driver can hold 4096 blocks for the whole set");
}

TEST(PlanWithoutDriver, still_plans_and_is_112) {
  const Volume volume("ext4", 32 << 20);
  Session session = Session::withoutDriver();
  const Ended ended = verb(session, {"plan", volume.device()});
  EXPECT_NE(ended.output.find("\n  relocation file  " + volume.folder() + "/.verrelocarea/"), std::string::npos);
  expectFailure(ended, 112,
                "/dev/mirelsnapctl: the driver (module mirelsnap) is not loaded and could not be loaded; install it, "
                "or try it without: mirelsnap-emulator -- mirelsnap run ...");
}

}  // namespace
