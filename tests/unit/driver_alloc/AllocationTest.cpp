// SPDX-License-Identifier: Apache-2.0
//
// What each operation of the driver interface does when memory is short: the n-th allocation of a kind fails.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <new>
#include <utility>

#include "LogCapture.h"
#include "ScriptedDriver.h"
#include "World.h"
#include "driver/DriverCommand.h"
#include "driver/LinuxSnapLib.h"
#include "interpose/Allocations.h"

namespace {

// One kind of allocation; counts from construction to destruction and fails one.
class Kind {
 public:
  // Whether this allocation is to fail.
  bool refuses(std::size_t bytes) {
    mSizes.push_back(bytes);
    return mSizes.size() == mFailing;
  }
  // What it gave instead.
  void* gives(void* memory) {
    mGiven += static_cast<std::ptrdiff_t>(malloc_usable_size(memory));
    return memory;
  }
  void failNext(std::size_t which) {
    mSizes.clear();
    mGiven = 0;
    mFailing = which;
  }
  const std::vector<std::size_t>& sizes() const { return mSizes; }
  // As the allocator rounds them.
  std::ptrdiff_t givenBytes() const { return mGiven; }

 private:
  std::vector<std::size_t> mSizes;
  std::ptrdiff_t mGiven = 0;
  std::size_t mFailing = 0;
};

Kind zeroed, single, array;

}  // namespace

extern "C" {
void* __real_calloc(std::size_t count, std::size_t size);
void* __real__ZnwmRKSt9nothrow_t(std::size_t bytes, const std::nothrow_t& tag);
void* __real__ZnamRKSt9nothrow_t(std::size_t bytes, const std::nothrow_t& tag);

void* __wrap_calloc(std::size_t count, std::size_t size) {
  return zeroed.refuses(count * size) ? nullptr : __real_calloc(count, size);
}
void* __wrap__ZnwmRKSt9nothrow_t(std::size_t bytes, const std::nothrow_t& tag) {
  return single.refuses(bytes) ? nullptr : single.gives(__real__ZnwmRKSt9nothrow_t(bytes, tag));
}
void* __wrap__ZnamRKSt9nothrow_t(std::size_t bytes, const std::nothrow_t& tag) {
  return array.refuses(bytes) ? nullptr : __real__ZnamRKSt9nothrow_t(bytes, tag);
}
}

namespace {

using test::LogCapture;
using test::Node;

class Allocation : public testing::Test {
 protected:
  Allocation() { log.openMask(); }
  ~Allocation() override {
    none();
    SnapDriverInterface::releaseInstance();
  }

  static void none() {
    for (Kind* kind : {&zeroed, &single, &array}) kind->failNext(0);
  }

  // Runs `operation` with the `which`-th allocation of `kind` failing. Checks that `text` is the only error, that the
  // stored helper stays when its successor cannot be made, and gives how many commands were issued.
  std::size_t issuedWithout(Kind& kind, std::size_t which, const std::string& text,
                            const std::function<void()>& operation) {
    none();
    log.clear();
    kernel.clearCalls();
    SnapDriverInterfaceUtility* before = SnapDriverInterfaceUtility::mUtilInstance;
    kind.failNext(which);
    operation();
    EXPECT_GE(kind.sizes().size(), which) << "nothing was made to fail";
    none();
    EXPECT_EQ(log.texts(LOG_ERR), std::vector<std::string>{text}) << log.dump();
    if (kernel.calls().empty()) {
      EXPECT_EQ(SnapDriverInterfaceUtility::mUtilInstance, before);
    }
    return kernel.calls().size();
  }
  // As above for the one command of an operation: neither its buffer nor its helper can be had.
  void expectShortMemory(const std::string& text, const std::function<void()>& operation) {
    EXPECT_EQ(issuedWithout(zeroed, 1, text, operation), 0U);
    EXPECT_EQ(issuedWithout(single, 1, text, operation), 0U);
  }
  void answerCount(unsigned long request, std::uint32_t count) {
    kernel.on(request, [=](std::byte* buffer, std::size_t) {
      std::memcpy(buffer + 4, &count, sizeof count);
      return 0;
    });
  }

  LogCapture log;
  test::ScriptedDriver kernel;
  SnapDriverInterface& driver = *SnapDriverInterface::Instance();
  const Node volume{"/dev/vol-1", S_IFBLK, 8, 1};
  std::list<std::wstring> one = {L"/dev/vol-1"};
};

TEST(SingletonAllocation, no_instance_is_null_and_still_counted) {
  single.failNext(1);
  EXPECT_EQ(SnapDriverInterface::Instance(), nullptr);
  EXPECT_EQ(SnapDriverInterface::mReferenceCount, 1U);
  single.failNext(0);
  EXPECT_NE(SnapDriverInterface::Instance(), nullptr);
  EXPECT_EQ(SnapDriverInterface::mReferenceCount, 2U);
  SnapDriverInterface::releaseInstance();
  EXPECT_NE(SnapDriverInterface::mInstance, nullptr);
  SnapDriverInterface::releaseInstance();
  EXPECT_EQ(SnapDriverInterface::mInstance, nullptr);
}

TEST_F(Allocation, version) {
  expectShortMemory("Error Allocating memory.\n", [&] {
    std::string version = "old";
    EXPECT_EQ(driver.GetDriverVersionDetail(version), 3U);
    EXPECT_EQ(version, "old");
  });
}

TEST_F(Allocation, log_level) {
  expectShortMemory("Memory alocation failed.\n", [&] { EXPECT_EQ(driver.SetLogLevel(7), 3U); });
}

TEST_F(Allocation, volume_checks_read_as_false) {
  kernel.status(IOC_CHECK_VOLUME_SNAPPED, -2);
  kernel.status(IOC_CHECK_VOLUME_FROZEN, -6);
  expectShortMemory("Error Allocating memory.\n", [&] { EXPECT_FALSE(driver.IsVolumeSnapped("/dev/vol-1")); });
  expectShortMemory("Error Allocating memory.\n", [&] { EXPECT_FALSE(driver.IsVolumeFrozen("/dev/vol-1")); });
}

TEST_F(Allocation, freeze_and_thaw) {
  const auto freeze = [&] { EXPECT_EQ(driver.FreezeVolume(&one), 3U); };
  const auto thaw = [&] { EXPECT_EQ(driver.ThawVolume(&one), 3U); };
  expectShortMemory("Error Allocating memory.\n", freeze);
  expectShortMemory("Error Allocating memory.\n", thaw);
  EXPECT_EQ(issuedWithout(array, 1, "Error Allocating memory.\n", freeze), 0U);
  EXPECT_EQ(issuedWithout(array, 1, "Error Allocating memory.\n", thaw), 0U);
}

TEST_F(Allocation, the_pairs_of_a_freeze_come_before_the_names_and_the_device) {
  std::list<std::wstring> missing = {L"/dev/nothing"};
  EXPECT_EQ(
      issuedWithout(array, 1, "Error Allocating memory.\n", [&] { EXPECT_EQ(driver.FreezeVolume(&missing), 3U); }), 0U);
  EXPECT_TRUE(log.lines().size() == 1) << log.dump();
}

TEST_F(Allocation, create_and_delete_mapping) {
  expectShortMemory("Error Allocating memory.\n",
                    [&] { EXPECT_EQ(driver.CreateRelocationFileMapping("/dev/vol-1", "/f", 1), 3U); });
  expectShortMemory("Error Allocating memory.\n",
                    [&] { EXPECT_EQ(driver.DeleteRelocationFileMapping("/dev/vol-1", 1), 3U); });
}

TEST_F(Allocation, count_of_mappings) {
  expectShortMemory("Memory Allocation Failed.\n", [&] { EXPECT_EQ(driver.GetNumOfRelocFileMapping(), 3U); });
}

TEST_F(Allocation, list_of_mappings) {
  answerCount(IOC_GET_NUM_OF_RELOC_FILE_MAPPING, 2);
  std::list<RelocFileMappingInformation> mappings;
  const auto list = [&] { EXPECT_EQ(driver.GetRelocFileMapping(mappings), 3U); };
  EXPECT_EQ(issuedWithout(zeroed, 2, "Error Allocating memory.\n", list), 1U);
  EXPECT_EQ(issuedWithout(single, 2, "Error Allocating memory.\n", list), 1U);
  EXPECT_TRUE(mappings.empty());
}

TEST_F(Allocation, a_count_of_mappings_that_found_memory_short_is_used_as_the_count_3) {
  std::list<RelocFileMappingInformation> mappings;
  EXPECT_EQ(issuedWithout(zeroed, 1, "Memory Allocation Failed.\n",
                          [&] { EXPECT_EQ(driver.GetRelocFileMapping(mappings), 0U); }),
            1U);
  EXPECT_EQ(kernel.calls().at(0).request, IOC_GET_RELOC_FILE_MAPPING);
  EXPECT_EQ(kernel.calls().at(0).header().requestValue, 3U);
}

TEST_F(Allocation, the_longest_list_of_mappings_is_what_the_length_field_can_express) {
  std::list<RelocFileMappingInformation> mappings;
  answerCount(IOC_GET_NUM_OF_RELOC_FILE_MAPPING, 2093063);
  EXPECT_EQ(issuedWithout(zeroed, 2, "Error Allocating memory.\n",
                          [&] {
                            EXPECT_EQ(driver.GetRelocFileMapping(mappings), 3U);
                            EXPECT_EQ(zeroed.sizes().back(), 2093063UL * 2052 + 27);
                          }),
            1U);
  answerCount(IOC_GET_NUM_OF_RELOC_FILE_MAPPING, 2093064);
  zeroed.failNext(0);
  EXPECT_EQ(driver.GetRelocFileMapping(mappings), 3U);
  EXPECT_EQ(zeroed.sizes(), std::vector<std::size_t>{28}) << "only the count's command is asked for";
}

TEST_F(Allocation, count_of_snapped_volumes_needs_only_its_helper) {
  int count = -1;
  EXPECT_EQ(issuedWithout(single, 1, "Error Allocating memory.\n",
                          [&] { EXPECT_EQ(driver.GetNumOfSnappedVolumes(&count), 3U); }),
            0U);
  EXPECT_EQ(count, -1);
  zeroed.failNext(1);
  EXPECT_EQ(driver.GetNumOfSnappedVolumes(&count), 0U);
  EXPECT_TRUE(zeroed.sizes().empty());
}

TEST_F(Allocation, details_of_snapped_volumes) {
  answerCount(IOC_GET_NUM_OF_SNAPPED_VOLUMES, 2);
  std::list<SnappedVolumeInformation> volumes;
  const auto list = [&] { EXPECT_EQ(driver.GetSnappedVolumeDetails(volumes), 3U); };
  EXPECT_EQ(issuedWithout(zeroed, 1, "Error Allocating memory.\n", list), 1U);
  EXPECT_EQ(issuedWithout(single, 2, "Error Allocating memory.\n", list), 1U);
  EXPECT_TRUE(volumes.empty());
}

TEST_F(Allocation, details_whose_count_found_memory_short_give_6) {
  std::list<SnappedVolumeInformation> volumes;
  none();
  single.failNext(1);
  EXPECT_EQ(driver.GetSnappedVolumeDetails(volumes), 6U);
  EXPECT_EQ(log.texts(LOG_ERR), (std::vector<std::string>{"Error Allocating memory.\n",
                                                          "Unable to obtained the number of snapped volumes.\n"}));
}

TEST_F(Allocation, change_tracking_that_reads_as_false) {
  kernel.status(IOC_IS_VTRACK_ACTIVE, 2);
  expectShortMemory("Error Allocating memory.\n", [&] { EXPECT_FALSE(driver.IsVtrackActive(L"/dev/vol-1")); });
}

TEST_F(Allocation, tracking_identity) {
  expectShortMemory("Error Allocating memory.\n", [&] {
    std::string guid = "old";
    unsigned int sequenceNumber = 7;
    EXPECT_EQ(driver.GetVtrackVars(L"/dev/vol-1", guid, sequenceNumber), 3U);
    EXPECT_EQ(guid, "old");
    EXPECT_EQ(sequenceNumber, 7U);
  });
}

TEST_F(Allocation, bitmaps_find_memory_short_before_the_missing_driver) {
  std::wstring name = L"/dev/vol-1";
  _run run{};
  SectorBitmap bitmap(name, 1, &run);
  expectShortMemory("Memory allocation failure.\n", [&] { EXPECT_EQ(driver.GetVtrackBitmap(bitmap), 3U); });
  expectShortMemory("Memory allocation failure.\n", [&] { EXPECT_EQ(driver.UpdateUsedSectorBitmap(bitmap), 3U); });
  std::remove("/proc/mirelsnap/dev");
  expectShortMemory("Memory allocation failure.\n", [&] { EXPECT_EQ(driver.GetVtrackBitmap(bitmap), 3U); });
  expectShortMemory("Memory allocation failure.\n", [&] { EXPECT_EQ(driver.UpdateUsedSectorBitmap(bitmap), 3U); });
}

TEST_F(Allocation, stopping_change_tracking) {
  const auto stop = [&] { EXPECT_EQ(driver.StopVtrack(&one), 3U); };
  expectShortMemory("Error Allocating memory.\n", stop);
  EXPECT_EQ(issuedWithout(array, 1, "Error Allocating memory.\n", stop), 0U);
}

TEST_F(Allocation, dump_of_the_state) {
  expectShortMemory("Memory alocation failed.\n", [&] { EXPECT_EQ(driver.DumpState(0, 1, L"", L"/f"), 3U); });
}

// What throws while names are copied leaves the caller's list as it was; the leak check sees to buffer and descriptor.
TEST_F(Allocation, a_list_that_runs_out_of_memory_half_way_adds_nothing) {
  answerCount(IOC_GET_NUM_OF_RELOC_FILE_MAPPING, 2);
  answerCount(IOC_GET_NUM_OF_SNAPPED_VOLUMES, 2);
  const std::string name(1000, 'n');
  kernel.on(IOC_GET_RELOC_FILE_MAPPING, [&](std::byte* buffer, std::size_t) {
    for (const std::size_t at : {28, 1052, 2080, 3104}) std::memcpy(buffer + at, name.data(), name.size());
    return 0;
  });
  kernel.on(IOC_GET_SNAPPED_VOL_DETAILS, [&](std::byte* buffer, std::size_t) {
    for (const std::size_t at : {56, 1080, 2136, 3160}) std::memcpy(buffer + at, name.data(), name.size());
    return 0;
  });
  const std::size_t ofAName = name.size() + 1;
  std::list<RelocFileMappingInformation> mappings;
  std::list<SnappedVolumeInformation> volumes;
  for (std::size_t n = 0; n < 4; ++n) {  // each record reads two names
    const test::FailingAllocation failing(n, ofAName);
    EXPECT_THROW(driver.GetRelocFileMapping(mappings), std::bad_alloc) << n;
    EXPECT_TRUE(mappings.empty()) << n;
  }
  for (std::size_t n = 0; n < 4; ++n) {
    const test::FailingAllocation failing(n, ofAName);
    EXPECT_THROW(driver.GetSnappedVolumeDetails(volumes), std::bad_alloc) << n;
    EXPECT_TRUE(volumes.empty()) << n;
  }
}

// Every operation with one command, by what it answers without a driver.
TEST_F(Allocation, a_missing_driver_is_found_before_memory_is_short) {
  std::remove("/proc/mirelsnap/dev");
  std::string version;
  int count = 0;
  unsigned int sequenceNumber = 0;
  const std::function<unsigned int()> operations[] = {
      [&] { return driver.GetDriverVersionDetail(version); },
      [&] { return driver.SetLogLevel(7); },
      [&] { return driver.FreezeVolume(&one); },
      [&] { return driver.ThawVolume(&one); },
      [&] { return driver.CreateRelocationFileMapping("/dev/vol-1", "/f", 1); },
      [&] { return driver.DeleteRelocationFileMapping("/dev/vol-1", 1); },
      [&] { return driver.GetNumOfRelocFileMapping(); },
      [&] { return driver.GetNumOfSnappedVolumes(&count); },
      [&] { return driver.UnSnapVolume(&one, false); },
      [&] { return driver.GetVtrackVars(L"/dev/vol-1", version, sequenceNumber); },
      [&] { return driver.StopVtrack(&one); },
      [&] { return driver.DumpState(0, 1, L"", L"/f"); },
  };
  for (const auto& operation : operations) {
    for (Kind* kind : {&zeroed, &single}) {
      none();
      kind->failNext(1);
      EXPECT_EQ(operation(), 5U) << &operation - operations;
      EXPECT_TRUE(kind->sizes().empty());
    }
  }
}

TEST_F(Allocation, checks_that_read_as_false_find_a_missing_driver_before_memory_is_short) {
  std::remove("/proc/mirelsnap/dev");
  const std::function<bool()> checks[] = {
      [&] { return driver.IsVolumeSnapped("/dev/vol-1"); },
      [&] { return driver.IsVolumeFrozen("/dev/vol-1"); },
      [&] { return driver.IsVtrackActive(L"/dev/vol-1"); },
  };
  for (const auto& check : checks) {
    for (Kind* kind : {&zeroed, &single}) {
      none();
      kind->failNext(1);
      EXPECT_FALSE(check()) << &check - checks;
      EXPECT_TRUE(kind->sizes().empty()) << &check - checks;
    }
  }
}

TEST_F(Allocation, a_command_leaves_its_helper_and_nothing_else) {
  answerCount(IOC_GET_NUM_OF_RELOC_FILE_MAPPING, 1);
  answerCount(IOC_GET_NUM_OF_SNAPPED_VOLUMES, 1);
  std::string version;
  unsigned int sequenceNumber = 0;
  std::wstring name = L"/dev/vol-1";
  _run run{};
  SectorBitmap bitmap(name, 1, &run);
  const std::pair<std::size_t, std::function<void()>> operations[] = {
      {1, [&] { driver.GetDriverVersionDetail(version); }},
      {1, [&] { driver.SetLogLevel(7); }},
      {1, [&] { driver.IsVolumeSnapped("/dev/vol-1"); }},
      {1, [&] { driver.IsVolumeFrozen("/dev/vol-1"); }},
      {1, [&] { driver.FreezeVolume(&one); }},
      {1, [&] { driver.ThawVolume(&one); }},
      {1, [&] { driver.CreateRelocationFileMapping("/dev/vol-1", "/f", 1); }},
      {1, [&] { driver.DeleteRelocationFileMapping("/dev/vol-1", 1); }},
      {1, [&] { driver.UnSnapVolume(&one, false); }},
      {1, [&] { driver.IsVtrackActive(L"/dev/vol-1"); }},
      {1, [&] { driver.GetVtrackVars(L"/dev/vol-1", version, sequenceNumber); }},
      {1, [&] { driver.GetVtrackBitmap(bitmap); }},
      {1, [&] { driver.UpdateUsedSectorBitmap(bitmap); }},
      {1, [&] { driver.StopVtrack(&one); }},
      {1, [&] { driver.DumpState(0, 1, L"", L"/f"); }},
      {2,
       [&] {
         std::list<RelocFileMappingInformation> mappings;
         driver.GetRelocFileMapping(mappings);
       }},
      {2,
       [&] {
         std::list<SnappedVolumeInformation> volumes;
         driver.GetSnappedVolumeDetails(volumes);
       }},
  };
  for (const auto& [commands, operation] : operations) {
    std::ptrdiff_t held = 0;
    for (int round = 0; round < 2; ++round) {  // the first leaves the test's own books their room
      kernel.clearCalls();
      held = test::heldBytes();
      none();
      operation();
      EXPECT_EQ(kernel.calls().size(), commands);
      kernel.clearCalls();
    }
    EXPECT_EQ(single.sizes(), std::vector<std::size_t>(commands, sizeof(SnapDriverInterfaceUtility)));
    EXPECT_EQ(test::heldBytes() - held, single.givenBytes());
  }
}

TEST_F(Allocation, the_stored_helper_stays_when_its_successor_cannot_be_made) {
  SnapDriverInterfaceUtility* stored = storeFreshUtility();
  ASSERT_NE(stored, nullptr);
  single.failNext(1);
  EXPECT_EQ(storeFreshUtility(), nullptr);
  EXPECT_EQ(SnapDriverInterfaceUtility::mUtilInstance, stored);
}

}  // namespace
