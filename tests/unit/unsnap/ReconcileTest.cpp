// SPDX-License-Identifier: Apache-2.0
//
// Repairing what processes left that died while they held snapshots.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>

#include "Hooks.h"
#include "LogCapture.h"
#include "LoopVolume.h"
#include "ScriptedDriver.h"
#include "World.h"
#include "base/Causes.h"
#include "driver/ControlDevice.h"
#include "driver/DriverLock.h"
#include "driver/LinuxSnapLib.h"
#include "driver/LinuxSnapLibUtil.h"
#include "interpose/Allocations.h"

namespace fs = std::filesystem;
using test::DriverCall;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;

namespace {

// The id of a process that was and is no more.
pid_t deadProcess() {
  static const pid_t dead = [] {
    const pid_t child = fork();
    if (child == 0) _exit(0);
    waitpid(child, nullptr, 0);
    return child;
  }();
  return dead;
}

struct Snapshot {
  unsigned int majorNum, minorNum;
  pid_t owner;
  std::string volume, relocFile;
};

struct Mapping {
  pid_t owner;
  std::string volume, relocFile;
};

// A driver that holds snapshots and mappings, and drops what it is told to.
class Reconcile : public testing::Test {
 protected:
  Reconcile()
      : volume("ext4", 8 << 20),
        mounts("mounts", line(volume.device(), volume.folder())),
        instance(SnapDriverInterface::Instance()) {
    fs::create_directory(area());
    log.openMask();
    driver.on(IOC_GET_NUM_OF_SNAPPED_VOLUMES, [this](std::byte* buffer, std::size_t) {
      ++counted;
      if (beforeCount) beforeCount();
      return answerCount(buffer, snapshots.size());
    });
    driver.on(IOC_GET_SNAPPED_VOL_DETAILS, [this](std::byte* buffer, std::size_t) { return listSnapshots(buffer); });
    driver.on(IOC_GET_NUM_OF_RELOC_FILE_MAPPING,
              [this](std::byte* buffer, std::size_t) { return answerCount(buffer, mappings.size()); });
    driver.on(IOC_GET_RELOC_FILE_MAPPING, [this](std::byte* buffer, std::size_t) { return listMappings(buffer); });
    driver.on(IOC_DELETE_RELOC_FILE_MAPPING, [this](std::byte* buffer, std::size_t) { return dropMapping(buffer); });
    driver.on(IOC_SNAP_DISCARD,
              [this](std::byte* buffer, std::size_t length) { return discard(buffer, (length - 27) / 1040); });
  }
  ~Reconcile() override {
    test::unsignallable = 0;
    SnapDriverInterface::releaseInstance();
  }

  // A line of the mount table.
  static std::string line(const std::string& device, const std::string& folder) {
    return device + " " + folder + " ext4 rw 0 0\n";
  }
  std::string area() const { return volume.folder() + "/.verrelocarea"; }
  // Makes a relocation file; its path.
  std::string makeFile(const std::string& name) {
    test::writeFile(area() + "/" + name, "");
    return area() + "/" + name;
  }
  // The `n`-th time that the number of snapped volumes is asked for the driver fails.
  void failCount(int n) {
    driver.on(IOC_GET_NUM_OF_SNAPPED_VOLUMES, [this, n](std::byte* buffer, std::size_t) {
      return ++counted == n ? EIO : answerCount(buffer, snapshots.size());
    });
  }
  unsigned int reconcile() { return instance->ReconcileAndCleanup(); }
  std::vector<unsigned long> requests() const {
    std::vector<unsigned long> all;
    for (const DriverCall& call : driver.calls()) all.push_back(call.request);
    return all;
  }

  static int answerCount(std::byte* buffer, std::size_t count) {
    reinterpret_cast<_ioctlCmd*>(buffer)->requestValue = static_cast<std::uint32_t>(count);
    return 0;
  }
  int listSnapshots(std::byte* buffer) {
    auto* entry = reinterpret_cast<SnappedVolumeEntry*>(buffer + 24);
    for (const Snapshot& snapshot : snapshots) {
      entry->majorNum = snapshot.majorNum;
      entry->minorNum = snapshot.minorNum;
      entry->appPid = snapshot.owner;
      snapshot.volume.copy(entry->snappedVolumeName, 1023);
      snapshot.relocFile.copy(entry->relocFileName, 1023);
      ++entry;
    }
    return 0;
  }
  int listMappings(std::byte* buffer) {
    auto* header = reinterpret_cast<_ioctlCmd*>(buffer);
    header->requestValue = std::min(header->requestValue, static_cast<std::uint32_t>(mappings.size()));
    auto* entry = reinterpret_cast<RelocFileMappingEntry*>(buffer + 24);
    for (const Mapping& mapping : std::span(mappings).first(header->requestValue)) {
      entry->appPid = mapping.owner;
      mapping.volume.copy(entry->snappedVolumeName, 1023);
      mapping.relocFile.copy(entry->relocFileName, 1023);
      ++entry;
    }
    return 0;
  }
  int dropMapping(std::byte* buffer) {
    const auto* entry = reinterpret_cast<RelocFileMappingEntry*>(buffer + 24);
    std::erase_if(mappings, [&](const Mapping& mapping) {
      return mapping.owner == entry->appPid && mapping.volume == entry->snappedVolumeName;
    });
    return 0;
  }
  int discard(std::byte* buffer, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      auto& entry = *reinterpret_cast<DiscardEntry*>(buffer + 24 + i * sizeof(DiscardEntry));
      const auto found = std::find_if(snapshots.begin(), snapshots.end(), [&](const Snapshot& snapshot) {
        return snapshot.majorNum == entry.majorNum && snapshot.minorNum == entry.minorNum;
      });
      if (found == snapshots.end()) {
        entry.result = 1;
        continue;
      }
      found->relocFile.copy(entry.relocFileName, 1023);
      snapshots.erase(found);
    }
    return 0;
  }

  test::LogCapture log;
  test::ScriptedDriver driver;
  test::Volume volume;
  test::ProcFile mounts;
  SnapDriverInterface* instance;
  std::vector<Snapshot> snapshots;
  std::vector<Mapping> mappings;
  int counted = 0;  // how often the number of snapped volumes was asked for
  std::function<void()> beforeCount;
};

}  // namespace

TEST_F(Reconcile, without_snapshots_and_mappings_every_relocation_file_goes_and_the_driver_verifies) {
  const std::string one = makeFile("sdb1");
  const std::string two = makeFile("sdc1");
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_FALSE(fs::exists(area()));
  EXPECT_THAT(log.texts(LOG_INFO),
              testing::UnorderedElementsAre("Found 0 relocation files.\n", "Reloc File List contains: 2 files.\n",
                                            "RelocFile " + one + " deleted.\n", "RelocFile " + two + " deleted.\n"));
  EXPECT_THAT(log.texts(LOG_DEBUG), IsSupersetOf({"Relocation File to be deleted: " + one + ".\n",
                                                  "Relocation File to be deleted: " + two + ".\n"}));
  for (const test::LogLine& line : log.lines()) EXPECT_FALSE(line.text.starts_with("Deleted directory"));
  // Before each removal the driver is asked again who uses the file.
  EXPECT_THAT(requests(), ElementsAre(IOC_GET_NUM_OF_SNAPPED_VOLUMES, IOC_GET_NUM_OF_RELOC_FILE_MAPPING,
                                      IOC_GET_NUM_OF_SNAPPED_VOLUMES, IOC_GET_NUM_OF_RELOC_FILE_MAPPING,
                                      IOC_GET_NUM_OF_SNAPPED_VOLUMES, IOC_GET_NUM_OF_RELOC_FILE_MAPPING,
                                      IOC_GET_NUM_OF_SNAPPED_VOLUMES, IOC_VERIFY_AND_CLEAN_VOLUMES));
}

TEST_F(Reconcile, the_verify_command_is_28_bytes_of_header_and_a_zero_byte) {
  EXPECT_EQ(reconcile(), 0u);
  const DriverCall command = driver.calls(IOC_VERIFY_AND_CLEAN_VOLUMES).at(0);
  EXPECT_EQ(command.request, 0xC01C5319UL);
  ASSERT_EQ(command.sent.size(), 28u);
  EXPECT_EQ(command.get<std::uint32_t>(4), 0u);
  EXPECT_EQ((command.get<std::uint32_t>(8) % 12 + 1234) % 20, command.get<std::uint32_t>(12));
  EXPECT_EQ(command.get<std::uint32_t>(16), 28u);
  EXPECT_EQ(command.get<char>(24), 0);
}

TEST_F(Reconcile, an_unreachable_driver_gives_3_before_anything_is_touched) {
  const std::string orphan = makeFile("sdb1");
  driver.fail(IOC_GET_NUM_OF_SNAPPED_VOLUMES, EIO);
  EXPECT_EQ(reconcile(), 3u);
  EXPECT_EQ(log.texts(LOG_ERR).back(), "Unable to obtain the snapped volume details.\n");
  EXPECT_TRUE(fs::exists(orphan));
  EXPECT_THAT(requests(), ElementsAre(IOC_GET_NUM_OF_SNAPPED_VOLUMES));
  EXPECT_THAT(log.texts(LOG_INFO), IsEmpty());
}

TEST_F(Reconcile, snapshots_of_dead_processes_are_discarded_by_one_command_without_the_flag) {
  const std::string dead = makeFile("dead");
  const std::string alive = makeFile("alive");
  snapshots = {{8, 1, deadProcess(), "/dev/sda1", dead},
               {8, 2, getpid(), "/dev/sda2", alive},
               {8, 3, deadProcess(), "/dev/sda3", area() + "/vanished"}};
  EXPECT_EQ(reconcile(), 0u);
  const std::vector<DriverCall> discards = driver.calls(IOC_SNAP_DISCARD);
  ASSERT_EQ(discards.size(), 1u);
  EXPECT_EQ(discards[0].header().requestValue, 2u);
  EXPECT_EQ(discards[0].get<std::uint32_t>(24), 8u);
  EXPECT_EQ(discards[0].get<std::uint32_t>(24 + 4), 1u);
  EXPECT_EQ(discards[0].get<std::uint32_t>(24 + 12), 0u);
  EXPECT_EQ(discards[0].get<std::uint32_t>(24 + 1040 + 4), 3u);
  EXPECT_THAT(log.texts(LOG_INFO), IsSupersetOf({"Valid Snap: /dev/sda2.\n", "Unsnap Volume List has 2 entries.\n",
                                                 // The files are looked for when the discard has removed its own.
                                                 "Reloc File List contains: 0 files.\n"}));
  EXPECT_FALSE(fs::exists(dead));
  EXPECT_TRUE(fs::exists(alive));
  EXPECT_EQ(snapshots.size(), 1u);
}

TEST_F(Reconcile, without_a_stale_snapshot_nothing_is_discarded) {
  snapshots = {{8, 2, getpid(), "/dev/sda2", makeFile("alive")}};
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_THAT(driver.calls(IOC_SNAP_DISCARD), IsEmpty());
  for (const test::LogLine& line : log.lines()) EXPECT_FALSE(line.text.starts_with("Unsnap Volume List"));
}

// The contract: kill tells of no difference.
TEST_F(Reconcile, an_owner_that_may_not_be_signalled_counts_as_gone) {
  test::unsignallable = getppid();
  const std::string file = makeFile("foreign");
  snapshots = {{8, 1, getppid(), "/dev/sda1", file}};
  mappings = {{getppid(), "/dev/sda1", file}};
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_THAT(snapshots, IsEmpty());
  EXPECT_THAT(mappings, IsEmpty());
  EXPECT_FALSE(fs::exists(file));
}

TEST_F(Reconcile, a_failed_discard_stops_nothing_and_the_snapshot_keeps_its_file) {
  const std::string kept = makeFile("kept");
  const std::string orphan = makeFile("orphan");
  snapshots = {{8, 1, deadProcess(), "/dev/sda1", kept}};
  driver.fail(IOC_SNAP_DISCARD, EIO);
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_TRUE(log.has(LOG_ERR, "Snap Discard IOCTL failed, errno:5\n")) << log.dump();
  EXPECT_TRUE(fs::exists(kept));
  EXPECT_FALSE(fs::exists(orphan));
  EXPECT_EQ(driver.calls(IOC_VERIFY_AND_CLEAN_VOLUMES).size(), 1u);
}

TEST_F(Reconcile, a_file_that_the_discard_did_not_name_is_removed_as_an_orphan) {
  const std::string file = makeFile("dead");
  snapshots = {{8, 1, deadProcess(), "/dev/sda1", file}};
  driver.on(IOC_SNAP_DISCARD, [this](std::byte*, std::size_t) {
    snapshots.clear();
    return 0;
  });
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_TRUE(log.has(LOG_DEBUG, "Relocation File to be deleted: " + file + ".\n")) << log.dump();
  EXPECT_FALSE(fs::exists(file));
}

TEST_F(Reconcile, an_array_that_memory_is_short_for_leaves_the_snapshots_alone) {
  constexpr unsigned int kMany = 21;
  for (unsigned int i = 0; i < kMany; ++i) snapshots.push_back({8, i, deadProcess(), "/dev/sda", area() + "/file"});
  {
    const test::FailingAllocation shortage(0, kMany * sizeof(DeviceNumberPair));
    EXPECT_EQ(reconcile(), 0u);
    EXPECT_TRUE(shortage.failed());
  }
  EXPECT_TRUE(log.has(LOG_INFO, "Unsnap Volume List has 21 entries.\n")) << log.dump();
  EXPECT_THAT(driver.calls(IOC_SNAP_DISCARD), IsEmpty());
  EXPECT_EQ(driver.calls(IOC_VERIFY_AND_CLEAN_VOLUMES).size(), 1u);
}

TEST_F(Reconcile, a_mapping_of_a_dead_process_is_dropped_and_its_file_removed) {
  const std::string file = makeFile("sdb1");
  mappings = {{deadProcess(), "/dev/sdb1", file}};
  EXPECT_EQ(reconcile(), 0u);
  const std::vector<DriverCall> drops = driver.calls(IOC_DELETE_RELOC_FILE_MAPPING);
  ASSERT_EQ(drops.size(), 1u);
  EXPECT_EQ(drops[0].get<std::int32_t>(24), deadProcess());
  EXPECT_EQ(drops[0].text(28), "/dev/sdb1");
  EXPECT_TRUE(log.has(LOG_INFO, "SVolName: /dev/sdb1, RelFileName: " + file + ".\n")) << log.dump();
  EXPECT_FALSE(fs::exists(file));
}

TEST_F(Reconcile, a_mapping_of_a_living_process_keeps_its_file) {
  const std::string file = makeFile("sdb1");
  const std::string orphan = makeFile("sdb");
  mappings = {{getpid(), "/dev/sdb1", file}};
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_THAT(driver.calls(IOC_DELETE_RELOC_FILE_MAPPING), IsEmpty());
  EXPECT_TRUE(log.has(LOG_INFO, "SVolName: /dev/sdb1, RelFileName: " + file + ".\n")) << log.dump();
  EXPECT_TRUE(fs::exists(file));
  EXPECT_FALSE(fs::exists(orphan));
}

TEST_F(Reconcile, a_mapping_that_cannot_be_dropped_is_logged_and_the_next_follows) {
  const std::string one = makeFile("one");
  const std::string two = makeFile("two");
  mappings = {{deadProcess(), "/dev/one", one}, {deadProcess(), "/dev/two", two}};
  driver.fail(IOC_DELETE_RELOC_FILE_MAPPING, EIO);
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_EQ(log.count(LOG_ERR, "Unable to delete the relocation mapping.\n"), 2u);
  EXPECT_FALSE(fs::exists(one));
  EXPECT_FALSE(fs::exists(two));
}

TEST_F(Reconcile, a_machine_without_mounted_devices_has_no_files_to_remove_and_that_stops_nothing) {
  const std::string file = makeFile("sdb1");
  test::writeFile("/proc/mounts", "none / tmpfs rw 0 0\n");
  mappings = {{deadProcess(), "/dev/sdb1", file}};
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_TRUE(log.has(LOG_INFO, "Reloc File List contains: 0 files.\n")) << log.dump();
  EXPECT_THAT(mappings, IsEmpty());
  EXPECT_TRUE(fs::exists(file));
  EXPECT_EQ(driver.calls(IOC_VERIFY_AND_CLEAN_VOLUMES).size(), 1u);
}

TEST_F(Reconcile, a_failed_listing_of_mappings_keeps_every_file_and_stops_nothing) {
  const std::string file = makeFile("sdb1");
  mappings = {{getpid(), "/dev/sdb1", file}};
  driver.fail(IOC_GET_RELOC_FILE_MAPPING, EIO);
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_TRUE(fs::exists(file));
  EXPECT_TRUE(log.has(LOG_INFO, "Reloc File List contains: 0 files.\n")) << log.dump();
  EXPECT_EQ(driver.calls(IOC_VERIFY_AND_CLEAN_VOLUMES).size(), 1u);
}

// Seven mappings: as many as the values of a failure, 3, 5 and 6, do not reach.
class ReconcileOfSevenMappings : public Reconcile {
 protected:
  ReconcileOfSevenMappings() {
    for (int i = 1; i <= 7; ++i) {
      files.push_back(makeFile("sdb" + std::to_string(i)));
      mappings.push_back({getpid(), "/dev/sdb" + std::to_string(i), files.back()});
    }
  }
  void expectAllKept() {
    EXPECT_EQ(reconcile(), 0u);
    for (const std::string& file : files) EXPECT_TRUE(fs::exists(file)) << file;
  }

  std::vector<std::string> files;
};

TEST_F(ReconcileOfSevenMappings, a_count_that_the_driver_refuses_is_no_count_of_6) {
  driver.fail(IOC_GET_NUM_OF_RELOC_FILE_MAPPING, EIO);
  expectAllKept();
  EXPECT_THAT(driver.calls(IOC_GET_RELOC_FILE_MAPPING), IsEmpty());
}

TEST_F(ReconcileOfSevenMappings, memory_that_is_short_for_the_count_at_the_last_look_is_no_count_of_3) {
  const std::string orphan = makeFile("orphan");
  std::optional<test::FailingAllocation> shortage;
  beforeCount = [&] {
    if (counted == 2) shortage.emplace(0u, sizeof(SnapDriverInterfaceUtility));
  };
  expectAllKept();
  EXPECT_TRUE(shortage->failed());
  EXPECT_TRUE(fs::exists(orphan));
}

TEST_F(ReconcileOfSevenMappings, a_count_that_fails_at_the_last_look_keeps_the_orphan) {
  const std::string orphan = makeFile("orphan");
  int counts = 0;
  driver.on(IOC_GET_NUM_OF_RELOC_FILE_MAPPING,
            [&](std::byte* buffer, std::size_t) { return ++counts == 2 ? EIO : answerCount(buffer, mappings.size()); });
  expectAllKept();
  EXPECT_TRUE(fs::exists(orphan));
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_FALSE(fs::exists(orphan));
}

TEST_F(ReconcileOfSevenMappings, a_count_that_is_3_5_or_6_is_one) {
  for (const std::size_t count : {6U, 5U, 3U}) {
    mappings.resize(count, {});
    EXPECT_EQ(reconcile(), 0u);
    for (std::size_t i = 0; i < files.size(); ++i) EXPECT_EQ(fs::exists(files[i]), i < count) << i << " of " << count;
  }
}

TEST_F(Reconcile, a_driver_that_turns_unreachable_before_the_discard_gives_3_with_nothing_removed) {
  const std::string stale = makeFile("stale");
  const std::string orphan = makeFile("orphan");
  snapshots = {{8, 1, deadProcess(), "/dev/sda1", stale}};
  failCount(2);
  EXPECT_EQ(reconcile(), 3u);
  EXPECT_EQ(log.texts(LOG_ERR).back(), "Unable to obtain the snapped volume details.\n");
  EXPECT_THAT(driver.calls(IOC_SNAP_DISCARD), IsEmpty());
  EXPECT_TRUE(fs::exists(stale));
  EXPECT_TRUE(fs::exists(orphan));
}

TEST_F(Reconcile, a_driver_that_turns_unreachable_after_the_discard_gives_3_with_no_orphan_removed) {
  const std::string stale = makeFile("stale");
  const std::string orphan = makeFile("orphan");
  snapshots = {{8, 1, deadProcess(), "/dev/sda1", stale}};
  failCount(4);  // the third is asked before the discarded snapshot's file is removed
  EXPECT_EQ(reconcile(), 3u);
  EXPECT_EQ(log.texts(LOG_ERR).back(), "Unable to obtain the snapped volume details.\n");
  EXPECT_FALSE(fs::exists(stale));  // went with its snapshot
  EXPECT_TRUE(fs::exists(orphan));
  EXPECT_THAT(driver.calls(IOC_VERIFY_AND_CLEAN_VOLUMES), IsEmpty());
}

TEST_F(Reconcile, file_names_beyond_ascii_are_matched_byte_for_byte) {
  const std::string mapped = makeFile("m\xC3\xA4p\xFF");
  const std::string snapped = makeFile("sn\xC3\xA4p\xFF");
  mappings = {{getpid(), "/dev/sdb1", mapped}};
  snapshots = {{8, 1, getpid(), "/dev/s\xC3\xA4", snapped}};
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_TRUE(log.has(LOG_INFO, "Valid Snap: /dev/s\xC3\xA4.\n")) << log.dump();
  EXPECT_TRUE(fs::exists(mapped));
  EXPECT_TRUE(fs::exists(snapped));
}

TEST_F(Reconcile, a_path_that_matches_keeps_also_what_leads_nowhere) {
  const std::string link = area() + "/sdb1";
  fs::create_symlink("nowhere", link);
  mappings = {{getpid(), "/dev/sdb1", link}};
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_TRUE(fs::is_symlink(link));
}

TEST_F(Reconcile, a_mapping_whose_file_is_not_there_keeps_no_other) {
  const std::string orphan = makeFile("sdb1");
  for (const std::string& named : {area() + "/sdb", area() + "/sdb11", area() + "/SDB1", std::string()}) {
    mappings.push_back({getpid(), "/dev/sdb", named});
  }
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_FALSE(fs::exists(orphan));
}

// The owner of a folder above a mount point can rename it: the mount table follows, and the driver's path does not.
TEST_F(Reconcile, a_file_whose_mount_point_was_moved_is_kept_for_its_living_owner) {
  const std::string used = makeFile("sdb1");
  const std::string orphan = makeFile("sdc1");
  mappings.push_back({getpid(), "/dev/sdb1", "/mnt/never/there/.verrelocarea/sdb1"});
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_TRUE(fs::exists(used));
  EXPECT_FALSE(fs::exists(orphan));
}

TEST_F(Reconcile, a_file_of_the_name_that_a_living_owner_mapped_elsewhere_is_kept_whatever_stands_there) {
  const std::string used = makeFile("sdb1");
  const test::TempDir decoy;
  fs::create_directory(decoy / ".verrelocarea");
  test::writeFile(decoy / ".verrelocarea/sdb1", "");
  mappings.push_back({getpid(), "/dev/sdb1", decoy / ".verrelocarea/sdb1"});
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_TRUE(fs::exists(used));
}

TEST_F(Reconcile, an_orphan_that_is_no_file_of_roots_is_left_alone_and_told_of) {
  const std::string target = volume.folder() + "/target";
  test::writeFile(target, "content");
  fs::create_symlink(target, area() + "/link");
  ASSERT_EQ(mkfifo((area() + "/fifo").c_str(), 0600), 0);
  const std::string orphan = makeFile("orphan");
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_FALSE(fs::exists(orphan));
  EXPECT_TRUE(fs::is_symlink(area() + "/link"));
  EXPECT_EQ(test::readFile(target), "content");
  EXPECT_THAT(log.texts(LOG_ERR), testing::UnorderedElementsAre(area() + "/link is not used: it is a symbolic link.\n",
                                                                area() + "/fifo is not used: it is a FIFO.\n"));
  EXPECT_THAT(log.texts(LOG_INFO), IsSupersetOf({"RelocFile " + area() + "/link deletion failed, errno: 13.\n",
                                                 "RelocFile " + area() + "/fifo deletion failed, errno: 13.\n"}));
}

TEST_F(Reconcile, nothing_is_removed_through_a_link_in_the_place_of_the_directory) {
  const test::TempDir elsewhere;
  test::writeFile(elsewhere / "file", "content");
  fs::remove(area());
  fs::create_directory_symlink(elsewhere.path(), area());
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_EQ(test::readFile(elsewhere / "file"), "content");
  EXPECT_TRUE(fs::is_symlink(area()));
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(area() + " is not used: it is a symbolic link.\n"));
  EXPECT_TRUE(log.has(LOG_INFO, "Reloc File List contains: 0 files.\n")) << log.dump();
}

TEST_F(Reconcile, what_lies_in_a_users_directory_is_left_to_him) {
  const std::string file = makeFile("sdb1");
  ASSERT_EQ(chown(area().c_str(), 1000, 1000), 0);
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_TRUE(fs::exists(file));
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre(area() + " is not used: it belongs to user 1000, not root.\n"));
}

// The driver keeps 1023 characters of a path.
TEST_F(Reconcile, the_file_of_a_living_process_or_a_snapshot_is_kept_when_the_driver_cut_its_path) {
  std::string deep = volume.folder();
  while (deep.size() < 1010) fs::create_directory(deep += "/" + std::string(200, 'd'));
  const std::string deepArea = deep + "/.verrelocarea";
  fs::create_directory(deepArea);
  const std::string used = deepArea + "/sdb1";
  const std::string orphan = makeFile("sdb1");
  ASSERT_GT(used.size(), 1023u);
  test::writeFile(used, "");
  test::writeFile("/proc/mounts", line(volume.device(), volume.folder()) + line(volume.device(), deep));
  mappings = {{getpid(), "/dev/sdb1", used.substr(0, 1023)}};
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_TRUE(fs::exists(used));
  EXPECT_FALSE(fs::exists(orphan));
  mappings.clear();
  snapshots = {{8, 17, getpid(), "/dev/sdb1", used.substr(0, 1023)}};
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_TRUE(fs::exists(used));
  snapshots[0].relocFile.pop_back();  // not cut: another file's path
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_FALSE(fs::exists(used));
}

TEST_F(Reconcile, another_file_with_the_same_number_on_another_file_system_is_removed) {
  const test::Volume other("ext4", 8 << 20);
  fs::create_directory(other.folder() + "/.verrelocarea");
  const std::string used = makeFile("sdb1");
  const std::string orphan = other.folder() + "/.verrelocarea/sdc1";
  test::writeFile(orphan, "");
  struct stat first {
  }, second{};
  ASSERT_EQ(stat(used.c_str(), &first), 0);
  ASSERT_EQ(stat(orphan.c_str(), &second), 0);
  ASSERT_EQ(first.st_ino, second.st_ino);
  test::writeFile("/proc/mounts", line(volume.device(), volume.folder()) + line(other.device(), other.folder()));
  mappings = {{getpid(), "/dev/sdb1", used}};
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_TRUE(fs::exists(used));
  EXPECT_FALSE(fs::exists(orphan));
}

TEST_F(Reconcile, a_file_found_twice_is_kept_twice) {
  const std::string file = makeFile("sdb1");
  test::writeFile("/proc/mounts", line(volume.device(), volume.folder()) + line(volume.device(), volume.folder()));
  mappings = {{getpid(), "/dev/sdb1", file}};
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_TRUE(log.has(LOG_INFO, "Reloc File List contains: 0 files.\n")) << log.dump();
  EXPECT_TRUE(fs::exists(file));
}

// ---- a file system that is mounted at two places

namespace {

class ReconcileOfTwoMounts : public Reconcile {
 protected:
  ReconcileOfTwoMounts() { test::writeFile("/proc/mounts", tableLine(volume.folder()) + tableLine(again.folder())); }
  std::string tableLine(const std::string& folder) const { return line(volume.device(), folder); }
  // What the second mount calls a file.
  std::string elsewhere(const std::string& name) const { return again.folder() + "/.verrelocarea/" + name; }
  // That the file is kept, and that a file which nobody uses is not: it is found twice.
  void expectKept(const std::string& file) {
    const std::string orphan = makeFile("orphan");
    EXPECT_EQ(reconcile(), 0u);
    EXPECT_TRUE(fs::exists(file));
    EXPECT_FALSE(fs::exists(orphan));
    EXPECT_TRUE(log.has(LOG_INFO, "Reloc File List contains: 2 files.\n")) << log.dump();
    for (const std::string& text : log.texts(LOG_DEBUG)) {
      EXPECT_FALSE(text.starts_with("Relocation File to be deleted: ") && !text.ends_with("/orphan.\n")) << text;
    }
  }

  const test::TempDir secondFolder;
  const test::Mounted again{volume.device(), secondFolder.path(), "ext4"};
};

}  // namespace

TEST_F(ReconcileOfTwoMounts, the_file_of_a_living_process_is_kept_under_both) {
  const std::string file = makeFile("sdb1");
  mappings = {{getpid(), "/dev/sdb1", file}};
  expectKept(file);
}

TEST_F(ReconcileOfTwoMounts, the_file_of_a_living_process_is_kept_when_its_path_is_that_of_the_second) {
  const std::string file = makeFile("sdb1");
  mappings = {{getpid(), "/dev/sdb1", elsewhere("sdb1")}};
  expectKept(file);
}

TEST_F(ReconcileOfTwoMounts, the_file_of_a_snapshot_is_kept_under_both) {
  const std::string file = makeFile("sdb1");
  snapshots = {{8, 17, getpid(), "/dev/sdb1", file}};
  expectKept(file);
}

TEST_F(ReconcileOfTwoMounts, the_file_of_a_snapshot_that_could_not_be_discarded_is_kept_under_both) {
  const std::string file = makeFile("sdb1");
  snapshots = {{8, 17, deadProcess(), "/dev/sdb1", file}};
  driver.fail(IOC_SNAP_DISCARD, EIO);
  expectKept(file);
}

TEST_F(ReconcileOfTwoMounts, the_file_of_a_dead_process_goes) {
  const std::string file = makeFile("sdb1");
  mappings = {{deadProcess(), "/dev/sdb1", file}};
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_FALSE(fs::exists(area()));
  EXPECT_TRUE(log.has(LOG_INFO, "Reloc File List contains: 2 files.\n")) << log.dump();
  EXPECT_EQ(log.texts(LOG_INFO).back(), "RelocFile " + elsewhere("sdb1") + " deletion failed, errno: 2.\n");
}

TEST_F(ReconcileOfTwoMounts, a_path_under_the_second_keeps_the_file_when_only_the_first_is_in_the_table) {
  test::writeFile("/proc/mounts", tableLine(volume.folder()));
  const std::string file = makeFile("sdb1");
  mappings = {{getpid(), "/dev/sdb1", elsewhere("sdb1")}};
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_TRUE(fs::exists(file));
}

TEST_F(Reconcile, the_file_of_a_living_process_is_kept_where_a_bind_mount_shows_it) {
  const test::TempDir folder;
  const test::Mounted bound(volume.folder(), folder.path(), "", MS_BIND);
  test::writeFile("/proc/mounts", line(volume.device(), volume.folder()) + line(volume.device(), folder.path()));
  const std::string file = makeFile("sdb1");
  mappings = {{getpid(), "/dev/sdb1", file}};
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_TRUE(fs::exists(file));
}

TEST_F(Reconcile, an_orphan_that_cannot_be_unlinked_is_logged_and_the_next_follows) {
  fs::create_directory(area() + "/directory");
  const std::string file = makeFile("sdb1");
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_TRUE(log.has(LOG_INFO, "RelocFile " + area() + "/directory deletion failed, errno: 21.\n")) << log.dump();
  EXPECT_FALSE(fs::exists(file));
  EXPECT_TRUE(fs::exists(area()));  // not empty
}

TEST_F(Reconcile, a_failed_verify_is_only_logged) {
  driver.fail(IOC_VERIFY_AND_CLEAN_VOLUMES, EIO);
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_EQ(log.texts(LOG_ERR).back(), "verify and clean volumes ioctl failed, errno:5\n");
}

TEST_F(Reconcile, a_verify_that_answers_anything_but_0_failed) {
  driver.fail(IOC_VERIFY_AND_CLEAN_VOLUMES, -1);
  EXPECT_EQ(reconcile(), 0u);
  ASSERT_EQ(log.texts(LOG_ERR).size(), 1u) << log.dump();
  EXPECT_TRUE(log.texts(LOG_ERR)[0].starts_with("verify and clean volumes ioctl failed, errno:"));
}

TEST_F(Reconcile, a_control_device_that_cannot_be_opened_for_the_verify_is_only_logged) {
  std::optional<test::FailingAllocation> shortage;  // comes too late to be met
  beforeCount = [&] {
    if (counted != 2) return;
    test::writeFile("/proc/mirelsnap/dev", "no numbers");
    shortage.emplace(0u, sizeof(SnapDriverInterfaceUtility));
  };
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_FALSE(shortage->failed());
  EXPECT_EQ(log.texts(LOG_ERR).back(), "Failed to open device: /dev/mirelsnapctl, errno: 19.\n");
  EXPECT_THAT(driver.calls(IOC_VERIFY_AND_CLEAN_VOLUMES), IsEmpty());
}

TEST_F(Reconcile, a_verify_that_memory_is_short_for_is_only_logged) {
  std::optional<test::FailingAllocation> shortage;
  beforeCount = [&] {
    if (counted == 2) shortage.emplace(0u, sizeof(SnapDriverInterfaceUtility));
  };
  EXPECT_EQ(reconcile(), 0u);
  ASSERT_TRUE(shortage && shortage->failed());
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("Memory alocation failed.\n"));
  EXPECT_THAT(driver.calls(IOC_VERIFY_AND_CLEAN_VOLUMES), IsEmpty());
}

TEST_F(Reconcile, a_second_reconcile_finds_nothing_to_do) {
  const std::string dead = makeFile("dead");
  const std::string mapped = makeFile("mapped");
  const std::string alive = makeFile("alive");
  makeFile("orphan");
  snapshots = {{8, 1, deadProcess(), "/dev/dead", dead}, {8, 2, getpid(), "/dev/alive", alive}};
  mappings = {{deadProcess(), "/dev/mapped", mapped}, {getpid(), "/dev/alive", alive}};
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_EQ(std::distance(fs::directory_iterator(area()), {}), 1);
  EXPECT_TRUE(fs::exists(alive));
  driver.clearCalls();
  log.clear();
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_THAT(driver.calls(IOC_SNAP_DISCARD), IsEmpty());
  EXPECT_THAT(driver.calls(IOC_DELETE_RELOC_FILE_MAPPING), IsEmpty());
  EXPECT_TRUE(log.has(LOG_INFO, "Reloc File List contains: 0 files.\n")) << log.dump();
  EXPECT_TRUE(fs::exists(alive));
}

TEST_F(Reconcile, commands_are_issued_in_this_order) {
  snapshots = {{8, 1, deadProcess(), "/dev/dead", makeFile("dead")}, {8, 2, getpid(), "/dev/alive", makeFile("alive")}};
  mappings = {{deadProcess(), "/dev/dead", area() + "/dead"}};
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_THAT(requests(),
              ElementsAre(IOC_GET_NUM_OF_SNAPPED_VOLUMES, IOC_GET_SNAPPED_VOL_DETAILS,
                          // Whose snapshot it is, once more before the discard; who uses its file, before the removal.
                          IOC_GET_NUM_OF_SNAPPED_VOLUMES, IOC_GET_SNAPPED_VOL_DETAILS, IOC_SNAP_DISCARD,
                          IOC_GET_NUM_OF_RELOC_FILE_MAPPING, IOC_GET_RELOC_FILE_MAPPING, IOC_GET_NUM_OF_SNAPPED_VOLUMES,
                          IOC_GET_SNAPPED_VOL_DETAILS,
                          // The mappings, and what is left.
                          IOC_GET_NUM_OF_RELOC_FILE_MAPPING, IOC_GET_RELOC_FILE_MAPPING, IOC_DELETE_RELOC_FILE_MAPPING,
                          IOC_GET_NUM_OF_SNAPPED_VOLUMES, IOC_GET_SNAPPED_VOL_DETAILS, IOC_VERIFY_AND_CLEAN_VOLUMES));
}

TEST_F(Reconcile, with_nothing_of_a_dead_process_the_lists_are_asked_for_as_ever) {
  const std::string alive = makeFile("alive");
  snapshots = {{8, 2, getpid(), "/dev/alive", alive}};
  mappings = {{getpid(), "/dev/alive", alive}};
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_THAT(requests(),
              ElementsAre(IOC_GET_NUM_OF_SNAPPED_VOLUMES, IOC_GET_SNAPPED_VOL_DETAILS,
                          IOC_GET_NUM_OF_RELOC_FILE_MAPPING, IOC_GET_RELOC_FILE_MAPPING, IOC_GET_NUM_OF_SNAPPED_VOLUMES,
                          IOC_GET_SNAPPED_VOL_DETAILS, IOC_VERIFY_AND_CLEAN_VOLUMES));
}

// ---- others that live

TEST_F(Reconcile, a_snapshot_that_a_living_process_took_since_the_listing_is_left_alone) {
  const std::string file = makeFile("sda1");
  snapshots = {{8, 1, deadProcess(), "/dev/sda1", file}};
  beforeCount = [&] {
    if (counted != 2) return;
    snapshots[0].owner = getpid();  // another reconcile discarded the old one, and its volume was snapped again
    mappings = {{getpid(), "/dev/sda1", file}};
  };
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_THAT(driver.calls(IOC_SNAP_DISCARD), IsEmpty());
  EXPECT_EQ(snapshots.size(), 1u);
  EXPECT_TRUE(fs::exists(file));
}

TEST_F(Reconcile, only_snapshots_that_are_still_there_are_discarded) {
  snapshots = {{8, 1, deadProcess(), "/dev/sda1", ""}, {8, 2, deadProcess(), "/dev/sda2", ""}};
  beforeCount = [&] {
    if (counted == 2) snapshots.erase(snapshots.begin());
  };
  EXPECT_EQ(reconcile(), 0u);
  const std::vector<DriverCall> discards = driver.calls(IOC_SNAP_DISCARD);
  ASSERT_EQ(discards.size(), 1u);
  EXPECT_EQ(discards[0].header().requestValue, 1u);
  EXPECT_EQ(discards[0].get<std::uint32_t>(24 + 4), 2u);
  EXPECT_TRUE(log.has(LOG_INFO, "Unsnap Volume List has 1 entries.\n")) << log.dump();
}

TEST_F(Reconcile, a_file_that_a_living_process_mapped_since_the_listing_is_kept) {
  const std::string file = makeFile("sda1");
  const std::string orphan = makeFile("sda2");
  beforeCount = [&] {
    if (counted == 2) mappings = {{getpid(), "/dev/sda1", file}};
  };
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_TRUE(fs::exists(file));
  EXPECT_FALSE(fs::exists(orphan));
  EXPECT_FALSE(log.has(LOG_DEBUG, "Relocation File to be deleted: " + file + ".\n")) << log.dump();
}

// Between the last look at the driver and the removal.
class ReconcileAfterItsLastLook : public Reconcile {
 protected:
  void change(const std::function<void()>& what) {
    beforeCount = [this, what] {
      if (counted == 3) what();
    };
    EXPECT_EQ(reconcile(), 0u);
    EXPECT_EQ(counted, 3);
  }
};

TEST_F(ReconcileAfterItsLastLook, what_was_looked_at_is_removed_and_not_what_was_moved_into_its_place) {
  makeFile("sda1");
  const std::string away = volume.folder() + "/away";
  change([&] {
    fs::rename(area(), away);
    fs::create_directory(area());
    makeFile("sda1");
  });
  EXPECT_TRUE(fs::exists(area() + "/sda1"));
  EXPECT_FALSE(fs::exists(away + "/sda1"));
}

TEST_F(ReconcileAfterItsLastLook, a_file_that_was_made_anew_in_the_directory_stays) {
  const std::string file = makeFile("sda1");
  change([&] { fs::rename(makeFile("new"), file); });
  EXPECT_TRUE(fs::exists(file));
  EXPECT_TRUE(log.has(LOG_INFO, "RelocFile " + file + " deletion failed, errno: 116.\n")) << log.dump();
}

TEST_F(Reconcile, the_file_of_a_discarded_snapshot_is_kept_when_a_living_process_has_mapped_it) {
  const std::string file = makeFile("sda1");
  snapshots = {{8, 1, deadProcess(), "/dev/sda1", file}};
  driver.on(IOC_SNAP_DISCARD, [&](std::byte* buffer, std::size_t length) {
    mappings = {{getppid(), "/dev/sda1", file}};
    return discard(buffer, (length - 27) / sizeof(DiscardEntry));
  });
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_THAT(snapshots, IsEmpty());
  EXPECT_TRUE(fs::exists(file));
  EXPECT_TRUE(log.has(LOG_INFO, "RelocFile " + file + " is in use and stays.\n")) << log.dump();
}

TEST_F(Reconcile, an_owner_that_the_driver_does_not_know_is_not_dead) {
  const std::string file = makeFile("sda1");
  snapshots = {{8, 1, 0, "/dev/sda1", file}};
  mappings = {{0, "/dev/sda1", file}};
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_EQ(snapshots.size(), 1u);
  EXPECT_EQ(mappings.size(), 1u);
  EXPECT_TRUE(fs::exists(file));
}

TEST_F(Reconcile, a_zombie_is_dead) {
  const pid_t zombie = fork();
  if (zombie == 0) _exit(0);
  const test::ShownProcess shown(zombie);
  siginfo_t ended{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(zombie), &ended, WEXITED | WNOWAIT), 0);
  const std::string file = makeFile("sda1");
  snapshots = {{8, 1, zombie, "/dev/sda1", file}};
  mappings = {{zombie, "/dev/sda1", file}, {zombie, "/dev/sda2", ""}};
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_THAT(snapshots, IsEmpty());
  EXPECT_THAT(mappings, IsEmpty());
  EXPECT_FALSE(fs::exists(file));
  waitpid(zombie, nullptr, 0);
}

// ---- the lock

namespace {

constexpr char kHeldOff[] =
    "Snapshots and relocation files of dead processes are left: another process is taking a snapshot, or removing one; "
    "run reconcile again when it is done.\n";

std::vector<std::string> causes() {
  std::vector<std::string> texts;
  for (const Cause& cause : takeCauses()) texts.push_back(cause.text());
  return texts;
}

// The lock as a process holds it that is taking a snapshot.
class SnapOfAnother {
 public:
  SnapOfAnother() {
    mLock.adopt(openDriver());
    EXPECT_EQ(mLock.take(DriverLock::Kind::kShared, std::chrono::seconds(0)), DriverLock::Outcome::kHeld);
  }
  void end() { mLock.release(); }

 private:
  DriverLock mLock;
};

}  // namespace

TEST_F(Reconcile, while_another_process_takes_a_snapshot_only_mappings_of_the_dead_go) {
  const std::string stale = makeFile("stale");
  const std::string orphan = makeFile("orphan");
  snapshots = {{8, 1, deadProcess(), "/dev/sda1", stale}};
  mappings = {{deadProcess(), "/dev/sda1", stale}};
  SnapOfAnother other;
  takeCauses();
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_THAT(causes(), ElementsAre("/dev/mirelsnapctl: is locked by a process that takes a snapshot or removes one"));
  EXPECT_EQ(log.texts(LOG_ERR), std::vector<std::string>{kHeldOff});
  EXPECT_EQ(snapshots.size(), 1u);
  EXPECT_THAT(mappings, IsEmpty());
  EXPECT_TRUE(fs::exists(stale));
  EXPECT_TRUE(fs::exists(orphan));
  EXPECT_THAT(driver.calls(IOC_SNAP_DISCARD), IsEmpty());
  EXPECT_EQ(driver.calls(IOC_VERIFY_AND_CLEAN_VOLUMES).size(), 1u);

  other.end();
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_THAT(causes(), IsEmpty());
  EXPECT_THAT(snapshots, IsEmpty());
  EXPECT_FALSE(fs::exists(area()));
}

TEST_F(Reconcile, with_nothing_to_remove_it_waits_for_nobody) {
  snapshots = {{8, 2, getpid(), "/dev/alive", makeFile("alive")}};
  const SnapOfAnother other;
  takeCauses();
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_THAT(causes(), IsEmpty());
  EXPECT_THAT(log.texts(LOG_ERR), IsEmpty());
}

TEST_F(Reconcile, nobody_can_take_a_snapshot_between_its_last_look_and_the_removal) {
  const std::string stale = makeFile("stale");
  makeFile("orphan");
  snapshots = {{8, 1, deadProcess(), "/dev/sda1", stale}};
  std::vector<unsigned long> lockedOut;
  const auto tryLock = [&](unsigned long request) {
    DriverLock lock;
    lock.adoptNode();
    if (lock.take(DriverLock::Kind::kShared, std::chrono::seconds(0)) == DriverLock::Outcome::kBusy)
      lockedOut.push_back(request);
  };
  driver.on(IOC_SNAP_DISCARD, [&](std::byte* buffer, std::size_t length) {
    tryLock(IOC_SNAP_DISCARD);
    return discard(buffer, (length - 27) / sizeof(DiscardEntry));
  });
  driver.on(IOC_VERIFY_AND_CLEAN_VOLUMES, [&](std::byte*, std::size_t) {
    tryLock(IOC_VERIFY_AND_CLEAN_VOLUMES);
    return 0;
  });
  EXPECT_EQ(reconcile(), 0u);
  EXPECT_THAT(lockedOut, ElementsAre(IOC_SNAP_DISCARD, IOC_VERIFY_AND_CLEAN_VOLUMES));
  tryLock(0);
  EXPECT_EQ(lockedOut.size(), 2u) << "it is given back";
}

TEST_F(Reconcile, memory_that_is_short_anywhere_keeps_the_files_of_the_living) {
  const std::string alive = makeFile("alive");
  const std::size_t allocations = test::failEveryAllocation(
      [&] {
        snapshots = {{8, 1, deadProcess(), "/dev/dead", area() + "/dead"}};
        mappings = {{getpid(), "/dev/alive", alive}, {deadProcess(), "/dev/dead", area() + "/dead"}};
        reconcile();
      },
      [&](std::size_t n) { EXPECT_TRUE(fs::exists(alive)) << n; });
  EXPECT_GT(allocations, 20u);
  EXPECT_TRUE(fs::exists(alive));
}
