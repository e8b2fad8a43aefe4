// SPDX-License-Identifier: Apache-2.0
//
// The whole life of a set through the agent's interface; only the driver's answers are the tests'.
#include <gtest/gtest.h>
#include <mirelsnap/SnapshotEngine.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <memory>

#include "LoopVolume.h"
#include "ScriptedDriver.h"
#include "SnapshotDevice.h"
#include "Waiting.h"
#include "Wide.h"
#include "driver/DriverProtocol.h"

using namespace UnixSnapshotCoordinator;
using test::wide;

namespace {

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// Makes a snapshot device when the snap of one volume is asked for, and names its relocation file when it is discarded.
class OneVolumeDriver {
 public:
  explicit OneVolumeDriver(const test::Volume& volume) {
    mDriver.on(IOC_SNAP, [&](std::byte* buffer, std::size_t) {
      std::memcpy(&mSnapped, buffer + sizeof(_ioctlCmd), sizeof mSnapped);
      mSnapshot = std::make_unique<test::SnapshotDevice>(volume);
      return 0;
    });
    mDriver.on(IOC_SNAP_DISCARD, [&](std::byte* buffer, std::size_t) {
      std::memcpy(buffer + sizeof(_ioctlCmd) + offsetof(DiscardEntry, relocFileName), mSnapped.relocFileName,
                  sizeof mSnapped.relocFileName);
      mSnapshot.reset();
      return 0;
    });
  }
  std::string relocationFile() const { return mSnapped.relocFileName; }
  bool snapped() const { return mSnapshot != nullptr; }

 private:
  test::ScriptedDriver mDriver;
  SnapVolumeEntry mSnapped{};
  std::unique_ptr<test::SnapshotDevice> mSnapshot;
};

void takeOneSet(const std::string& type, std::uint64_t bytes) {
  const test::TempDir dir;
  const std::string base = dir / "base";
  const test::Volume volume(type, bytes);
  const test::Volume store("ext4", 32 << 20);
  std::filesystem::create_directories(volume.folder() + volume.folder());
  test::writeFile(volume.folder() + "/file", "then");
  OneVolumeDriver driver(volume);
  IUscSnapshotEngine* engine = GetCreatorFunction()();
  ASSERT_NE(engine, nullptr);

  _SSGUIDPLAIN setId{}, id{}, sameId{};
  ASSERT_EQ(engine->StartSnapshotSet(&setId), S_OK);
  ASSERT_EQ(engine->AddToSnapshotSet(volume.wdevice().c_str(), volume.wfolder().c_str(), &id), S_OK);
  ASSERT_EQ(engine->AddToSnapshotSet(volume.wdevice().c_str(), L"/", &sameId), S_OK);
  ASSERT_EQ(engine->SetOption(id, L"RelocationFileMountPoint", store.wfolder().c_str()), S_OK);
  ASSERT_EQ(engine->SetOption(id, L"RelocationFileSize", L"64"), S_OK);
  IUscAsync* job = nullptr;
  ASSERT_EQ(engine->DoSnapshotSet(&job), S_OK);
  ASSERT_EQ(job->Wait(60000), USC_S_ASYNC_FINISHED);
  int status = 0, snapResult = -1;
  ASSERT_EQ(job->QueryStatus(&status, &snapResult), S_OK);
  ASSERT_EQ(snapResult, 0);
  test::writeFile(volume.folder() + "/file", "now");

  _USC_SNAPSHOT_PROP props{};
  ASSERT_EQ(engine->GetSnapshotProperties(id, &props), S_OK);
  EXPECT_EQ(std::wstring(props.SnapshotDeviceName), L"/dev/snap7_" + std::to_wstring(volume.loop().minor()));
  EXPECT_EQ(std::wstring(props.RelocationFileName), wide(driver.relocationFile()));
  EXPECT_EQ(driver.relocationFile().find(store.folder() + "/.verrelocarea/"), 0u);
  EXPECT_EQ(props.MountPointCount, 2);
  UscFreeSnapshotProperties(&props);

  EXPECT_EQ(engine->ExposeSnapshotsInSnapshotSet(wide(base).c_str()), S_OK);
  EXPECT_EQ(test::readFile(base + "/file"), "then");
  EXPECT_EQ(test::readFile(base + volume.folder() + "/file"), "then");
  int unexposed = 7;
  EXPECT_EQ(engine->IsSnapshotExposed(id, &unexposed), S_OK);
  EXPECT_EQ(unexposed, 0);
  EXPECT_EQ(engine->UnExposeSnapshotsInSnapshotSet(), S_OK);
  EXPECT_FALSE(exists(base));

  EXPECT_TRUE(exists(driver.relocationFile()));
  EXPECT_EQ(engine->DeleteSnapshots(setId, USC_OBJECT_SNAPSHOT_SET), S_OK);
  EXPECT_FALSE(driver.snapped());
  EXPECT_FALSE(exists(store.folder() + "/.verrelocarea"));
  job->Release();
  // The worker lets go of its reference after the job's end.
  EXPECT_TRUE(test::comesTrue([&] {
    engine->AddRef();
    return engine->Release() == 1u;
  }));
  EXPECT_EQ(engine->Release(), 0u);
}

}  // namespace

TEST(WholeSet, of_an_ext4_volume_is_taken_exposed_read_hidden_and_deleted) { takeOneSet("ext4", 16 << 20); }

TEST(WholeSet, of_an_xfs_volume_is_taken_exposed_read_hidden_and_deleted) { takeOneSet("xfs", 300 << 20); }
