// SPDX-License-Identifier: Apache-2.0
//
// Discarding the snapshots of named volumes, with their relocation files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>

#include "LogCapture.h"
#include "ScriptedDriver.h"
#include "World.h"
#include "driver/ControlDevice.h"
#include "driver/DriverLock.h"
#include "driver/LinuxSnapLib.h"
#include "driver/LinuxSnapLibUtil.h"
#include "interpose/Allocations.h"

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// Three devices that need not exist behind their nodes.
class UnSnapVolume : public testing::Test {
 protected:
  UnSnapVolume()
      : nodes{{"/dev/va", S_IFBLK, 251, 1}, {"/dev/vb", S_IFBLK, 251, 70000}, {"/dev/vc", S_IFBLK, 252, 3}},
        instance(SnapDriverInterface::Instance()) {
    log.openMask();
  }
  ~UnSnapVolume() override { SnapDriverInterface::releaseInstance(); }

  // The driver answers record `i` of a discard as `fill` says, and the request as `error` and `status` say.
  void answer(std::function<void(std::size_t i, DiscardEntry& entry)> fill, int error = 0, std::int32_t status = 0) {
    driver.on(IOC_SNAP_DISCARD, [=](std::byte* buffer, std::size_t length) {
      reinterpret_cast<_ioctlCmd*>(buffer)->driverStatus = status;
      const std::size_t n = (length - 27) / sizeof(DiscardEntry);
      for (std::size_t i = 0; i < n; ++i) {
        fill(i, *reinterpret_cast<DiscardEntry*>(buffer + 24 + i * sizeof(DiscardEntry)));
      }
      return error;
    });
  }
  static void name(DiscardEntry& entry, const std::string& relocFile) {
    relocFile.copy(entry.relocFileName, sizeof entry.relocFileName);
  }

  test::LogCapture log;
  test::ScriptedDriver driver;
  test::Node nodes[3];
  test::TempDir folder;
  SnapDriverInterface* instance;
  std::list<std::wstring> volumes{L"/dev/va", L"/dev/vb", L"/dev/vc"};
};

}  // namespace

TEST_F(UnSnapVolume, a_missing_list_gives_3) {
  EXPECT_EQ(instance->UnSnapVolume(nullptr, false), 3u);
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("assert at 1288 in LinuxSnapLib.cpp failed.\n"));
}

TEST_F(UnSnapVolume, an_empty_list_gives_3) {
  volumes.clear();
  EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 3u);
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("assert at 1289 in LinuxSnapLib.cpp failed.\n"));
}

TEST_F(UnSnapVolume, a_name_that_is_not_a_block_device_gives_3_and_issues_nothing) {
  volumes.push_back(L"/dev/null");
  EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 3u);
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("/dev/null: is not a valid block device.\n"));
  EXPECT_THAT(driver.calls(), IsEmpty());
}

TEST_F(UnSnapVolume, a_name_that_does_not_exist_gives_3_and_issues_nothing) {
  volumes.push_front(L"/dev/missing");
  EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 3u);
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("/dev/missing: Device does not exist.\n"));
  EXPECT_THAT(driver.calls(), IsEmpty());
}

TEST_F(UnSnapVolume, an_array_that_memory_is_short_for_gives_3) {
  {
    const test::FailingAllocation shortage(0, 3 * sizeof(DeviceNumberPair));
    EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 3u);
    EXPECT_TRUE(shortage.failed());
  }
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("Error Allocating memory.\n"));
  EXPECT_THAT(driver.calls(), IsEmpty());
}

TEST_F(UnSnapVolume, a_control_device_that_cannot_be_opened_gives_5) {
  test::writeFile("/proc/mirelsnap/dev", "no numbers");
  EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 5u);
  EXPECT_EQ(log.texts(LOG_ERR).back(), "Failed to open device: /dev/mirelsnapctl, errno: 19.\n");
}

TEST_F(UnSnapVolume, one_command_names_every_volume_and_hands_the_flag_on) {
  for (const bool flag : {true, false}) {
    driver.clearCalls();
    EXPECT_EQ(instance->UnSnapVolume(&volumes, flag), 0u);
    ASSERT_EQ(driver.calls().size(), 1u);
    const test::DriverCall command = driver.calls()[0];
    EXPECT_EQ(command.request, 0xC01C5314UL);
    ASSERT_EQ(command.sent.size(), 3 * 1040 + 27u);
    EXPECT_EQ(command.get<std::uint32_t>(0), 0u);
    EXPECT_EQ(command.get<std::uint32_t>(4), 3u);
    EXPECT_EQ((command.get<std::uint32_t>(8) % 12 + 1234) % 20, command.get<std::uint32_t>(12));
    EXPECT_EQ(command.get<std::uint32_t>(16), 3 * 1040 + 27u);
    EXPECT_EQ(command.get<std::int32_t>(20), 0);
    const std::pair<unsigned int, unsigned int> numbers[] = {{251, 1}, {251, 70000}, {252, 3}};
    for (std::size_t i = 0; i < 3; ++i) {
      const std::size_t at = 24 + 1040 * i;
      EXPECT_EQ(command.get<std::uint32_t>(at), numbers[i].first);
      EXPECT_EQ(command.get<std::uint32_t>(at + 4), numbers[i].second);
      EXPECT_EQ(command.get<std::uint32_t>(at + 8), 0u);
      EXPECT_EQ(command.get<std::uint32_t>(at + 12), flag ? 1u : 0u);
    }
    std::size_t set = 0;
    for (std::size_t i = 24; i < command.sent.size(); ++i) {
      if (i < 24 + 3 * 1040 && (i - 24) % 1040 < 16) continue;
      set += command.sent[i] != std::byte{0};
    }
    EXPECT_EQ(set, 0u);
  }
  EXPECT_EQ(log.count(LOG_DEBUG, "UNSNAP VOL ID: (MAJ, MIN): (251, 1).\n"), 2u);
  EXPECT_EQ(log.count(LOG_DEBUG, "UNSNAP VOL ID: (MAJ, MIN): (251, 70000).\n"), 2u);
  EXPECT_EQ(log.count(LOG_DEBUG, "UNSNAP VOL ID: (MAJ, MIN): (252, 3).\n"), 2u);
}

TEST_F(UnSnapVolume, relocation_files_go_and_their_directories_when_nothing_else_is_in_them) {
  for (const char* area : {"alone", "shared"}) fs::create_directory(folder / area);
  test::writeFile(folder / "alone/va", "");
  test::writeFile(folder / "shared/vb", "");
  test::writeFile(folder / "shared/other", "");
  answer([this](std::size_t i, DiscardEntry& entry) {
    const char* const files[] = {"alone/va", "shared/vb", "vanished/vc"};
    name(entry, folder / files[i]);
  });
  EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 0u);
  EXPECT_FALSE(fs::exists(folder / "alone"));
  EXPECT_FALSE(fs::exists(folder / "shared/vb"));
  EXPECT_TRUE(fs::exists(folder / "shared/other"));
  EXPECT_THAT(log.texts(LOG_INFO),
              ElementsAre("RelocFile " + (folder / "alone/va") + " deleted.\n",
                          "RelocFile " + (folder / "shared/vb") + " deleted.\n",
                          "RelocFile " + (folder / "vanished/vc") + " deletion failed, errno: 2.\n"));
  EXPECT_THAT(log.texts(LOG_DEBUG), testing::IsSupersetOf({"Deleted directory: " + (folder / "alone") + ".\n",
                                                           "Deleted directory: " + (folder / "shared") + ".\n",
                                                           "Deleted directory: " + (folder / "vanished") + ".\n"}));
}

TEST_F(UnSnapVolume, what_took_the_place_of_a_relocation_file_or_its_directory_stays) {
  fs::create_directory(folder / "elsewhere");
  test::writeFile(folder / "elsewhere/va", "content");
  fs::create_directory_symlink(folder / "elsewhere", folder / "link");
  fs::create_directory(folder / "own");
  fs::create_symlink(folder / "elsewhere/va", folder / "own/vb");
  fs::create_directory(folder / "users");
  test::writeFile(folder / "users/vc", "his");
  ASSERT_EQ(chown((folder / "users").c_str(), 1000, 1000), 0);
  answer([this](std::size_t i, DiscardEntry& entry) {
    const char* const files[] = {"link/va", "own/vb", "users/vc"};
    name(entry, folder / files[i]);
  });
  EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 0u);
  EXPECT_EQ(test::readFile(folder / "elsewhere/va"), "content");
  EXPECT_TRUE(fs::is_symlink(folder / "link"));
  EXPECT_TRUE(fs::is_symlink(folder / "own/vb"));
  EXPECT_TRUE(fs::exists(folder / "users/vc"));
  EXPECT_THAT(log.texts(LOG_INFO),
              ElementsAre("RelocFile " + (folder / "link/va") + " deletion failed, errno: 40.\n",
                          "RelocFile " + (folder / "own/vb") + " deletion failed, errno: 13.\n",
                          "RelocFile " + (folder / "users/vc") + " deletion failed, errno: 13.\n"));
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre((folder / "link") + " is not used: it is a symbolic link.\n",
                                              "Unable to read directory: " + (folder / "link") + ".\n",
                                              (folder / "own/vb") + " is not used: it is a symbolic link.\n",
                                              (folder / "users") + " is not used: it belongs to user 1000, not root.\n",
                                              "Unable to read directory: " + (folder / "users") + ".\n"));
}

TEST_F(UnSnapVolume, the_machine_is_not_examined_for_the_removal_of_directories) {
  const test::ProcFile meminfo("meminfo", "no figure");  // reading it would throw
  fs::create_directory(folder / "area");
  test::writeFile(folder / "area/va", "");
  answer([this](std::size_t, DiscardEntry& entry) { name(entry, folder / "area/va"); });
  volumes.resize(1);
  EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 0u);
  EXPECT_FALSE(fs::exists(folder / "area"));
}

TEST_F(UnSnapVolume, a_volume_that_was_not_snapped_keeps_its_file) {
  test::writeFile(folder / "va", "");
  test::writeFile(folder / "vb", "");
  test::writeFile(folder / "stays", "");
  answer([this](std::size_t i, DiscardEntry& entry) {
    entry.result = i == 1 ? 0xFFFFFFFF : 0;
    name(entry, folder / (i == 0 ? "va" : "vb"));
  });
  volumes.pop_back();
  EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 0u);
  EXPECT_FALSE(fs::exists(folder / "va"));
  EXPECT_TRUE(fs::exists(folder / "vb"));
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("Volume (maj, min): (251, 70000) is not snapped.\n"));
}

TEST_F(UnSnapVolume, status_minus_4_gives_13_and_minus_5_gives_14_with_the_same_text) {
  const auto nothing = [](std::size_t, DiscardEntry& entry) { entry.result = 1; };
  volumes.resize(1);
  answer(nothing, ENODEV, -4);
  EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 13u);
  answer(nothing, ENODEV, -5);
  EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 14u);
  EXPECT_THAT(log.texts(LOG_ERR),
              ElementsAre("The volume is not snapped\n", "Volume (maj, min): (251, 1) is not snapped.\n",
                          "The volume is not snapped\n", "Volume (maj, min): (251, 1) is not snapped.\n"));
}

TEST_F(UnSnapVolume, any_other_failure_gives_6_with_the_requests_errno) {
  answer([](std::size_t, DiscardEntry& entry) { entry.result = 1; }, EBUSY, -2);
  EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 6u);
  EXPECT_EQ(log.texts(LOG_ERR).front(), "Snap Discard IOCTL failed, errno:16\n");
}

TEST_F(UnSnapVolume, a_status_word_is_not_looked_at_when_the_request_succeeds) {
  answer([](std::size_t, DiscardEntry&) {}, 0, -4);
  EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 0u);
}

TEST_F(UnSnapVolume, a_request_that_answers_anything_but_0_failed) {
  driver.fail(IOC_SNAP_DISCARD, -1, -5);
  EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 14u);
}

// The contract: the records are walked after a failed request too, their result words still zero.
TEST_F(UnSnapVolume, after_a_failed_request_the_removal_of_a_nameless_file_is_reported_for_each_volume) {
  driver.fail(IOC_SNAP_DISCARD, EIO);
  EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 6u);
  EXPECT_THAT(log.texts(LOG_INFO),
              ElementsAre("RelocFile  deletion failed, errno: 2.\n", "RelocFile  deletion failed, errno: 2.\n",
                          "RelocFile  deletion failed, errno: 2.\n"));
  EXPECT_EQ(log.count(LOG_DEBUG, "Deleted directory: .\n"), 3u);
}

TEST_F(UnSnapVolume, a_failed_request_that_discarded_some_removes_the_files_of_these) {
  test::writeFile(folder / "va", "");
  answer(
      [this](std::size_t i, DiscardEntry& entry) {
        entry.result = i == 0 ? 0 : 1;
        if (i == 0) name(entry, folder / "va");
      },
      ENODEV, -4);
  fs::create_directory(folder / "stays");
  EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 13u);
  EXPECT_FALSE(fs::exists(folder / "va"));
}

TEST_F(UnSnapVolume, a_path_that_the_driver_left_without_an_end_stays_in_its_field) {
  const std::string path = "/mnt/" + std::string(1019, 'x');
  answer([&](std::size_t, DiscardEntry& entry) { name(entry, path); });
  EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 0u);
  EXPECT_EQ(log.count(LOG_INFO, "RelocFile " + path + " deletion failed, errno: 36.\n"), 3u) << log.dump();
}

TEST_F(UnSnapVolume, a_path_without_a_slash_is_its_own_directory_and_one_at_the_top_has_none) {
  volumes.resize(2);
  answer([](std::size_t i, DiscardEntry& entry) { name(entry, i == 0 ? "vanished" : "/vanished"); });
  EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 0u);
  EXPECT_TRUE(log.has(LOG_DEBUG, "Deleted directory: vanished.\n")) << log.dump();
  EXPECT_TRUE(log.has(LOG_DEBUG, "Deleted directory: .\n")) << log.dump();
}

TEST_F(UnSnapVolume, a_count_that_the_driver_writes_back_is_not_followed) {
  driver.on(IOC_SNAP_DISCARD, [](std::byte* buffer, std::size_t) {
    reinterpret_cast<_ioctlCmd*>(buffer)->requestValue = 0xFFFFFFFF;
    return 0;
  });
  EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 0u);
  EXPECT_EQ(log.texts(LOG_INFO).size(), 3u);
}

TEST_F(UnSnapVolume, a_utility_object_that_memory_is_short_for_gives_3) {
  {
    const test::FailingAllocation shortage(0, sizeof(SnapDriverInterfaceUtility));
    EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 3u);
    EXPECT_TRUE(shortage.failed());
  }
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("Error Allocating memory.\n"));
  EXPECT_THAT(driver.calls(), IsEmpty());
}

TEST_F(UnSnapVolume, no_pairs_give_3) {
  const DeviceNumberPair pair{251, 1};
  EXPECT_EQ(discardSnappedVolumes(0, &pair, false), 3u);
  EXPECT_EQ(discardSnappedVolumes(0, nullptr, false), 3u);
  EXPECT_EQ(discardSnappedVolumes(1, nullptr, false), 3u);
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("assert at 2711 in LinuxSnapLib.cpp failed.\n",
                                              "assert at 2711 in LinuxSnapLib.cpp failed.\n",
                                              "assert at 2712 in LinuxSnapLib.cpp failed.\n"));
  EXPECT_THAT(driver.calls(), IsEmpty());
}

TEST_F(UnSnapVolume, more_pairs_than_a_command_can_hold_are_an_allocation_failure) {
  const DeviceNumberPair pair{251, 1};
  EXPECT_EQ(discardSnappedVolumes(0xFFFFFFFF / 1040 + 1, &pair, false), 3u);
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("Error Allocating memory.\n"));
}

// ---- the lock

namespace {

// Files of two snapshots, of which a living process maps the second one.
class UnSnapBesideOthers : public UnSnapVolume {
 protected:
  UnSnapBesideOthers() {
    fs::create_directory(folder / "area");
    for (const std::string& file : {first, second}) test::writeFile(file, "");
    volumes = {L"/dev/va", L"/dev/vb"};
    answer([this](std::size_t i, DiscardEntry& entry) { name(entry, i == 0 ? first : second); });
    driver.on(IOC_GET_NUM_OF_RELOC_FILE_MAPPING, [](std::byte* buffer, std::size_t) {
      reinterpret_cast<_ioctlCmd*>(buffer)->requestValue = 2;
      return 0;
    });
    driver.on(IOC_GET_RELOC_FILE_MAPPING, [this](std::byte* buffer, std::size_t) {
      auto* entry = reinterpret_cast<RelocFileMappingEntry*>(buffer + 24);
      entry[0].appPid = getpid();
      first.copy(entry[0].relocFileName, 1023);
      entry[1].appPid = getppid();
      second.copy(entry[1].relocFileName, 1023);
      return 0;
    });
  }
  const std::string first = folder / "area/va";
  const std::string second = folder / "area/vb";
};

void hold(DriverLock& lock, DriverLock::Kind kind) {
  lock.adopt(openDriver());
  EXPECT_EQ(lock.take(kind, std::chrono::seconds(0)), DriverLock::Outcome::kHeld);
}

}  // namespace

TEST_F(UnSnapBesideOthers, the_lock_is_held_alone_from_the_discard_on_and_the_driver_not_asked) {
  DriverLock::Outcome meanwhile = DriverLock::Outcome::kHeld;
  driver.on(IOC_SNAP_DISCARD, [&](std::byte* buffer, std::size_t) {
    DriverLock lock;
    lock.adoptNode();
    meanwhile = lock.take(DriverLock::Kind::kShared, std::chrono::seconds(0));
    name(*reinterpret_cast<DiscardEntry*>(buffer + 24), first);
    return 0;
  });
  {
    DriverLock makesTheNode;
    hold(makesTheNode, DriverLock::Kind::kShared);
  }
  EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 0u);
  EXPECT_EQ(meanwhile, DriverLock::Outcome::kBusy);
  EXPECT_EQ(driver.calls().size(), 1u);
  EXPECT_FALSE(fs::exists(first));
}

TEST_F(UnSnapBesideOthers, without_the_lock_the_files_of_other_living_processes_stay) {
  DriverLock other;
  hold(other, DriverLock::Kind::kShared);
  EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 0u);
  EXPECT_EQ(driver.calls(IOC_SNAP_DISCARD).size(), 1u);
  EXPECT_FALSE(fs::exists(first));
  EXPECT_TRUE(fs::exists(second));
  EXPECT_TRUE(log.has(LOG_INFO, "RelocFile " + second + " is in use and stays.\n")) << log.dump();
}

TEST_F(UnSnapBesideOthers, without_the_lock_and_the_drivers_word_every_file_stays) {
  DriverLock other;
  hold(other, DriverLock::Kind::kShared);
  driver.fail(IOC_GET_RELOC_FILE_MAPPING, EIO);
  EXPECT_EQ(instance->UnSnapVolume(&volumes, false), 0u);
  EXPECT_TRUE(fs::exists(first));
  EXPECT_TRUE(fs::exists(second));
}
