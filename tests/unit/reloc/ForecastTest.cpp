// SPDX-License-Identifier: Apache-2.0
//
// The forecast answers what making the files then does, and touches nothing.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include "OwnWorld.h"
#include "RelocTest.h"
#include "reloc/RelocationForecast.h"
#include "reloc/RelocationStatus.h"

namespace test {
namespace {

namespace fs = std::filesystem;

class ForecastTest : public RelocTest {
 protected:
  ~ForecastTest() override {
    for (const std::string& area : mAreas) removeTree(area);
  }

  void request(const std::string& device, unsigned int size = 0, const std::string& mountPoint = "") {
    volumes.emplace_back(512, 100000, std::wstring(device.begin(), device.end()), size,
                         std::wstring(mountPoint.begin(), mountPoint.end()), false, true, 0);
  }

  // The forecast of the requests, none of which makes, opens for writing or registers anything.
  std::vector<RelocationForecast> forecast(unsigned long entriesInMemory = 1000000) {
    driver.clearCalls();
    hooks.open = [&](const char* path, int flags, mode_t) {
      if ((flags & (O_WRONLY | O_RDWR | O_CREAT)) != 0) ADD_FAILURE() << "opened for writing: " << path;
      return 0;
    };
    std::list<SnapVolumeInformation> copy = volumes;
    std::vector<RelocationForecast> answers = forecastRelocLocations(copy, entriesInMemory);
    hooks.open = nullptr;
    for (const DriverCall& call : driver.calls()) EXPECT_NE(call.request, IOC_CREATE_RELOC_FILE_MAPPING);
    return answers;
  }

  // Makes the files, and compares what became of the records with the forecast.
  void expectComesTrue(unsigned long entriesInMemory = 1000000) {
    const std::vector<RelocationForecast> answers = forecast(entriesInMemory);
    std::list<SnapVolumeInformation> made = volumes;
    ASSERT_EQ(singleton->deduceRelocLocations(&made, entriesInMemory), 0);
    std::size_t index = 0;
    for (const SnapVolumeInformation& volume : made) {
      const RelocationForecast& answer = answers.at(index++);
      EXPECT_EQ(answer.status, 0u);
      EXPECT_EQ(answer.file, volume.getRelocFileName());
      EXPECT_EQ(answer.device, volume.getRelocVolumeName());
      EXPECT_EQ(answer.blocks, volume.getRelocFileSize());
      EXPECT_EQ(answer.file.substr(0, answer.mountPoint.size() + 1), answer.mountPoint + "/");
      EXPECT_EQ(fs::file_size(answer.file), answer.blocks * 512);
      mAreas.push_back(answer.mountPoint + "/.verrelocarea");
    }
  }

  std::list<SnapVolumeInformation> volumes;

 private:
  std::vector<std::string> mAreas;
};

TEST_F(ForecastTest, a_volume_with_room_keeps_its_file) {
  const std::string device = machine.device("sda");
  machine.mount(device, {100000, 200000});
  request(device);
  expectComesTrue();
  const RelocationForecast answer = forecast().front();
  EXPECT_EQ(answer.reasons.ownVolume, OwnVolume::kFits);
  EXPECT_EQ(answer.reasons.size, RelocSize::kTenthOfFree);
  EXPECT_EQ(answer.blocks, 20000u);
}

TEST_F(ForecastTest, a_volume_with_much_in_use_gets_a_tenth_of_the_smaller_of_free_and_used) {
  const std::string device = machine.device("sda");
  machine.mount(device, {gib(4), 600000});
  request(device);
  expectComesTrue();
  EXPECT_EQ(forecast().front().reasons.size, RelocSize::kTenthOfUsed);
}

TEST_F(ForecastTest, a_volume_with_little_in_use_and_much_free_meets_the_limit) {
  const std::string device = machine.device("sda");
  machine.mount(device, {gib(10), 500});
  request(device);
  const RelocationForecast answer = forecast(10000000).front();
  EXPECT_EQ(answer.blocks, 0x100000u) << "512 MiB";
  EXPECT_EQ(answer.reasons.size, RelocSize::kLimit);
}

TEST_F(ForecastTest, a_full_volume_gives_its_file_to_the_roomiest_other) {
  const std::string full = machine.device("sda");
  const std::string other = machine.device("sdb");
  const std::string roomiest = machine.device("sdc");
  machine.mount(full, {1000, 100000});
  machine.mount(other, {20000, 0});
  machine.mount(roomiest, {30000, 0});
  request(full);
  expectComesTrue();
  const RelocationForecast answer = forecast().front();
  EXPECT_EQ(answer.device, roomiest);
  EXPECT_EQ(answer.reasons.ownVolume, OwnVolume::kNearlyFull);
  EXPECT_EQ(answer.reasons.size, RelocSize::kTenthOfFree);
}

TEST_F(ForecastTest, a_full_volume_keeps_its_file_when_no_other_has_more) {
  const std::string full = machine.device("sda");
  machine.mount(full, {1000, 100000});
  machine.mount(machine.device("sdb"), {1000, 0});
  request(full);
  expectComesTrue();
  const RelocationForecast answer = forecast().front();
  EXPECT_EQ(answer.device, full);
  EXPECT_EQ(answer.reasons.ownVolume, OwnVolume::kNearlyFull);
}

TEST_F(ForecastTest, a_read_only_volume_gives_its_file_away_and_read_only_snapped_and_frozen_others_are_passed_over) {
  const std::string volume = machine.device("sda");
  const std::string readOnly = machine.device("sdb");
  const std::string snapped = machine.device("sdc");
  const std::string frozen = machine.device("sdd");
  const std::string taker = machine.device("sde");
  machine.makeReadOnly(machine.mount(volume, {100000, 100000}));
  const std::string readOnlyFolder = machine.mount(readOnly, {900000, 0});
  machine.makeReadOnly(readOnlyFolder);
  const std::string snappedFolder = machine.mount(snapped, {900000, 0});
  const std::string frozenFolder = machine.mount(frozen, {900000, 0});
  machine.mount(taker, {500000, 0});
  machine.snapped(snapped);
  machine.frozen(frozen);
  request(volume);
  expectComesTrue();
  const RelocationForecast answer = forecast().front();
  EXPECT_EQ(answer.device, taker);
  EXPECT_EQ(answer.reasons.ownVolume, OwnVolume::kNotWritable);
  EXPECT_EQ(answer.reasons.size, RelocSize::kTenthOfVolume);
  EXPECT_EQ(answer.blocks, 10000u);
  ASSERT_EQ(answer.reasons.passedOver.size(), 3u);
  EXPECT_EQ(answer.reasons.passedOver[0].mountPoint, readOnlyFolder);
  EXPECT_EQ(answer.reasons.passedOver[0].why, PassedOver::kNotWritable);
  EXPECT_EQ(answer.reasons.passedOver[1].mountPoint, snappedFolder);
  EXPECT_EQ(answer.reasons.passedOver[1].why, PassedOver::kSnapped);
  EXPECT_EQ(answer.reasons.passedOver[2].mountPoint, frozenFolder);
  EXPECT_EQ(answer.reasons.passedOver[2].why, PassedOver::kFrozen);
}

TEST_F(ForecastTest, fat_is_the_last_resort) {
  const std::string volume = machine.device("sda");
  const std::string fat = machine.device("sdb");
  machine.makeReadOnly(machine.mount(volume, {100000, 100000}));
  machine.mount(fat, {200000, 0, kFat});
  machine.mount(machine.device("sdc"), {100000, 0});
  request(volume);
  expectComesTrue();
  EXPECT_EQ(forecast().front().device, fat);
  EXPECT_TRUE(forecast().front().reasons.fatAsLastResort);
}

TEST_F(ForecastTest, the_drivers_memory_caps_the_files_of_a_set_in_its_order) {
  const std::string first = machine.device("sda");
  const std::string second = machine.device("sdb");
  machine.mount(first, {100000, 200000});
  machine.mount(second, {100000, 200000});
  request(first);
  request(second);
  expectComesTrue(30000);
  const std::vector<RelocationForecast> answers = forecast(30000);
  EXPECT_EQ(answers[0].blocks, 20000u);
  EXPECT_EQ(answers[1].blocks, 10000u);
  EXPECT_EQ(answers[1].reasons.size, RelocSize::kMemory);
}

TEST_F(ForecastTest, without_memory_left_nothing_is_placed) {
  const std::string device = machine.device("sda");
  machine.mount(device, {100000, 200000});
  machine.mount(machine.device("sdb"), {100000, 0});
  request(device);
  const RelocationForecast answer = forecast(0).front();
  EXPECT_NE(answer.status, 0u);
  EXPECT_EQ(answer.file, "");
  EXPECT_TRUE(answer.reasons.beyondMemory);
}

TEST_F(ForecastTest, a_volume_that_cannot_be_placed_leaves_the_others_their_answers) {
  const std::string readOnly = machine.device("sda");
  const std::string good = machine.device("sdb");
  machine.makeReadOnly(machine.mount(readOnly, {100000, 100000}));
  machine.mount(good, {100000, 200000});
  machine.frozen(good);  // takes no other volume's file; its own is not asked for here
  request(readOnly);
  request(good);
  const std::vector<RelocationForecast> answers = forecast();
  EXPECT_EQ(answers[1].device, good);
  EXPECT_EQ(answers[0].status, static_cast<unsigned int>(kRelocNotPlaced));
  EXPECT_EQ(answers[0].file, "");
  EXPECT_EQ(answers[0].mountPoint, "");
  EXPECT_EQ(answers[0].blocks, 0u);
}

TEST_F(ForecastTest, files_promised_to_a_file_system_leave_less_of_it_to_those_after_them) {
  const LoopDevice loop(64 << 20);
  loop.mkfs("ext4");
  const TempDir folder;
  const Mounted mounted(loop.path(), folder.path(), "ext4");
  for (const char* name : {"sda", "sdb"}) {
    const std::string device = machine.device(name);
    machine.makeReadOnly(machine.mount(device, {1000, 1000}));
    request(device);
    volumes.back() = SnapVolumeInformation(512, 10000000, volumes.back().getSnapVolumeName(), false, true, 0);
  }
  machine.list(loop.path(), folder.path());
  const std::vector<RelocationForecast> answers = forecast();
  ASSERT_EQ(answers[0].mountPoint, folder.path());
  ASSERT_EQ(answers[1].mountPoint, folder.path());
  struct statfs sizes {};
  ASSERT_EQ(statfs(folder.path().c_str(), &sizes), 0);
  const std::uint64_t freeKB = sizes.f_bfree * static_cast<std::uint64_t>(sizes.f_bsize) / 1024;
  EXPECT_EQ(answers[0].blocks, freeKB / 10 * 2);
  EXPECT_EQ(answers[1].blocks, (freeKB - freeKB / 10) / 10 * 2);
}

// ---- the caller's choice

TEST_F(ForecastTest, a_chosen_place_and_size_are_taken_as_they_are) {
  const std::string device = machine.device("sda");
  machine.mount(device, {100000, 200000});
  const std::string place = machine.mount(machine.device("sdb"), {100000, 0});
  request(device, 123, place);
  expectComesTrue();
  EXPECT_EQ(forecast().front().reasons.size, RelocSize::kAsked);
}

TEST_F(ForecastTest, a_chosen_place_alone_gets_a_tenth) {
  const std::string device = machine.device("sda");
  machine.mount(device, {100000, 200000});
  const std::string place = machine.mount(machine.device("sdb"), {50000, 0});
  request(device, 0, place);
  expectComesTrue();
  EXPECT_EQ(forecast().front().reasons.size, RelocSize::kTenthOfFree);
}

TEST_F(ForecastTest, a_chosen_size_alone_is_placed_where_it_fits) {
  const std::string device = machine.device("sda");
  machine.mount(device, {10, 0});
  const std::string other = machine.device("sdb");
  machine.mount(other, {100000, 0});
  request(device, 1000);
  expectComesTrue();
  EXPECT_EQ(forecast().front().device, other);
  EXPECT_EQ(forecast().front().reasons.ownVolume, OwnVolume::kNoRoom);
}

TEST_F(ForecastTest, a_chosen_place_is_refused_for_its_reason) {
  const std::string device = machine.device("sda");
  machine.mount(device, {100000, 200000});
  const std::string other = machine.device("sdb");
  const std::string place = machine.mount(other, {10000000, 0, kFat});
  const std::string small = machine.mount(machine.device("sdc"), {1000, 0});
  const auto refusal = [&](unsigned int size, const std::string& where, unsigned long memory = 1UL << 40) {
    volumes.clear();
    request(device, size, where);
    const RelocationForecast answer = forecast(memory).front();
    EXPECT_EQ(answer.status, static_cast<unsigned int>(kRelocInvalidOption));
    EXPECT_EQ(answer.file, "");
    return answer.reasons.chosenMount;
  };
  EXPECT_EQ(refusal(1, "/no/such"), ChosenMount::kNoSuchPath);
  EXPECT_EQ(refusal(1, "/"), ChosenMount::kNotMountPoint);
  EXPECT_EQ(refusal(8000000, small), ChosenMount::kNotEnoughSpace);
  EXPECT_EQ(refusal(2000, place, 1999), ChosenMount::kBeyondMemory);
  EXPECT_EQ(refusal(8388608, place), ChosenMount::kBeyondFileSystem);
  machine.makeReadOnly(place);
  EXPECT_EQ(refusal(1, place), ChosenMount::kNotWritable);
  machine.frozen(other);
  EXPECT_EQ(refusal(1, place), ChosenMount::kFrozen);
  machine.snapped(other);
  EXPECT_EQ(refusal(1, place), ChosenMount::kSnapped);
}

}  // namespace
}  // namespace test
