// SPDX-License-Identifier: Apache-2.0
//
// Every command of this room as it lies on the wire, byte for byte and written out by hand: what a driver reads.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>

#include "DriverFixture.h"
#include "Interposed.h"

namespace {

using test::DriverCall;
using test::Node;

class Bytes {
 public:
  Bytes& u32(std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) mBytes.push_back(static_cast<std::byte>(value >> shift & 0xFFU));
    return *this;
  }
  Bytes& zeros(std::size_t count) {
    mBytes.insert(mBytes.end(), count, std::byte{0});
    return *this;
  }
  Bytes& text(const std::string& text, std::size_t room) {
    for (const char c : text) mBytes.push_back(static_cast<std::byte>(c));
    return zeros(room - text.size());
  }
  const std::vector<std::byte>& all() const { return mBytes; }

 private:
  std::vector<std::byte> mBytes;
};

class Wire : public test::DriverTest {
 protected:
  Wire() {
    std::srand(1000);  // the clock stands at 1970-01-01 00:00:00
    mHandshakeValue = static_cast<std::uint32_t>(std::rand());
  }
  Bytes command(std::uint32_t requestValue, std::uint32_t length) const {
    Bytes bytes;
    bytes.u32(0).u32(requestValue).u32(mHandshakeValue).u32((mHandshakeValue % 12 + 1234) % 20).u32(length).u32(0);
    return bytes;
  }
  void expectSent(std::size_t index, unsigned long request, const Bytes& bytes) {
    ASSERT_LT(index, kernel.calls().size());
    EXPECT_EQ(kernel.calls()[index].request, request);
    EXPECT_EQ(kernel.calls()[index].sent, bytes.all());
  }
  void answerCount(unsigned long request) {
    kernel.on(request, [](std::byte* buffer, std::size_t) {
      const std::uint32_t count = 2;
      std::memcpy(buffer + 4, &count, sizeof count);
      return 0;
    });
  }

  const test::FakeTime clock{0};
  const Node first{"/dev/vol-1", S_IFBLK, 8, 0x12345}, second{"/dev/vol-2", S_IFBLK, 259, 2};
  std::list<std::wstring> two = {L"/dev/vol-1", L"/dev/vol-2"};

 private:
  std::uint32_t mHandshakeValue;
};

TEST_F(Wire, request_numbers) {
  EXPECT_EQ(IOC_FREEZE, 0xC01C5303U);
  EXPECT_EQ(IOC_THAW, 0xC01C5304U);
  EXPECT_EQ(IOC_SET_LOG_LEVEL, 0xC01C5307U);
  EXPECT_EQ(IOC_DUMP_STATE, 0xC01C5308U);
  EXPECT_EQ(IOC_UPDATE_BITMAP, 0xC01C5309U);
  EXPECT_EQ(IOC_CHECK_VOLUME_SNAPPED, 0xC01C530AU);
  EXPECT_EQ(IOC_GET_NUM_OF_SNAPPED_VOLUMES, 0xC01C530BU);
  EXPECT_EQ(IOC_GET_SNAPPED_VOL_DETAILS, 0xC01C530CU);
  EXPECT_EQ(IOC_CREATE_RELOC_FILE_MAPPING, 0xC01C530DU);
  EXPECT_EQ(IOC_DELETE_RELOC_FILE_MAPPING, 0xC01C530EU);
  EXPECT_EQ(IOC_GET_NUM_OF_RELOC_FILE_MAPPING, 0xC01C530FU);
  EXPECT_EQ(IOC_GET_RELOC_FILE_MAPPING, 0xC01C5310U);
  EXPECT_EQ(IOC_GET_DRIVER_VERSION, 0xC01C5311U);
  EXPECT_EQ(IOC_CHECK_VOLUME_FROZEN, 0xC01C5312U);
  EXPECT_EQ(IOC_SNAP, 0xC01C5313U);
  EXPECT_EQ(IOC_SNAP_DISCARD, 0xC01C5314U);
  EXPECT_EQ(IOC_GET_VDIFF, 0xC01C5315U);
  EXPECT_EQ(IOC_GET_VTRACK_VARS, 0xC01C5316U);
  EXPECT_EQ(IOC_STOP_VTRACK, 0xC01C5317U);
  EXPECT_EQ(IOC_IS_VTRACK_ACTIVE, 0xC01C5318U);
  EXPECT_EQ(IOC_VERIFY_AND_CLEAN_VOLUMES, 0xC01C5319U);
}

TEST_F(Wire, version) {
  std::string version;
  driver().GetDriverVersionDetail(version);
  expectSent(0, 0xC01C5311, command(0, 91).zeros(67));
  EXPECT_EQ(kernel.calls().size(), 1U);
}

TEST_F(Wire, log_level) {
  driver().SetLogLevel(200);
  log.openMask();
  expectSent(0, 0xC01C5307, command(0, 28).u32(200));
  EXPECT_EQ(kernel.calls().size(), 1U);
}

TEST_F(Wire, volume_checks) {
  driver().IsVolumeSnapped("/dev/vol-1");
  driver().IsVolumeFrozen("/dev/vol-2");
  expectSent(0, 0xC01C530A, command(1, 35).u32(8).u32(0x12345).zeros(3));
  expectSent(1, 0xC01C5312, command(1, 35).u32(259).u32(2).zeros(3));
  EXPECT_EQ(kernel.calls().size(), 2U);
}

TEST_F(Wire, freeze_and_thaw) {
  driver().FreezeVolume(&two);
  driver().ThawVolume(&two);
  expectSent(0, 0xC01C5303, command(2, 51).u32(8).u32(0x12345).u32(0).u32(259).u32(2).u32(0).zeros(3));
  expectSent(1, 0xC01C5304, command(2, 51).u32(8).u32(0x12345).u32(0).u32(259).u32(2).u32(0).zeros(3));
  EXPECT_EQ(kernel.calls().size(), 2U);
}

TEST_F(Wire, create_and_delete_mapping) {
  driver().CreateRelocationFileMapping("/dev/vol-1", "/m/.verrelocarea/vol-1", 0x01020304);
  driver().DeleteRelocationFileMapping("/dev/vol-1", -2);
  expectSent(0, 0xC01C530D,
             command(0, 2079).u32(0x01020304).text("/dev/vol-1", 1024).text("/m/.verrelocarea/vol-1", 1024).zeros(3));
  expectSent(1, 0xC01C530E, command(0, 2079).u32(0xFFFFFFFE).text("/dev/vol-1", 1024).zeros(1024).zeros(3));
  EXPECT_EQ(kernel.calls().size(), 2U);
}

TEST_F(Wire, list_of_mappings) {
  answerCount(IOC_GET_NUM_OF_RELOC_FILE_MAPPING);
  std::list<RelocFileMappingInformation> mappings;
  driver().GetRelocFileMapping(mappings);
  expectSent(0, 0xC01C530F, command(0, 28).u32(0));
  expectSent(1, 0xC01C5310, command(2, 4131).zeros(2 * 2052).zeros(3));
  EXPECT_EQ(kernel.calls().size(), 2U);
}

TEST_F(Wire, details_of_snapped_volumes) {
  answerCount(IOC_GET_NUM_OF_SNAPPED_VOLUMES);
  std::list<SnappedVolumeInformation> volumes;
  driver().GetSnappedVolumeDetails(volumes);
  expectSent(0, 0xC01C530B, command(0, 28).u32(0));
  expectSent(1, 0xC01C530C, command(2, 4187).zeros(2 * 2080).zeros(3));
  EXPECT_EQ(kernel.calls().size(), 2U);
}

// What the driver fills in, by hand-written offsets.
TEST_F(Wire, a_snapped_volume_is_read_from_its_offsets) {
  kernel.on(IOC_GET_NUM_OF_SNAPPED_VOLUMES, [](std::byte* buffer, std::size_t) {
    buffer[4] = std::byte{1};
    return 0;
  });
  kernel.on(IOC_GET_SNAPPED_VOL_DETAILS, [](std::byte* buffer, std::size_t) {
    const Bytes record = Bytes().u32(0x55667788).u32(0x11223344).u32(512).u32(3).u32(4).u32(5).u32(0xFFFFFFFE).u32(7);
    std::memcpy(buffer + 24, record.all().data(), 32);
    std::strcpy(reinterpret_cast<char*>(buffer) + 24 + 32, "/reloc");
    std::strcpy(reinterpret_cast<char*>(buffer) + 24 + 1056, "/dev/x");
    return 0;
  });
  std::list<SnappedVolumeInformation> volumes;
  ASSERT_EQ(driver().GetSnappedVolumeDetails(volumes), 0U);
  ASSERT_EQ(volumes.size(), 1U);
  const SnappedVolumeInformation& volume = volumes.front();
  EXPECT_EQ(volume.getNumBlocks(), 0x1122334455667788U);
  EXPECT_EQ(volume.getBlockSize(), 512U);
  EXPECT_EQ(volume.getRelocFileSize(), 3U);
  EXPECT_EQ(volume.getMajorNum(), 4U);
  EXPECT_EQ(volume.getMinorNum(), 5U);
  EXPECT_EQ(volume.getAppPid(), -2);
  EXPECT_EQ(volume.getDeviceState(), 7U);
  EXPECT_EQ(volume.getRelocFileName(), L"/reloc");
  EXPECT_EQ(volume.getSnappedVolumeName(), L"/dev/x");
}

}  // namespace
