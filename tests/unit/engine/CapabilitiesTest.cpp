// SPDX-License-Identifier: Apache-2.0
//
// What the engine says that it can do, and the operations that it does not provide.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <vector>

#include "EngineTest.h"
#include "Locale.h"
#include "LoopVolume.h"
#include "SystemCalls.h"
#include "Waiting.h"
#include "interpose/Allocations.h"

namespace test {
namespace {

class Capabilities : public EngineTest {
 protected:
  Capabilities() { create(); }
  // 1 or 0, as it is written to an output that holds something else before.
  int supported(const std::wstring& volume) {
    int value = 7;
    EXPECT_EQ(engine->IsVolumeSupported(volume.c_str(), &value), S_OK);
    return value;
  }
};

using GetVersionString = Capabilities;
using SupportsSnapshots = Capabilities;
using SupportsPITMultiVolumeSnaps = Capabilities;
using IsVolumeSupported = Capabilities;
using NotProvided = Capabilities;

// --- GetVersionString

TEST_F(GetVersionString, is_the_drivers_text_and_stays_the_engines) {
  const wchar_t* first = nullptr;
  const wchar_t* second = nullptr;
  EXPECT_EQ(engine->GetVersionString(&first), S_OK);
  EXPECT_EQ(engine->GetVersionString(&second), S_OK);
  EXPECT_STREQ(first, L"scripted");
  EXPECT_EQ(first, second);
  EXPECT_EQ(driver.calls(IOC_GET_DRIVER_VERSION).size(), 1u);  // asked at construction only
}

TEST_F(GetVersionString, is_empty_when_the_driver_does_not_answer) {
  release();
  driver.fail(IOC_GET_DRIVER_VERSION, EIO);
  create();
  const wchar_t* version = nullptr;
  EXPECT_EQ(engine->GetVersionString(&version), S_OK);
  EXPECT_STREQ(version, L"");
}

// --- SupportsSnapshots

TEST_F(SupportsSnapshots, asks_the_driver_each_time) {
  int value = 7;
  EXPECT_EQ(engine->SupportsSnapshots(&value), S_OK);
  EXPECT_EQ(value, 1);
  driver.fail(IOC_GET_DRIVER_VERSION, EIO);
  EXPECT_EQ(engine->SupportsSnapshots(&value), S_OK);
  EXPECT_EQ(value, 0);
  EXPECT_EQ(driver.calls(IOC_GET_DRIVER_VERSION).size(), 3u);
}

TEST_F(SupportsSnapshots, a_null_output_is_E_POINTER) {
  EXPECT_EQ(engine->SupportsSnapshots(nullptr), E_POINTER);
  EXPECT_EQ(driver.calls(IOC_GET_DRIVER_VERSION).size(), 1u);
}

TEST_F(SupportsSnapshots, a_shortage_of_memory_is_E_OUTOFMEMORY) {
  driver.on(IOC_GET_DRIVER_VERSION, [](std::byte* buffer, std::size_t) {
    std::strcpy(reinterpret_cast<char*>(buffer) + sizeof(_ioctlCmd), "a version longer than any small string is");
    return 0;
  });
  std::vector<int> answers;
  failEveryAllocation(
      [&] {
        int value = 7;
        answers.push_back(0);  // room, so that the next line allocates nothing of the test's own
        answers.back() = engine->SupportsSnapshots(&value);
      },
      [](std::size_t) {});
  EXPECT_NE(std::find(answers.begin(), answers.end(), E_OUTOFMEMORY), answers.end());
  EXPECT_EQ(answers.back(), S_OK);
}

// --- SupportsPITMultiVolumeSnaps

TEST_F(SupportsPITMultiVolumeSnaps, is_always_1) {
  int value = 7;
  EXPECT_EQ(engine->SupportsPITMultiVolumeSnaps(&value), S_OK);
  EXPECT_EQ(value, 1);
  SnapDriverInterface::releaseInstance();
  engine->mDriver = nullptr;
  value = 7;
  EXPECT_EQ(engine->SupportsPITMultiVolumeSnaps(&value), S_OK);
  EXPECT_EQ(value, 1);
}

TEST_F(SupportsPITMultiVolumeSnaps, a_null_output_is_E_POINTER) {
  EXPECT_EQ(engine->SupportsPITMultiVolumeSnaps(nullptr), E_POINTER);
}

// --- IsVolumeSupported

TEST_F(IsVolumeSupported, a_block_device_with_room_is_1_without_asking_the_driver) {
  const LoopDevice loop(1 << 20);
  driver.clearCalls();
  EXPECT_EQ(supported(loop.wpath()), 1);
  EXPECT_TRUE(driver.calls().empty());
}

TEST_F(IsVolumeSupported, a_link_to_a_block_device_is_1) {
  const LoopDevice loop(1 << 20);
  const TempDir folder;
  const std::string link = folder / "link";
  ASSERT_EQ(symlink(loop.path().c_str(), link.c_str()), 0);
  EXPECT_EQ(supported({link.begin(), link.end()}), 1);
}

TEST_F(IsVolumeSupported, a_block_device_of_size_zero_is_0) {
  const LoopDevice loop(0);
  EXPECT_EQ(supported(loop.wpath()), 0);
}

TEST_F(IsVolumeSupported, a_drive_without_a_medium_is_0_whatever_size_it_tells) {
  const LoopDevice loop(1 << 20);
  const NoMedium none(loop.path());
  EXPECT_EQ(supported(loop.wpath()), 0);
}

TEST_F(IsVolumeSupported, a_write_protected_drive_is_1) {
  const LoopDevice loop(1 << 20);
  const WriteProtected drive(loop.path());
  EXPECT_EQ(supported(loop.wpath()), 1);
}

TEST_F(IsVolumeSupported, what_is_no_block_device_is_0) {
  const TempDir folder;
  const std::string file = folder / "file";
  writeFile(file, "content");
  EXPECT_EQ(supported({file.begin(), file.end()}), 0);
  EXPECT_EQ(supported(L"/dev/null"), 0);
  EXPECT_EQ(supported(L"/mnt"), 0);
}

TEST_F(IsVolumeSupported, a_fifo_is_0_and_nobody_waits_for_its_writer) {
  const TempDir folder;
  const std::string fifo = folder / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  auto answer = std::async(std::launch::async, [&] { return supported({fifo.begin(), fifo.end()}); });
  const bool answered = answer.wait_for(test::kPatience) == std::future_status::ready;
  EXPECT_TRUE(answered);
  if (!answered) close(open(fifo.c_str(), O_RDWR | O_CLOEXEC));  // the writer that it waits for
  EXPECT_EQ(answer.get(), 0);
}

TEST_F(IsVolumeSupported, what_is_not_there_or_cannot_be_opened_is_0) {
  const Node orphan("/dev/orphan", S_IFBLK, 4000, 1);
  EXPECT_EQ(supported(L"/dev/orphan"), 0);
  EXPECT_EQ(supported(L"/dev/missing"), 0);
  EXPECT_EQ(supported(L""), 0);
}

TEST_F(IsVolumeSupported, a_null_volume_is_0) {
  int value = 7;
  EXPECT_EQ(engine->IsVolumeSupported(nullptr, &value), S_OK);
  EXPECT_EQ(value, 0);
}

TEST_F(IsVolumeSupported, a_null_output_is_S_OK_and_nothing_is_looked_at) {
  const AccessedNames accessed;
  EXPECT_EQ(engine->IsVolumeSupported(L"/dev/null", nullptr), S_OK);
  EXPECT_EQ(engine->IsVolumeSupported(nullptr, nullptr), S_OK);
  EXPECT_TRUE(accessed.all().empty());
}

TEST_F(IsVolumeSupported, a_name_of_more_than_4096_characters_is_0_and_never_looked_at) {
  const AccessedNames accessed;
  EXPECT_EQ(supported(std::wstring(4097, L'/')), 0);
  EXPECT_TRUE(accessed.all().empty());
  EXPECT_EQ(supported(std::wstring(4096, L'/')), 0);
  EXPECT_EQ(accessed.all(), std::vector<std::string>{std::string(4096, '/')});
}

TEST_F(IsVolumeSupported, the_bound_counts_characters_not_bytes) {
  const Locale utf8(kUtf8);
  const AccessedNames accessed;
  EXPECT_EQ(supported(std::wstring(4096, L'\x20AC')), 0);
  ASSERT_EQ(accessed.all().size(), 1u);
  EXPECT_EQ(accessed.all()[0].size(), 3u * 4096u);
}

TEST_F(IsVolumeSupported, a_name_that_the_locale_cannot_write_is_0_and_never_looked_at) {
  const AccessedNames accessed;
  EXPECT_EQ(supported(L"/dev/\x20AC"), 0);
  EXPECT_TRUE(accessed.all().empty());
}

TEST_F(IsVolumeSupported, a_name_is_narrowed_in_the_processs_locale) {
  const LoopDevice loop(1 << 20);
  const Node node("/dev/\xE2\x82\xAC", S_IFBLK, loop.major(), loop.minor());
  const Locale utf8(kUtf8);
  EXPECT_EQ(supported(L"/dev/\x20AC"), 1);
}

TEST_F(IsVolumeSupported, without_memory_for_the_name_is_E_OUTOFMEMORY_and_0) {
  int value = 7;
  const NoCalloc none;
  EXPECT_EQ(engine->IsVolumeSupported(L"/dev/null", &value), E_OUTOFMEMORY);
  EXPECT_EQ(value, 0);
  EXPECT_EQ(none.asked(), sizeof "/dev/null");
}

// --- What is not provided

TEST_F(NotProvided, single_snapshots_cannot_be_exposed_whatever_the_state) {
  using namespace MirelSnapSnapshotCoordinator;
  for (const SnapshotState state : {StateUninitialized, StateSnapshotSetStarted, StateSnapshotSetInProgress,
                                    StateSnapshotSetDone, StateSnapshotSetUnDone}) {
    engine->mState = state;
    const wchar_t* name = L"untouched";
    EXPECT_EQ(engine->ExposeSnapshot({}, L"/mnt", &name), E_NOTIMPL);
    EXPECT_STREQ(name, L"untouched");
    EXPECT_EQ(engine->ExposeSnapshot({}, nullptr, nullptr), E_NOTIMPL);
    EXPECT_EQ(engine->UnExposeSnapshot({}), E_NOTIMPL);
    EXPECT_EQ(engine->Cancel(), E_NOTIMPL);
  }
  engine->mState = StateUninitialized;
}

TEST_F(NotProvided, preparing_for_a_backup_does_nothing) {
  auto* async = reinterpret_cast<IUscAsync*>(0x1234);
  EXPECT_EQ(engine->PrepareForBackup(&async), S_OK);
  EXPECT_EQ(async, reinterpret_cast<IUscAsync*>(0x1234));
  EXPECT_EQ(engine->PrepareForBackup(nullptr), S_OK);
  EXPECT_EQ(engine->mState, MirelSnapSnapshotCoordinator::StateUninitialized);
}

}  // namespace
}  // namespace test
