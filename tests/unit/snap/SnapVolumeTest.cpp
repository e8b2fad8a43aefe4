// SPDX-License-Identifier: Apache-2.0
//
// Taking the snapshots of a set with one command: what is asked first, what the command carries, and what every way of
// failing leaves.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <limits>
#include <optional>
#include <ostream>
#include <thread>

#include "Hooks.h"
#include "LogCapture.h"
#include "LoopVolume.h"
#include "ScriptedDriver.h"
#include "World.h"
#include "driver/ControlDevice.h"
#include "driver/DriverLock.h"
#include "driver/LinuxSnapLib.h"
#include "driver/LinuxSnapLibUtil.h"
#include "driver/TrackingGuid.h"
#include "interpose/Allocations.h"

namespace fs = std::filesystem;
using test::DriverCall;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::IsSupersetOf;

namespace {

constexpr std::uint64_t kVolumeBytes = 8 << 20;
constexpr unsigned int kRelocBlocks = 5;

std::string lineOf(const test::Volume& volume) { return volume.device() + " " + volume.folder() + " ext4 rw 0 0\n"; }

test::LogLine info(const std::string& text) { return {LOG_INFO, 0, "", text}; }
test::LogLine debug(const std::string& text) { return {LOG_DEBUG, 0, "", text}; }

std::wstring widen(const std::string& text) { return {text.begin(), text.end()}; }

class SnapVolume : public testing::Test {
 protected:
  SnapVolume()
      : first("ext4", kVolumeBytes, {"-b", "4096"}),
        second("ext4", kVolumeBytes, {"-b", "4096"}),
        mounts("mounts", lineOf(first) + lineOf(second)),
        instance(SnapDriverInterface::Instance()) {
    log.openMask();
  }
  ~SnapVolume() override {
    SnapDriverInterface::releaseInstance();
    test::fixedTime.reset();
    test::clockStride = 0;
    test::flockError = 0;
    test::callocFailsFrom = 0;
    test::onFsync = nullptr;
  }

  // Requests `volume` with a relocation file of kRelocBlocks on `relocVolume`.
  SnapVolumeInformation& request(const test::Volume& volume, const test::Volume& relocVolume, bool vtrack = false,
                                 bool independent = true, unsigned int usage = 0) {
    return volumes.emplace_back(4096u, kVolumeBytes / 4096, volume.wdevice(), kRelocBlocks, relocVolume.wfolder(),
                                vtrack, independent, usage);
  }
  SnapVolumeInformation& requestFirst() { return request(first, first); }
  void requestBoth() {
    request(first, first);
    request(second, second);
  }

  int snap() { return instance->SnapVolume(&volumes, &names); }

  static std::string relocFile(const test::Volume& volume, const test::Volume& relocVolume) {
    return relocVolume.folder() + "/.verrelocarea/" + volume.device().substr(5);
  }
  static std::string snapName(const test::Volume& volume) {
    return "/dev/snap7_" + std::to_string(volume.loop().minor());
  }
  static bool hasRelocArea(const test::Volume& volume) { return fs::exists(volume.folder() + "/.verrelocarea"); }

  std::vector<DriverCall> snaps() const { return driver.calls(IOC_SNAP); }
  // Nothing of the relocation files is left: neither files nor directories, and each volume's mapping was withdrawn.
  void expectCleaned() {
    EXPECT_FALSE(hasRelocArea(first));
    EXPECT_FALSE(hasRelocArea(second));
    EXPECT_EQ(driver.calls(IOC_CREATE_RELOC_FILE_MAPPING).size(), volumes.size());
    EXPECT_EQ(driver.calls(IOC_DELETE_RELOC_FILE_MAPPING).size(), volumes.size());
  }
  // The same, and the command was never issued.
  void expectNoSnap() {
    expectCleaned();
    EXPECT_THAT(snaps(), IsEmpty());
  }
  // No relocation file was ever made.
  void expectUntouched() {
    EXPECT_FALSE(hasRelocArea(first));
    EXPECT_FALSE(hasRelocArea(second));
    EXPECT_THAT(driver.calls(IOC_CREATE_RELOC_FILE_MAPPING), IsEmpty());
    EXPECT_THAT(driver.calls(IOC_DELETE_RELOC_FILE_MAPPING), IsEmpty());
    EXPECT_THAT(snaps(), IsEmpty());
  }
  // Runs `what` once the relocation files are there, before the command is filled.
  void beforeFilling(std::function<void()> what) {
    driver.on(IOC_GET_NUM_OF_SNAPPED_VOLUMES, [what](std::byte*, std::size_t) {
      what();
      return 0;
    });
  }

  test::LogCapture log;
  test::ScriptedDriver driver;
  test::Volume first;
  test::Volume second;
  test::ProcFile mounts;
  SnapDriverInterface* instance;
  std::list<SnapVolumeInformation> volumes;
  std::list<std::wstring> names;
};

}  // namespace

// --- The request.

TEST_F(SnapVolume, a_missing_list_gives_3) {
  requestFirst();
  EXPECT_EQ(instance->SnapVolume(nullptr, &names), 3);
  EXPECT_EQ(instance->SnapVolume(&volumes, nullptr), 3);
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("assert at 1008 in LinuxSnapLib.cpp failed.\n",
                                              "assert at 1008 in LinuxSnapLib.cpp failed.\n"));
  EXPECT_THAT(driver.calls(), IsEmpty());
}

TEST_F(SnapVolume, an_empty_list_gives_3) {
  EXPECT_EQ(snap(), 3);
  EXPECT_THAT(log.texts(LOG_DEBUG), ElementsAre("SnapVolumes: Number of volumes to be snapped: 0.\n"));
  EXPECT_THAT(log.texts(LOG_ERR), IsEmpty());
  EXPECT_THAT(driver.calls(), IsEmpty());
}

TEST_F(SnapVolume, a_device_that_does_not_exist_gives_8) {
  requestFirst();
  volumes.emplace_back(4096u, 1UL, L"/dev/missing", false, true, 0u);
  EXPECT_EQ(snap(), 8);
  EXPECT_THAT(log.texts(LOG_ERR),
              ElementsAre("/dev/missing: Device does not exist.\n", "Device is invalid: /dev/missing.\n"));
  EXPECT_THAT(driver.calls(), IsEmpty());
}

TEST_F(SnapVolume, a_file_that_is_not_a_block_device_gives_7) {
  volumes.emplace_back(4096u, 1UL, L"/dev/null", false, true, 0u);
  requestFirst();
  EXPECT_EQ(snap(), 7);
  EXPECT_THAT(log.texts(LOG_ERR),
              ElementsAre("/dev/null: is not a valid block device.\n", "Device is invalid: /dev/null.\n"));
  EXPECT_THAT(driver.calls(), IsEmpty());
}

TEST_F(SnapVolume, one_device_named_twice_gives_3_before_any_command) {
  requestFirst();
  requestFirst();
  volumes.emplace_back(4096u, 1UL, L"/dev/missing", false, true, 0u);  // not looked at any more
  EXPECT_EQ(snap(), 3);
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("Multiple entries for the Device: " + first.device() + ".\n"));
  EXPECT_THAT(driver.calls(), IsEmpty());
}

TEST_F(SnapVolume, one_device_under_two_names_gives_3_before_any_command) {
  const test::Node other("/dev/other", S_IFBLK, first.loop().major(), first.loop().minor());
  requestBoth();
  volumes.emplace_back(4096u, 1UL, L"/dev/other", false, true, 0u);
  EXPECT_EQ(snap(), 3);
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("Multiple entries for the Device: /dev/other.\n"));
  EXPECT_THAT(driver.calls(), IsEmpty());
}

TEST_F(SnapVolume, devices_that_share_only_a_minor_number_are_two) {
  const test::Node other("/dev/other", S_IFBLK, 259, first.loop().minor());
  requestFirst();
  volumes.emplace_back(4096u, 1UL, L"/dev/other", false, true, 0u);
  driver.status(IOC_CHECK_VOLUME_SNAPPED, -2);
  EXPECT_EQ(snap(), 12);
}

// --- The volumes' states.

TEST_F(SnapVolume, the_only_volume_already_snapped_gives_11) {
  requestFirst();
  driver.status(IOC_CHECK_VOLUME_SNAPPED, -2);
  EXPECT_EQ(snap(), 11);
  EXPECT_THAT(driver.calls(IOC_CHECK_VOLUME_FROZEN), IsEmpty());
  expectUntouched();
}

TEST_F(SnapVolume, an_already_snapped_volume_among_two_gives_12) {
  requestBoth();
  driver.status(IOC_CHECK_VOLUME_SNAPPED, -2);
  EXPECT_EQ(snap(), 12);
  expectUntouched();
}

TEST_F(SnapVolume, a_frozen_volume_gives_11_whatever_the_count) {
  driver.status(IOC_CHECK_VOLUME_FROZEN, -6);
  requestFirst();
  EXPECT_EQ(snap(), 11);
  request(second, second);
  EXPECT_EQ(snap(), 11);
  expectUntouched();
}

// --- The control device and the memory.

TEST_F(SnapVolume, a_control_device_that_cannot_be_opened_gives_5) {
  requestFirst();
  test::writeFile("/proc/mirelsnap/dev", "no numbers");
  EXPECT_EQ(snap(), 5);
  EXPECT_EQ(log.texts(LOG_ERR).back(), "Failed to open device: /dev/mirelsnapctl, errno: 19.\n");
  expectUntouched();
}

TEST_F(SnapVolume, the_control_device_is_opened_before_the_memory_state_is_read) {
  requestFirst();
  const test::ProcFile missing("meminfo");
  test::writeFile("/proc/mirelsnap/dev", "no numbers");
  EXPECT_EQ(snap(), 5);
  EXPECT_FALSE(log.has(LOG_ERR, "Unable to get the System State\n")) << log.dump();
}

TEST_F(SnapVolume, a_utility_object_that_memory_is_short_for_gives_3) {
  requestFirst();
  {
    // Both checks of the volume have one too.
    const test::FailingAllocation shortage(2, sizeof(SnapDriverInterfaceUtility));
    EXPECT_EQ(snap(), 3);
    EXPECT_TRUE(shortage.failed());
  }
  EXPECT_THAT(log.texts(LOG_ERR), ElementsAre("Memory Allocation Failure.\n"));
  expectUntouched();
}

TEST_F(SnapVolume, an_unknown_memory_state_gives_3) {
  requestFirst();
  const test::ProcFile missing("meminfo");
  EXPECT_EQ(snap(), 3);
  EXPECT_EQ(log.texts(LOG_ERR).back(), "Unable to get the System State\n");
  expectUntouched();
}

TEST_F(SnapVolume, a_machine_without_free_memory_gives_3) {
  requestFirst();
  const test::ProcFile meminfo("meminfo", "MemFree: 0 kB\n");
  EXPECT_EQ(snap(), 3);
  EXPECT_EQ(log.texts(LOG_ERR).back(), "Not enough Memory space to hold relocation Entries\n");
  expectUntouched();
}

TEST_F(SnapVolume, the_relocation_files_may_take_what_the_memory_holds_and_no_more) {
  // 192 kB free: 24 pages reserved, 2 x 4096 entries.
  const test::ProcFile meminfo("meminfo", "MemFree: 192 kB\n");
  requestFirst().setRelocFileSize(8193);
  EXPECT_EQ(snap(), 20);
  EXPECT_TRUE(log.has(LOG_INFO, "maxAllowableRelocEntriesInMem :8192\n")) << log.dump();
  expectUntouched();
}

// --- The relocation files.

// The contract: 20, not the 21 that the engine looks for, and nothing is cleaned: placing has undone its own work.
TEST_F(SnapVolume, a_relocation_file_that_cannot_be_placed_gives_20_without_cleaning) {
  requestFirst();
  driver.fail(IOC_CREATE_RELOC_FILE_MAPPING, EIO);
  EXPECT_EQ(snap(), 20);
  EXPECT_THAT(driver.calls(IOC_DELETE_RELOC_FILE_MAPPING), IsEmpty());
  EXPECT_FALSE(hasRelocArea(first));
  EXPECT_THAT(snaps(), IsEmpty());
  EXPECT_THAT(names, IsEmpty());
}

TEST_F(SnapVolume, another_file_in_the_place_of_a_relocation_file_gives_20_and_no_command) {
  requestBoth();
  const std::string file = relocFile(second, second);
  beforeFilling([&] {
    test::writeFile(file + "-other", std::string(kRelocBlocks * 4096, 'x'));
    fs::rename(file + "-other", file);
  });
  EXPECT_EQ(snap(), 20);
  EXPECT_EQ(log.count(LOG_ERR, file + " is not used: it is another file than the one that was made.\n"), 1u);
  expectNoSnap();
}

TEST_F(SnapVolume, a_relocation_file_that_is_gone_gives_20_and_no_command) {
  requestFirst();
  const std::string file = relocFile(first, first);
  test::onFsync = [&](int descriptor) {
    struct stat flushed {};
    if (fstat(descriptor, &flushed) == 0 && S_ISBLK(flushed.st_mode)) unlink(file.c_str());
  };
  EXPECT_EQ(snap(), 20);
  EXPECT_EQ(log.count(LOG_ERR, file + " is not used: it cannot be reached any more: No such file or directory.\n"), 1u)
      << log.dump();
  expectNoSnap();
}

TEST_F(SnapVolume, a_relocation_file_that_cannot_be_mapped_gives_3_and_is_removed) {
  requestBoth();
  driver.intercept(FIBMAP, [](int, void*) { return EIO; });
  EXPECT_EQ(snap(), 3);
  EXPECT_TRUE(log.has(LOG_ERR, "Relocation File " + relocFile(first, first) + " is invalid.\n")) << log.dump();
  EXPECT_THAT(names, IsEmpty());
  expectNoSnap();
}

TEST_F(SnapVolume, snapped_volumes_that_cannot_be_read_give_3_and_the_files_are_removed) {
  requestBoth();
  driver.fail(IOC_GET_NUM_OF_SNAPPED_VOLUMES, EIO);
  EXPECT_EQ(snap(), 3);
  EXPECT_TRUE(log.has(LOG_ERR, "Unable to read the relocation files.\n")) << log.dump();
  expectNoSnap();
}

TEST_F(SnapVolume, a_memory_table_that_turns_unreadable_leaves_as_it_was_thrown_and_the_files_are_removed) {
  requestBoth();
  std::optional<test::ProcFile> meminfo;
  // The first volume's files are found by now, the second's are asked for next.
  beforeFilling([&meminfo] { meminfo.emplace("meminfo", "no figure"); });
  EXPECT_THROW(snap(), std::out_of_range);
  expectNoSnap();
  for (int fd = 3; fd < 64; ++fd) {  // the table is left open: see the memory state's own tests
    std::error_code ignored;
    if (fs::read_symlink("/proc/self/fd/" + std::to_string(fd), ignored).string().starts_with("/proc/meminfo"))
      close(fd);
  }
}

// --- The command.

TEST_F(SnapVolume, a_command_that_memory_is_short_for_gives_3_and_the_files_are_removed) {
  requestBoth();
  test::callocFailsFrom = 27 + 2 * 2160;
  EXPECT_EQ(snap(), 3);
  const std::vector<std::string> errors = log.texts(LOG_ERR);
  EXPECT_EQ(errors.back(), "Memory Allocation Failure.\n");
  expectNoSnap();
}

TEST_F(SnapVolume, the_command_carries_every_field_at_its_place) {
  request(first, second, false, true, 7);
  request(second, second, true, true, 0x89ABCDEF);
  ASSERT_EQ(snap(), 0) << log.dump();

  // Both files lie on the second volume, but each volume is searched only for its own new one.
  ASSERT_EQ(snaps().size(), 1u);
  const DriverCall command = snaps()[0];
  const std::size_t entry1 = 24;
  EXPECT_EQ(command.get<std::uint32_t>(entry1 + 2088), 0u);
  const std::size_t entry2 = entry1 + 2160;
  const auto runs = command.get<std::uint32_t>(entry2 + 2088);
  ASSERT_GE(runs, 1u);
  const std::size_t length = 27 + 2 * 2160 + 16 * std::size_t{runs};
  ASSERT_EQ(command.sent.size(), length);

  // Header.
  EXPECT_EQ(command.get<std::uint32_t>(0), 0u);
  EXPECT_EQ(command.get<std::uint32_t>(4), 2u);
  EXPECT_EQ((command.get<std::uint32_t>(8) % 12 + 1234) % 20, command.get<std::uint32_t>(12));
  EXPECT_EQ(command.get<std::uint32_t>(16), length);
  EXPECT_EQ(command.get<std::int32_t>(20), 0);

  const struct {
    std::size_t at;
    const test::Volume& volume;
    std::uint32_t vtrack, usage;
  } expected[] = {{entry1, first, 0, 7}, {entry2, second, 1, 0x89ABCDEF}};
  for (const auto& [at, volume, vtrack, usage] : expected) {
    EXPECT_EQ(command.get<std::uint64_t>(at + 0), kVolumeBytes / 4096);
    EXPECT_EQ(command.get<std::uint32_t>(at + 8), 4096u);
    EXPECT_EQ(command.get<std::uint32_t>(at + 12), kRelocBlocks);
    EXPECT_EQ(command.get<std::uint32_t>(at + 16), SnapDriverInterfaceUtility().calculateHashSize(kRelocBlocks));
    EXPECT_EQ(command.get<std::uint32_t>(at + 20), static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(command.get<std::uint32_t>(at + 24), 7u);
    EXPECT_EQ(command.get<std::uint32_t>(at + 28), volume.loop().minor());
    EXPECT_EQ(command.get<std::uint32_t>(at + 32), 7u);
    EXPECT_EQ(command.get<std::uint32_t>(at + 36), second.loop().minor());
    EXPECT_EQ(command.text(at + 40), relocFile(volume, second));
    EXPECT_EQ(command.text(at + 1064), volume.device());
    EXPECT_EQ(command.get<std::uint32_t>(at + 2092), vtrack);
    EXPECT_EQ(command.get<std::uint32_t>(at + 2096), 1u);
    EXPECT_EQ(command.get<std::uint32_t>(at + 2100), usage);
  }

  // The second entry's runs, right behind its fixed part, are those that the kernel gives once the file is written.
  const int file = open(relocFile(second, second).c_str(), O_RDWR);
  struct stat status {};
  ASSERT_EQ(fstat(file, &status), 0);
  const std::string written(static_cast<std::size_t>(status.st_size), 'w');
  ASSERT_EQ(pwrite(file, written.data(), written.size(), 0), status.st_size);
  ASSERT_EQ(fsync(file), 0);
  std::vector<std::uint64_t> told;
  for (std::uint32_t i = 0; i < runs; ++i) {
    const auto run = command.get<_run>(entry2 + 2144 + 16 * std::size_t{i});
    for (std::uint64_t n = 0; n < run.numBlocks; ++n) told.push_back(run.startBlock + n);
  }
  ASSERT_EQ(told.size(), kRelocBlocks);
  for (int i = 0; i < static_cast<int>(kRelocBlocks); ++i) {
    int block = i;
    ASSERT_EQ(syscall(SYS_ioctl, file, FIBMAP, &block), 0);
    EXPECT_EQ(told[static_cast<std::size_t>(i)], static_cast<std::uint64_t>(block));
  }
  close(file);

  // All else is zero: what follows each text, the GUIDs, the last 16 bytes of each entry and the 3 spare ones.
  std::vector<std::byte> rest = command.sent;
  const auto blank = [&rest](std::size_t at, std::size_t bytes) {
    std::fill_n(rest.begin() + static_cast<std::ptrdiff_t>(at), bytes, std::byte{0});
  };
  blank(0, 24);
  for (const auto& [at, volume, vtrack, usage] : expected) {
    blank(at, 40);
    blank(at + 40, relocFile(volume, second).size());
    blank(at + 1064, volume.device().size());
    blank(at + 2088, 16);
  }
  blank(entry2 + 2144, 16 * std::size_t{runs});
  EXPECT_EQ(std::count(rest.begin(), rest.end(), std::byte{0}), static_cast<std::ptrdiff_t>(rest.size()));
}

TEST_F(SnapVolume, the_hash_size_follows_the_size_of_the_relocation_file) {
  requestFirst().setRelocFileSize(450);
  ASSERT_EQ(snap(), 0) << log.dump();
  EXPECT_EQ(snaps().at(0).get<std::uint32_t>(24 + 12), 450u);
  EXPECT_EQ(snaps()[0].get<std::uint32_t>(24 + 16), 9u);
}

TEST_F(SnapVolume, the_runs_of_one_entry_push_the_next_behind_them) {
  requestBoth();
  driver.intercept(FIBMAP, [](int, void* argument) {
    int& block = *static_cast<int*>(argument);
    block = 1000 + 10 * block;  // every block a run
    return 0;
  });
  ASSERT_EQ(snap(), 0) << log.dump();
  const DriverCall command = snaps().at(0);
  ASSERT_EQ(command.sent.size(), 27 + 2 * (2160 + 16 * std::size_t{kRelocBlocks}));
  for (const std::size_t at : {std::size_t{24}, 24 + 2160 + 16 * std::size_t{kRelocBlocks}}) {
    EXPECT_EQ(command.get<std::uint32_t>(at + 2088), kRelocBlocks);
    for (std::size_t i = 0; i < kRelocBlocks; ++i) {
      EXPECT_EQ(command.get<std::uint64_t>(at + 2144 + 16 * i), 1000 + 10 * i);
      EXPECT_EQ(command.get<std::uint64_t>(at + 2144 + 16 * i + 8), 1u);
    }
    EXPECT_EQ(command.get<std::uint64_t>(at + 2144 + 16 * kRelocBlocks), 0u);
    EXPECT_EQ(command.get<std::uint64_t>(at + 2144 + 16 * kRelocBlocks + 8), 0u);
  }
  EXPECT_EQ(command.text(24 + 2160 + 16 * std::size_t{kRelocBlocks} + 1064), second.device());
}

TEST_F(SnapVolume, a_relocation_file_name_of_more_than_1023_characters_is_cut_in_the_command) {
  std::string deep = second.folder();
  while (deep.size() < 1030) fs::create_directory(deep += "/" + std::string(200, 'd'));
  test::writeFile("/proc/mounts", lineOf(first) + second.device() + " " + deep + " ext4 rw 0 0\n");
  volumes.emplace_back(4096u, kVolumeBytes / 4096, first.wdevice(), kRelocBlocks, widen(deep), false, true, 0u);
  ASSERT_EQ(snap(), 0) << log.dump();
  const std::string file = deep + "/.verrelocarea/" + first.device().substr(5);
  EXPECT_TRUE(fs::exists(file));
  EXPECT_EQ(snaps().at(0).text(24 + 40), file.substr(0, 1023));
}

TEST_F(SnapVolume, commands_are_issued_in_this_order) {
  requestBoth();
  ASSERT_EQ(snap(), 0) << log.dump();
  std::vector<unsigned long> requests;
  for (const DriverCall& call : driver.calls()) requests.push_back(call.request);
  // What placing asks about the volumes stands between the checks and the mappings and is its own.
  requests.erase(std::remove(requests.begin() + 4, requests.end(), IOC_CHECK_VOLUME_SNAPPED), requests.end());
  requests.erase(std::remove(requests.begin() + 4, requests.end(), IOC_CHECK_VOLUME_FROZEN), requests.end());
  EXPECT_THAT(requests,
              ElementsAre(IOC_CHECK_VOLUME_SNAPPED, IOC_CHECK_VOLUME_SNAPPED, IOC_CHECK_VOLUME_FROZEN,
                          IOC_CHECK_VOLUME_FROZEN, IOC_CREATE_RELOC_FILE_MAPPING, IOC_CREATE_RELOC_FILE_MAPPING,
                          IOC_GET_NUM_OF_SNAPPED_VOLUMES, IOC_GET_NUM_OF_SNAPPED_VOLUMES, IOC_SNAP));
}

TEST_F(SnapVolume, a_success_names_the_snapshot_devices_in_request_order_and_keeps_the_files) {
  request(second, second);
  request(first, first);
  names.push_back(L"before");
  ASSERT_EQ(snap(), 0) << log.dump();
  EXPECT_THAT(names, ElementsAre(L"before", widen(snapName(second)), widen(snapName(first))));
  EXPECT_TRUE(fs::exists(relocFile(first, first)));
  EXPECT_TRUE(fs::exists(relocFile(second, second)));
  EXPECT_THAT(driver.calls(IOC_DELETE_RELOC_FILE_MAPPING), IsEmpty());
}

TEST_F(SnapVolume, every_step_is_logged_one_volume_after_the_other) {
  request(first, first, true, false);
  request(second, second);
  ASSERT_EQ(snap(), 0) << log.dump();
  const DriverCall command = snaps().at(0);
  const test::LogLine size = debug("Size of the IOCTL Command: " + std::to_string(command.sent.size()) + ".\n");
  std::vector<test::LogLine> expected{size};
  for (const test::Volume* volume : {&first, &second}) {
    const std::string device = volume->device();
    const std::string file = relocFile(*volume, *volume);
    expected.push_back(
        info("SnapvolName: " + device + ", RelocVolName: " + device + ", RelocFileName: " + file + ".\n"));
    expected.push_back(info("SnapVolName: " + device + ", SnapAccessVolName: " + snapName(*volume) + ".\n"));
    if (volume == &first) expected.push_back(debug("Guid generated : " + command.text(24 + 2104) + "\n"));
    expected.push_back(debug("BS: 4096, numSectors: 2048 , rSize: 5.\n"));
    expected.push_back(debug("SnapVolName: " + device + ", relocFileName: " + file + ".\n"));
    expected.push_back(info("flushing " + device + ".\n"));
  }
  expected.push_back(size);
  const std::vector<test::LogLine> lines = log.lines();
  EXPECT_EQ(std::vector<test::LogLine>(std::find(lines.begin(), lines.end(), size), lines.end()), expected)
      << log.dump();
}

TEST_F(SnapVolume, a_status_word_is_not_looked_at_when_the_request_succeeds) {
  requestFirst();
  driver.status(IOC_SNAP, -2);
  EXPECT_EQ(snap(), 0);
  EXPECT_TRUE(fs::exists(relocFile(first, first)));
}

TEST_F(SnapVolume, each_set_stores_one_utility_object_for_the_command_itself) {
  requestFirst();
  SnapDriverInterfaceUtility* atTheSnap = nullptr;
  driver.on(IOC_SNAP, [&atTheSnap](std::byte*, std::size_t) {
    atTheSnap = SnapDriverInterfaceUtility::mUtilInstance;
    return 0;
  });
  SnapDriverInterfaceUtility* afterThePlacing = nullptr;
  beforeFilling([&afterThePlacing] { afterThePlacing = SnapDriverInterfaceUtility::mUtilInstance; });
  ASSERT_EQ(snap(), 0);
  EXPECT_EQ(atTheSnap, afterThePlacing);
}

// --- Change tracking.

TEST_F(SnapVolume, change_tracking_without_an_independent_snapshot_carries_a_guid) {
  request(first, first, true, false);
  ASSERT_EQ(snap(), 0) << log.dump();
  const std::string guid = snaps().at(0).text(24 + 2104);
  EXPECT_THAT(guid, testing::MatchesRegex("[0-9a-f]+-[0-9a-f]+-1[0-9a-f]+-[0-9a-f]+-[0-9a-f]+"));
  EXPECT_EQ(guid.size(), 36u);
  EXPECT_TRUE(log.has(LOG_DEBUG, "Guid generated : " + guid + "\n")) << log.dump();
  EXPECT_EQ(snaps()[0].get<std::uint32_t>(24 + 2092), 1u);
  EXPECT_EQ(snaps()[0].get<std::uint32_t>(24 + 2096), 0u);
}

TEST_F(SnapVolume, no_other_request_carries_a_guid) {
  for (const auto& [vtrack, independent] : {std::pair{false, false}, {false, true}, {true, true}}) {
    volumes.clear();
    driver.clearCalls();
    request(first, first, vtrack, independent);
    ASSERT_EQ(snap(), 0) << log.dump();
    for (std::size_t i = 0; i < 40; ++i) EXPECT_EQ(snaps().at(0).get<char>(24 + 2104 + i), '\0');
    for (const test::LogLine& line : log.lines()) EXPECT_FALSE(line.text.starts_with("Guid generated"));
  }
}

TEST_F(SnapVolume, a_guid_that_cannot_be_made_gives_3_and_the_files_are_removed) {
  request(first, first, true, false);
  test::fixedTime = timeval{1'000'000'000, 0};
  while (generateTrackingGuid() != "{null}") {
  }
  log.clear();
  EXPECT_EQ(snap(), 3);
  EXPECT_TRUE(log.has(
      LOG_ERR, "Unable to generate UUID for volume (maj, min):(7, " + std::to_string(first.loop().minor()) + ")"))
      << log.dump();
  EXPECT_THAT(names, ElementsAre(widen(snapName(first))));
  expectNoSnap();
}

// --- Devices that go meanwhile.

// The contract: a device that is gone is only logged, and its entry carries the numbers of the volume before.
TEST_F(SnapVolume, a_volume_whose_device_is_gone_gets_the_numbers_of_the_one_before) {
  request(first, first);
  request(second, first);
  beforeFilling([this] { unlink(second.device().c_str()); });
  EXPECT_EQ(snap(), 0) << log.dump();
  const std::size_t entry2 = 24 + 2160 + 16 * std::size_t{snaps().at(0).get<std::uint32_t>(24 + 2088)};
  EXPECT_EQ(snaps()[0].get<std::uint32_t>(entry2 + 24), 7u);
  EXPECT_EQ(snaps()[0].get<std::uint32_t>(entry2 + 28), first.loop().minor());
  EXPECT_EQ(snaps()[0].text(entry2 + 1064), second.device());
  EXPECT_THAT(names, ElementsAre(widen(snapName(first)), widen(snapName(first))));
  EXPECT_EQ(log.count(LOG_ERR, second.device() + ": Device does not exist.\n"), 1u);
  EXPECT_TRUE(log.has(LOG_ERR, "Failed to open devfd for " + second.device() + "\n"));
  EXPECT_FALSE(log.has(LOG_ERR, "Device is invalid: " + second.device() + ".\n"));
  EXPECT_FALSE(log.has(LOG_INFO, "flushing " + second.device() + ".\n"));
  EXPECT_FALSE(log.has(LOG_ERR, "ioctl BLKFLSBUF failed.\n"));
}

TEST_F(SnapVolume, a_volume_whose_device_turned_into_a_file_is_only_logged_too) {
  request(first, first);
  request(second, first);
  beforeFilling([this] {
    unlink(second.device().c_str());
    test::writeFile(second.device(), "");
  });
  EXPECT_EQ(snap(), 0) << log.dump();
  EXPECT_EQ(log.count(LOG_ERR, second.device() + ": is not a valid block device.\n"), 1u);
  EXPECT_THAT(names, ElementsAre(widen(snapName(first)), widen(snapName(first))));
}

TEST_F(SnapVolume, a_first_volume_whose_device_is_gone_gets_zeros) {
  request(first, second);
  beforeFilling([this] { unlink(first.device().c_str()); });
  EXPECT_EQ(snap(), 0) << log.dump();
  EXPECT_THAT(names, ElementsAre(L"/dev/snap0_0"));
}

TEST_F(SnapVolume, a_relocation_volume_that_is_gone_gives_8_and_the_files_are_removed) {
  request(first, second);
  beforeFilling([this] { unlink(second.device().c_str()); });
  EXPECT_EQ(snap(), 8);
  EXPECT_THAT(log.texts(LOG_ERR), IsSupersetOf({second.device() + ": Device does not exist.\n",
                                                "Device is invalid: " + second.device() + ".\n"}));
  EXPECT_THAT(names, ElementsAre(widen(snapName(first))));
  expectNoSnap();
}

TEST_F(SnapVolume, a_relocation_volume_that_is_no_block_device_gives_7_and_the_files_are_removed) {
  request(first, second);
  beforeFilling([this] {
    unlink(second.device().c_str());
    test::writeFile(second.device(), "");
  });
  EXPECT_EQ(snap(), 7);
  EXPECT_THAT(log.texts(LOG_ERR), IsSupersetOf({second.device() + ": is not a valid block device.\n",
                                                "Device is invalid: " + second.device() + ".\n"}));
  expectNoSnap();
}

// --- Flushing.

TEST_F(SnapVolume, each_volume_is_written_out_and_flushed_before_the_command) {
  requestBoth();
  std::vector<std::string> flushed;
  const auto note = [&](const char* what, int descriptor) {
    struct stat status {};
    fstat(descriptor, &status);
    if (!S_ISBLK(status.st_mode)) return;
    EXPECT_EQ(fcntl(descriptor, F_GETFL) & O_ACCMODE, O_RDONLY);
    flushed.push_back(what + std::to_string(minor(status.st_rdev)));
  };
  test::onFsync = [&](int descriptor) { note("fsync ", descriptor); };
  driver.intercept(BLKFLSBUF, [&](int descriptor, void*) -> std::optional<int> {
    EXPECT_THAT(snaps(), IsEmpty());
    note("BLKFLSBUF ", descriptor);
    return std::nullopt;
  });
  EXPECT_EQ(snap(), 0);
  const std::string one = std::to_string(first.loop().minor());
  const std::string two = std::to_string(second.loop().minor());
  EXPECT_THAT(flushed, ElementsAre("fsync " + one, "BLKFLSBUF " + one, "fsync " + two, "BLKFLSBUF " + two));
}

TEST_F(SnapVolume, a_volume_that_cannot_be_flushed_is_snapped_all_the_same) {
  requestFirst();
  driver.intercept(BLKFLSBUF, [](int, void*) { return EACCES; });
  EXPECT_EQ(snap(), 0);
  EXPECT_EQ(log.texts(LOG_ERR).back(), "ioctl BLKFLSBUF failed.\n");
  EXPECT_EQ(snaps().size(), 1u);
}

// --- The driver's refusals.

struct Refusal {
  std::int32_t status;
  int result;
  std::string text;
};

void PrintTo(const Refusal& refusal, std::ostream* out) { *out << refusal.status; }

class RefusedSnap : public SnapVolume, public testing::WithParamInterface<Refusal> {};

TEST_P(RefusedSnap, is_reported_after_the_files_are_removed) {
  requestBoth();
  driver.fail(IOC_SNAP, EBUSY, GetParam().status);
  EXPECT_EQ(snap(), GetParam().result);
  EXPECT_EQ(snaps().size(), 1u);
  expectCleaned();
  EXPECT_THAT(names, ElementsAre(widen(snapName(first)), widen(snapName(second))));
  const std::vector<test::LogLine> lines = log.lines();
  EXPECT_EQ(lines.back(), (test::LogLine{LOG_ERR, 0, "", GetParam().text})) << log.dump();
  EXPECT_EQ(lines[lines.size() - 2].text, "Deleted precreated RelocFile: " + relocFile(second, second) + ".\n");
}

INSTANTIATE_TEST_SUITE_P(Status, RefusedSnap,
                         testing::Values(Refusal{-2, 11, "The Device is already snapped.\n"},
                                         Refusal{-3, 12, "A device is already snapped.\n"},
                                         Refusal{-8, 26, "A device size got changed.\n"},
                                         Refusal{-1, 6, "Device Snap ioctl failed, errno: 16\n"},
                                         Refusal{0, 6, "Device Snap ioctl failed, errno: 16\n"}),
                         [](const auto& refusal) { return "minus_" + std::to_string(-refusal.param.status); });

TEST_F(SnapVolume, a_request_that_answers_anything_but_0_failed) {
  requestBoth();
  driver.fail(IOC_SNAP, -1, -3);
  EXPECT_EQ(snap(), 12);
  expectCleaned();
}

TEST_F(SnapVolume, the_control_device_is_closed_before_the_files_are_removed) {
  requestFirst();
  driver.fail(IOC_SNAP, EBUSY);
  std::size_t open_ = 0;
  driver.on(IOC_DELETE_RELOC_FILE_MAPPING, [&open_](std::byte*, std::size_t) {
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
      std::error_code ignored;
      open_ += fs::read_symlink(entry.path(), ignored) == "/dev/mirelsnapctl";
    }
    return 0;
  });
  EXPECT_EQ(snap(), 6);
  EXPECT_EQ(open_, 1u);  // the withdrawing command's own
}

// --- The lock.

namespace {

DriverLock::Outcome tryLock(DriverLock::Kind kind) {
  DriverLock lock;
  lock.adoptNode();
  return lock.take(kind, std::chrono::seconds(0));
}

}  // namespace

TEST_F(SnapVolume, the_lock_is_shared_from_the_first_mapping_to_the_end_of_the_command) {
  requestBoth();
  std::vector<DriverLock::Outcome> alone, shared;
  const auto look = [&](std::byte*, std::size_t) {
    alone.push_back(tryLock(DriverLock::Kind::kExclusive));
    shared.push_back(tryLock(DriverLock::Kind::kShared));
    return 0;
  };
  driver.on(IOC_CREATE_RELOC_FILE_MAPPING, look);
  driver.on(IOC_SNAP, look);
  EXPECT_EQ(snap(), 0);
  EXPECT_THAT(alone, ElementsAre(DriverLock::Outcome::kBusy, DriverLock::Outcome::kBusy, DriverLock::Outcome::kBusy));
  EXPECT_THAT(shared, ElementsAre(DriverLock::Outcome::kHeld, DriverLock::Outcome::kHeld, DriverLock::Outcome::kHeld));
  EXPECT_EQ(tryLock(DriverLock::Kind::kExclusive), DriverLock::Outcome::kHeld) << "it is given back";
  instance->cleanRelocFiles(&volumes);
}

TEST_F(SnapVolume, a_removal_that_goes_on_is_waited_for) {
  requestFirst();
  DriverLock removal;
  removal.adopt(openDriver());
  ASSERT_EQ(removal.take(DriverLock::Kind::kExclusive, std::chrono::seconds(0)), DriverLock::Outcome::kHeld);
  int result = -1;
  std::thread snapping([&] { result = snap(); });
  EXPECT_FALSE(hasRelocArea(first));
  removal.release();
  snapping.join();
  EXPECT_EQ(result, 0);
  instance->cleanRelocFiles(&volumes);
}

TEST_F(SnapVolume, a_removal_that_makes_no_progress_for_a_minute_gives_3_and_is_named) {
  requestFirst();
  DriverLock removal;
  removal.adopt(openDriver());
  ASSERT_EQ(removal.take(DriverLock::Kind::kExclusive, std::chrono::seconds(0)), DriverLock::Outcome::kHeld);
  test::clockStride = 21;  // the fourth look is after the minute
  EXPECT_EQ(snap(), 3);
  test::clockStride = 0;
  expectUntouched();
  EXPECT_THAT(log.texts(LOG_ERR),
              ElementsAre("Unable to take a snapshot: another process is removing snapshots or relocation files "
                          "(reconcile) and makes no progress; try again when it is done.\n"));
}

TEST_F(SnapVolume, a_descriptor_that_cannot_be_locked_keeps_no_snapshot_from_being_tried) {
  requestFirst();
  test::flockError = ENOLCK;
  EXPECT_EQ(snap(), 0);
  EXPECT_EQ(snaps().size(), 1u);
  instance->cleanRelocFiles(&volumes);
}

// --- The answer is lost.

namespace {

class LostSnap : public SnapVolume {
 protected:
  // The driver takes the snapshots of which `listed` tells, and the request fails.
  void loseAnswer(std::vector<SnappedVolumeEntry> listed) {
    driver.fail(IOC_SNAP, EIO);
    driver.on(IOC_GET_NUM_OF_SNAPPED_VOLUMES, [=, this](std::byte* buffer, std::size_t) {
      reinterpret_cast<_ioctlCmd*>(buffer)->requestValue =
          snaps().empty() ? 0 : static_cast<std::uint32_t>(listed.size());
      return 0;
    });
    driver.on(IOC_GET_SNAPPED_VOL_DETAILS, [=](std::byte* buffer, std::size_t) {
      std::copy(listed.begin(), listed.end(), reinterpret_cast<SnappedVolumeEntry*>(buffer + 24));
      return 0;
    });
    driver.on(IOC_SNAP_DISCARD, [=](std::byte* buffer, std::size_t) {
      auto* discarded = reinterpret_cast<DiscardEntry*>(buffer + 24);
      for (const SnappedVolumeEntry& entry : listed) {
        if (entry.minorNum == discarded->minorNum) std::memcpy(discarded->relocFileName, entry.relocFileName, 1024);
      }
      return 0;
    });
  }
  static SnappedVolumeEntry entry(const test::Volume& volume, const std::string& file, pid_t owner = getpid()) {
    SnappedVolumeEntry entry{};
    entry.majorNum = 7;
    entry.minorNum = volume.loop().minor();
    entry.appPid = owner;
    volume.device().copy(entry.snappedVolumeName, 1023);
    file.copy(entry.relocFileName, 1023);
    return entry;
  }
  std::vector<unsigned int> discarded() const {
    std::vector<unsigned int> minors;
    for (const DriverCall& call : driver.calls(IOC_SNAP_DISCARD)) minors.push_back(call.get<std::uint32_t>(24 + 4));
    return minors;
  }
  std::string keptLine(const test::Volume& volume) const {
    return "The snapshot of " + volume.device() + " may be held though its command failed: relocation file " +
           relocFile(volume, volume) + " is kept; run reconcile when process " + std::to_string(getpid()) +
           " has ended.\n";
  }
};

}  // namespace

TEST_F(LostSnap, what_was_taken_all_the_same_is_discarded_before_its_file_goes) {
  requestBoth();
  loseAnswer({entry(first, relocFile(first, first)), entry(second, relocFile(second, second))});
  EXPECT_EQ(snap(), 6);
  EXPECT_THAT(discarded(), ElementsAre(first.loop().minor(), second.loop().minor()));
  EXPECT_FALSE(hasRelocArea(first));
  EXPECT_FALSE(hasRelocArea(second));
  EXPECT_EQ(log.lines().back().text, "Device Snap ioctl failed, errno: 5\n");
}

TEST_F(LostSnap, a_volume_of_the_set_that_was_not_taken_is_cleaned_as_ever) {
  requestBoth();
  loseAnswer({entry(second, relocFile(second, second))});
  EXPECT_EQ(snap(), 6);
  EXPECT_THAT(discarded(), ElementsAre(second.loop().minor()));
  EXPECT_FALSE(hasRelocArea(first));
  EXPECT_FALSE(hasRelocArea(second));
  ASSERT_EQ(driver.calls(IOC_DELETE_RELOC_FILE_MAPPING).size(), 1u);
  EXPECT_EQ(driver.calls(IOC_DELETE_RELOC_FILE_MAPPING)[0].text(28), first.device());
}

TEST_F(LostSnap, snapshots_of_other_processes_and_of_other_sets_are_left_alone) {
  requestFirst();
  loseAnswer({entry(second, relocFile(second, second)), entry(first, relocFile(first, first), getppid()),
              entry(first, relocFile(first, second))});
  EXPECT_EQ(snap(), 6);
  EXPECT_THAT(discarded(), IsEmpty());
  expectCleaned();
}

TEST_F(LostSnap, one_that_cannot_be_discarded_keeps_its_file_and_its_mapping) {
  requestBoth();
  loseAnswer({entry(first, relocFile(first, first))});
  driver.fail(IOC_SNAP_DISCARD, EIO);
  EXPECT_EQ(snap(), 6);
  EXPECT_TRUE(fs::exists(relocFile(first, first)));
  EXPECT_FALSE(hasRelocArea(second));
  ASSERT_EQ(driver.calls(IOC_DELETE_RELOC_FILE_MAPPING).size(), 1u);
  EXPECT_EQ(driver.calls(IOC_DELETE_RELOC_FILE_MAPPING)[0].text(28), second.device());
  EXPECT_EQ(log.count(LOG_ERR, keptLine(first)), 1u) << log.dump();
  instance->cleanRelocFiles(&volumes);
}

TEST_F(LostSnap, with_a_driver_that_cannot_be_asked_every_file_and_mapping_is_kept) {
  requestBoth();
  loseAnswer({});
  driver.on(IOC_SNAP, [this](std::byte*, std::size_t) {
    driver.fail(IOC_GET_NUM_OF_SNAPPED_VOLUMES, EIO);
    return EIO;
  });
  EXPECT_EQ(snap(), 6);
  for (const test::Volume* volume : {&first, &second}) {
    EXPECT_TRUE(fs::exists(relocFile(*volume, *volume)));
    EXPECT_EQ(log.count(LOG_ERR, keptLine(*volume)), 1u) << log.dump();
  }
  EXPECT_THAT(driver.calls(IOC_DELETE_RELOC_FILE_MAPPING), IsEmpty());
  EXPECT_EQ(log.lines().back().text, "Device Snap ioctl failed, errno: 5\n");
  instance->cleanRelocFiles(&volumes);
}

TEST_F(LostSnap, what_the_driver_refuses_with_its_reasons_asks_it_nothing_more) {
  for (const std::int32_t status : {-2, -3, -8}) {
    requestFirst();
    loseAnswer({entry(first, relocFile(first, first))});
    driver.fail(IOC_SNAP, EBUSY, status);
    EXPECT_NE(snap(), 6);
    EXPECT_EQ(driver.calls().back().request, IOC_DELETE_RELOC_FILE_MAPPING);
    EXPECT_THAT(discarded(), IsEmpty());
    volumes.clear();
  }
}

// --- Memory.

TEST_F(SnapVolume, memory_that_is_short_while_the_command_is_made_removes_the_files) {
  std::size_t reported = 0;
  bool failed = true;
  for (std::size_t n = 0; failed; ++n) {
    SCOPED_TRACE(n);
    volumes.clear();
    names.clear();
    driver.clearCalls();
    log.clear();
    requestBoth();
    std::optional<test::FailingAllocation> shortage;
    beforeFilling([&] {
      if (!shortage) shortage.emplace(n);
    });
    int result = -1;
    try {
      result = snap();
    } catch (const std::bad_alloc&) {
      ADD_FAILURE() << "an allocation failure has left";
    }
    failed = shortage->failed();
    shortage.reset();
    if (result == 0) {
      EXPECT_EQ(snaps().size(), 1u);
      instance->cleanRelocFiles(&volumes);
    } else {
      EXPECT_EQ(result, 3);
      expectNoSnap();
      reported += log.has(LOG_ERR, "Unable to allocate memory.\n");
    }
  }
  EXPECT_GT(reported, 2u);  // two names, each with its place in the list
}
