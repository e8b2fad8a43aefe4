// SPDX-License-Identifier: Apache-2.0
#include "driver/LinuxSnapLib.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>

#include "DriverFixture.h"
#include "Interposed.h"

namespace {

using test::debug;
using test::DriverTest;
using test::LogCapture;
using test::LogLine;

class LogMask {
 public:
  ~LogMask() { setlogmask(mBefore); }
  static int now() { return setlogmask(0); }

 private:
  int mBefore = setlogmask(0);
};

TEST(Singleton, instance_counts_every_call_and_the_last_release_destroys) {
  const LogMask keep;
  ASSERT_EQ(SnapDriverInterface::mReferenceCount, 0U);
  ASSERT_EQ(SnapDriverInterface::mInstance, nullptr);
  SnapDriverInterface* first = SnapDriverInterface::Instance();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(SnapDriverInterface::mInstance, first);
  EXPECT_EQ(SnapDriverInterface::mReferenceCount, 1U);
  EXPECT_EQ(SnapDriverInterface::Instance(), first);
  EXPECT_EQ(SnapDriverInterface::mReferenceCount, 2U);
  SnapDriverInterface::releaseInstance();
  EXPECT_EQ(SnapDriverInterface::mReferenceCount, 1U);
  EXPECT_EQ(SnapDriverInterface::mInstance, first);
  SnapDriverInterface::releaseInstance();
  EXPECT_EQ(SnapDriverInterface::mReferenceCount, 0U);
  EXPECT_EQ(SnapDriverInterface::mInstance, nullptr);
}

TEST(Singleton, the_first_instance_opens_the_log_up_to_errors_and_a_second_reference_leaves_the_mask) {
  LogCapture log;
  SnapDriverInterface::Instance();
  EXPECT_EQ(LogMask::now(), 0x0F);
  log.openMask();
  SnapDriverInterface::Instance();
  EXPECT_EQ(LogMask::now(), 0xFF);
  syslog(LOG_ERR, "probe");
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].ident, "MIRELSNAP_SDK[" + std::to_string(getpid()) + "]");
  EXPECT_EQ(log.lines()[0].facility, LOG_USER);
  SnapDriverInterface::releaseInstance();
  SnapDriverInterface::releaseInstance();
}

// In a process of its own: loads the built library, has it open the log, unloads it, and logs.
[[noreturn]] void logAfterUnload() {
  void* library = dlopen(MIRELSNAP_SHARED_LIBRARY, RTLD_LAZY);
  if (library == nullptr) _exit(2);
  reinterpret_cast<void* (*)()>(dlsym(library, "_ZN19SnapDriverInterface8InstanceEv"))();
  reinterpret_cast<void (*)()>(dlsym(library, "_ZN19SnapDriverInterface15releaseInstanceEv"))();
  dlclose(library);
  if (dlopen(MIRELSNAP_SHARED_LIBRARY, RTLD_LAZY | RTLD_NOLOAD) != nullptr) _exit(3);
  syslog(LOG_ERR, "after the unload");
  _exit(0);
}

TEST(Singleton, an_agent_that_unloads_the_library_can_go_on_logging) {
  LogCapture log;
  const pid_t child = fork();
  if (child == 0) logAfterUnload();
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].text, "after the unload");
  EXPECT_EQ(log.lines()[0].ident, "MIRELSNAP_SDK[" + std::to_string(child) + "]");
}

class DriverVersion : public DriverTest {};

TEST_F(DriverVersion, comes_from_the_payload_and_replaces_what_was_there) {
  std::string version = "old";
  EXPECT_EQ(driver().GetDriverVersionDetail(version), 0U);
  EXPECT_EQ(version, "scripted");
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{debug("major-minor remained same.\n"),
                                               debug("The Driver Version number is: scripted.\n")}));
}

TEST_F(DriverVersion, a_text_without_a_nul_ends_with_its_67_bytes) {
  kernel.on(IOC_GET_DRIVER_VERSION, [](std::byte* buffer, std::size_t length) {
    std::memset(buffer + 24, 'v', length - 24);
    return 0;
  });
  std::string version;
  EXPECT_EQ(driver().GetDriverVersionDetail(version), 0U);
  EXPECT_EQ(version, std::string(67, 'v'));
  EXPECT_TRUE(log.has(LOG_DEBUG, "The Driver Version number is: " + std::string(67, 'v') + ".\n"));
}

TEST_F(DriverVersion, a_failed_request_gives_6_with_the_snapped_volumes_text) {
  kernel.fail(IOC_GET_DRIVER_VERSION, EPERM);
  std::string version = "old";
  EXPECT_EQ(driver().GetDriverVersionDetail(version), 6U);
  EXPECT_EQ(version, "old");
  EXPECT_EQ(log.texts(LOG_ERR), std::vector<std::string>{"IOC_GET_NUM_OF_SNAPPED_VOLUMES IOCTL failed, errno:1\n"});
}

TEST_F(DriverVersion, without_a_driver_gives_5_and_issues_nothing) {
  unload();
  std::string version = "old";
  EXPECT_EQ(driver().GetDriverVersionDetail(version), 5U);
  EXPECT_EQ(version, "old");
  expectOpenFailure();
}

TEST_F(DriverVersion, a_request_on_a_stale_descriptor_number_fails_with_EBADF) {
  std::filesystem::remove(kControlNode);
  std::filesystem::create_directory(kControlNode);  // opens, has other numbers, cannot be replaced
  std::string version;
  EXPECT_EQ(driver().GetDriverVersionDetail(version), 6U);
  EXPECT_TRUE(kernel.calls().empty());
  EXPECT_TRUE(log.has(LOG_ERR, "IOC_GET_NUM_OF_SNAPPED_VOLUMES IOCTL failed, errno:9\n")) << log.dump();
  std::filesystem::remove(kControlNode);
}

TEST_F(DriverVersion, the_driver_is_enabled_exactly_when_it_tells_its_version) {
  std::string version;
  EXPECT_TRUE(driver().IsDriverEnabled(version));
  EXPECT_EQ(version, "scripted");
  kernel.fail(IOC_GET_DRIVER_VERSION, EIO);
  EXPECT_FALSE(driver().IsDriverEnabled(version));
  unload();
  EXPECT_FALSE(driver().IsDriverEnabled(version));
}

class Transport : public DriverTest {
 protected:
  // How many descriptors of this process lead to the control node.
  static int openControlDevices() {
    int found = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code ignored;
      found += std::filesystem::read_symlink(entry.path(), ignored) == kControlNode;
    }
    return found;
  }
  void answerOneOpen(unsigned long request) {
    kernel.on(request, [](std::byte* buffer, std::size_t) {
      const std::uint32_t count = 1;
      std::memcpy(buffer + 4, &count, sizeof count);
      EXPECT_EQ(openControlDevices(), 1);
      return 0;
    });
  }
};

TEST_F(Transport, every_command_opens_the_control_device_anew_and_closes_it) {
  for (const unsigned long request : {IOC_GET_NUM_OF_RELOC_FILE_MAPPING, IOC_GET_RELOC_FILE_MAPPING,
                                      IOC_GET_NUM_OF_SNAPPED_VOLUMES, IOC_GET_SNAPPED_VOL_DETAILS}) {
    answerOneOpen(request);
  }
  std::list<RelocFileMappingInformation> mappings;
  std::list<SnappedVolumeInformation> volumes;
  EXPECT_EQ(driver().GetRelocFileMapping(mappings), 0U);
  EXPECT_EQ(driver().GetSnappedVolumeDetails(volumes), 0U);
  EXPECT_EQ(kernel.calls().size(), 4U);
  EXPECT_EQ(log.count(LOG_DEBUG, "major-minor remained same.\n"), 4U);
  EXPECT_EQ(openControlDevices(), 0);
}

// A positive result is no success either, whatever the status word says.
TEST_F(Transport, a_request_that_returns_anything_but_0_has_failed) {
  const test::Node device("/dev/vol-1", S_IFBLK, 8, 1);
  const std::string name = "/dev/vol-1";
  std::list<std::wstring> one = {L"/dev/vol-1"};
  std::string text;
  int count = 0;
  unsigned int sequenceNumber = 0;
  std::list<RelocFileMappingInformation> mappings;
  std::list<SnappedVolumeInformation> volumes;
  struct Operation {
    unsigned long request;
    std::int32_t status;  // what would read as true
    std::function<unsigned int()> call;
    unsigned int result;
  };
  const Operation operations[] = {
      {IOC_GET_DRIVER_VERSION, 0, [&] { return driver().GetDriverVersionDetail(text); }, 6},
      {IOC_SET_LOG_LEVEL, 0, [&] { return driver().SetLogLevel(7); }, 6},
      {IOC_CHECK_VOLUME_SNAPPED, -2, [&] { return driver().IsVolumeSnapped(name); }, 0},
      {IOC_CHECK_VOLUME_FROZEN, -6, [&] { return driver().IsVolumeFrozen(name); }, 0},
      {IOC_FREEZE, 0, [&] { return driver().FreezeVolume(&one); }, 3},
      {IOC_THAW, 0, [&] { return driver().ThawVolume(&one); }, 3},
      {IOC_CREATE_RELOC_FILE_MAPPING, 0, [&] { return driver().CreateRelocationFileMapping(name, "/f", 1); }, 6},
      {IOC_DELETE_RELOC_FILE_MAPPING, 0, [&] { return driver().DeleteRelocationFileMapping(name, 1); }, 6},
      {IOC_GET_RELOC_FILE_MAPPING, 0, [&] { return driver().GetRelocFileMapping(mappings); }, 6},
      {IOC_GET_NUM_OF_RELOC_FILE_MAPPING, 0, [&] { return driver().GetNumOfRelocFileMapping(); }, 6},
      {IOC_GET_SNAPPED_VOL_DETAILS, 0, [&] { return driver().GetSnappedVolumeDetails(volumes); }, 6},
      {IOC_GET_NUM_OF_SNAPPED_VOLUMES, 0, [&] { return driver().GetNumOfSnappedVolumes(&count); }, 6},
      {IOC_IS_VTRACK_ACTIVE, 2, [&] { return driver().IsVtrackActive(L"/dev/vol-1"); }, 0},
      {IOC_GET_VTRACK_VARS, 0, [&] { return driver().GetVtrackVars(L"/dev/vol-1", text, sequenceNumber); }, 6},
      {IOC_STOP_VTRACK, 0, [&] { return driver().StopVtrack(&one); }, 6},
      {IOC_DUMP_STATE, 0, [&] { return driver().DumpState(0, 0, L"", L""); }, 6},
  };
  answerOneOpen(IOC_GET_NUM_OF_RELOC_FILE_MAPPING);
  answerOneOpen(IOC_GET_NUM_OF_SNAPPED_VOLUMES);
  for (const Operation& operation : operations) {
    kernel.on(operation.request, [&](std::byte* buffer, std::size_t) {
      std::memcpy(buffer + 20, &operation.status, sizeof operation.status);
      return -1;  // the request call returns 1
    });
    EXPECT_EQ(operation.call(), operation.result) << operation.request;
    EXPECT_EQ(kernel.calls().back().request, operation.request);
  }
}

class LogLevel : public DriverTest {};

TEST_F(LogLevel, opens_the_processs_mask_up_to_the_level) {
  const LogMask keep;
  for (const auto& [level, mask] : {std::pair{7, 0xFF}, std::pair{0, 0x01}, std::pair{3, 0x0F}, std::pair{6, 0x7F},
                                    std::pair{30, 0x7FFFFFFF}, std::pair{32, 0x01}, std::pair{39, 0xFF}}) {
    EXPECT_EQ(driver().SetLogLevel(static_cast<unsigned char>(level)), 0U);
    EXPECT_EQ(LogMask::now(), mask) << level;
  }
}

TEST_F(LogLevel, whose_mask_would_be_empty_leaves_the_mask) {
  const LogMask keep;
  setlogmask(0x0F);
  EXPECT_EQ(driver().SetLogLevel(31), 0U);
  EXPECT_EQ(LogMask::now(), 0x0F);
  EXPECT_EQ(driver().SetLogLevel(255), 0U);
  EXPECT_EQ(LogMask::now(), 0x0F);
}

TEST_F(LogLevel, a_failed_request_gives_6_and_leaves_the_mask) {
  kernel.fail(IOC_SET_LOG_LEVEL, EINVAL);
  const int before = LogMask::now();
  EXPECT_EQ(driver().SetLogLevel(1), 6U);
  EXPECT_EQ(LogMask::now(), before);
  EXPECT_EQ(log.texts(LOG_ERR), std::vector<std::string>{"Set Log Level ioctl failed, errno:22\n"});
}

TEST_F(LogLevel, without_a_driver_gives_5_and_leaves_the_mask) {
  unload();
  const int before = LogMask::now();
  EXPECT_EQ(driver().SetLogLevel(1), 5U);
  EXPECT_EQ(LogMask::now(), before);
  expectOpenFailure();
}

}  // namespace
