// SPDX-License-Identifier: Apache-2.0
//
// The commands: what is refused, and what the lists say.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <random>

#include "Driver.h"

namespace guest {
namespace {

Command countCommand() { return Command(IOC_GET_NUM_OF_SNAPPED_VOLUMES, 0, 28); }

template <class T>
void corrupt(Command& command, std::size_t offset, T value) {
  command.put(offset, value);
}

SnapVolume pretended(const std::string& volume, const std::string& relocFile) {
  SnapVolume made;
  volume.copy(made.entry.volumeName, kDriverPathSize - 1);
  relocFile.copy(made.entry.relocFileName, kDriverPathSize - 1);
  made.entry.appPid = static_cast<std::uint32_t>(getpid());
  return made;
}

TEST(Commands, the_version_is_a_text) {
  Command command(IOC_GET_DRIVER_VERSION, 0, 91);
  ASSERT_EQ(command.issue(), 0);
  EXPECT_STREQ(command.record<DriverVersionPayload>(0).version, "mirelsnap 1.0.0");
}

TEST(Commands, an_unknown_request_is_refused_with_ENOTTY) {
  for (unsigned int number : {0u, 1u, 2u, 5u, 6u, 26u, 255u}) {
    Command command(driverRequest(number), 0, 28);
    EXPECT_EQ(command.issue(), ENOTTY) << number;
  }
}

TEST(Commands, a_command_of_a_process_without_the_right_is_refused_with_EPERM) {
  const pid_t child = fork();
  if (child == 0) {
    Command command = countCommand();
    command.issue();  // makes the node
    if (setresuid(65534, 65534, 65534) != 0) _exit(100);
    int error = 0;
    try {
      error = command.issue();
    } catch (const std::exception&) {
      error = 101;  // the node is not for everybody either
    }
    _exit(error);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WEXITSTATUS(status) == EPERM || WEXITSTATUS(status) == 101) << WEXITSTATUS(status);
}

TEST(Commands, a_header_that_is_not_in_order_is_refused_with_EINVAL) {
  {
    Command command = countCommand();
    corrupt<std::uint32_t>(command, offsetof(_ioctlCmd, flags), 1);
    EXPECT_EQ(command.issue(), EINVAL);
  }
  {
    Command command = countCommand();
    corrupt<std::uint32_t>(command, offsetof(_ioctlCmd, requestValue), 1);
    EXPECT_EQ(command.issue(), EINVAL);
  }
  {
    Command command = countCommand();
    corrupt<std::uint32_t>(command, offsetof(_ioctlCmd, handshakeCheck), 20);
    EXPECT_EQ(command.issue(), EINVAL);
  }
  {
    Command command = countCommand();
    corrupt<std::int32_t>(command, offsetof(_ioctlCmd, driverStatus), -2);
    EXPECT_EQ(command.issue(), EINVAL);
  }
  for (std::uint32_t length : {0u, 24u, 27u, 29u, 0xffffffffu}) {
    Command command = countCommand();
    corrupt<std::uint32_t>(command, offsetof(_ioctlCmd, length), length);
    EXPECT_EQ(command.issue(), EINVAL) << length;
  }
}

TEST(Commands, a_spare_byte_that_is_not_zero_is_refused_with_EINVAL) {
  Command command = countCommand();
  corrupt<unsigned char>(command, 27, 1);
  EXPECT_EQ(command.issue(), EINVAL);
}

TEST(Commands, verify_and_clean_takes_a_buffer_whose_other_bytes_mean_nothing) {
  Command command(IOC_VERIFY_AND_CLEAN_VOLUMES, 0, 28);
  corrupt<std::uint32_t>(command, offsetof(_ioctlCmd, flags), 0xdeadbeef);
  corrupt<std::int32_t>(command, offsetof(_ioctlCmd, driverStatus), 77);
  corrupt<unsigned char>(command, 25, 9);
  EXPECT_EQ(command.issue(), 0);
  corrupt<unsigned char>(command, 24, 9);
  EXPECT_EQ(command.issue(), EINVAL);
}

TEST(Commands, a_buffer_that_cannot_be_read_is_refused_with_EFAULT) {
  Command command(IOC_GET_SNAPPED_VOL_DETAILS, 100, 27 + 100 * sizeof(SnappedVolumeEntry));
  // A page of memory, and nothing after it.
  void* page = mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(page, MAP_FAILED);
  ASSERT_EQ(munmap(static_cast<char*>(page) + 4096, 4096), 0);
  std::memcpy(page, command.bytes().data(), 4096);
  const int control = open("/dev/mirelsnapctl", O_RDONLY);
  ASSERT_GE(control, 0);
  EXPECT_EQ(ioctl(control, command.request(), page), -1);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(ioctl(control, command.request(), nullptr), -1);
  EXPECT_EQ(errno, EFAULT);
  close(control);
  munmap(page, 4096);
}

TEST(Commands, a_log_level_above_7_is_refused) {
  Command command(IOC_SET_LOG_LEVEL, 0, 28);
  command.putRecord(0, LogLevelPayload{8});
  EXPECT_EQ(command.issue(), EINVAL);
  command.putRecord(0, LogLevelPayload{7});
  EXPECT_EQ(command.issue(), 0);
  EXPECT_NE(dumpedState().find("log level: 7\n"), std::string::npos);
  command.putRecord(0, LogLevelPayload{3});
  EXPECT_EQ(command.issue(), 0);
}

TEST(Commands, a_volume_named_twice_is_refused) {
  EXPECT_EQ(freeze({"/dev/vda", "/dev/vdb", "/dev/vda"}), (Result{EINVAL, 0}));
  EXPECT_EQ(discard({"/dev/vda", "/dev/vda"}), (Result{EINVAL, 0}));
}

TEST(Commands, a_volume_that_is_not_there_is_not_snapped_and_cannot_be_frozen) {
  Command command(IOC_CHECK_VOLUME_SNAPPED, 1, 35);
  command.putRecord(0, VolumeCheckPayload{0xffffffff, 0xffffffff});
  EXPECT_EQ(command.issue(), 0);
  EXPECT_EQ(command.header().driverStatus, -4);
  Command freezing(IOC_FREEZE, 1, 39);
  freezing.putRecord(0, VolumeListEntry{4242, 1, 0});
  EXPECT_EQ(freezing.issue(), ENXIO);
}

TEST(Mappings, are_listed_in_the_order_in_which_they_were_made) {
  const std::vector<SnapVolume> made = {pretended("/dev/c", "/c"), pretended("/dev/a", "/a"),
                                        pretended("/dev/b", "/b")};
  for (const SnapVolume& volume : made) ASSERT_EQ(map(volume), (Result{0, 0}));
  // Made again, it keeps its place.
  ASSERT_EQ(map(pretended("/dev/a", "/a2")), (Result{0, 0}));
  EXPECT_EQ(count(IOC_GET_NUM_OF_RELOC_FILE_MAPPING), 3u);
  const auto listed = listMappings(10);
  ASSERT_EQ(listed.size(), 3u);
  EXPECT_STREQ(listed[0].snappedVolumeName, "/dev/c");
  EXPECT_STREQ(listed[1].snappedVolumeName, "/dev/a");
  EXPECT_STREQ(listed[1].relocFileName, "/a2");
  EXPECT_STREQ(listed[2].snappedVolumeName, "/dev/b");
  EXPECT_EQ(listed[2].appPid, getpid());
  EXPECT_EQ(listMappings(2).size(), 2u);
  EXPECT_EQ(listMappings(0).size(), 0u);
  for (const SnapVolume& volume : made) EXPECT_EQ(unmap(volume), (Result{0, 0}));
  EXPECT_EQ(unmap(made[0]), (Result{ENOENT, 0}));
}

TEST(Mappings, of_another_process_are_in_the_way) {
  SnapVolume mine = pretended("/dev/a", "/a");
  SnapVolume others = mine;
  others.entry.appPid += 1;
  ASSERT_EQ(map(mine), (Result{0, 0}));
  EXPECT_EQ(map(others), (Result{EEXIST, 0}));
  EXPECT_EQ(unmap(others), (Result{ENOENT, 0}));
  EXPECT_EQ(unmap(mine), (Result{0, 0}));
}

TEST(Mappings, with_a_name_that_is_not_a_full_path_are_refused) {
  EXPECT_EQ(map(pretended("sda1", "/a")), (Result{EINVAL, 0}));
  EXPECT_EQ(map(pretended("/dev/a", "a")), (Result{EINVAL, 0}));
}

TEST(Snapped, of_nothing_there_is_nothing) {
  EXPECT_EQ(count(IOC_GET_NUM_OF_SNAPPED_VOLUMES), 0u);
  EXPECT_EQ(listSnapped(3).size(), 0u);
  EXPECT_EQ(check(IOC_CHECK_VOLUME_SNAPPED, "/dev/vda"), (Result{0, -4}));
  EXPECT_EQ(check(IOC_CHECK_VOLUME_FROZEN, "/dev/vda"), (Result{0, -7}));
  EXPECT_EQ(check(IOC_IS_VTRACK_ACTIVE, "/dev/vda"), (Result{0, 3}));
  EXPECT_EQ(discard({"/dev/vda"}), (Result{ENOENT, -4}));
  EXPECT_EQ(discard({"/dev/vda", "/dev/vdb"}), (Result{ENOENT, -5}));
  EXPECT_EQ(stopTracking({"/dev/vda"}), (Result{ENOENT, -4}));
  EXPECT_TRUE(snapshotLines().empty());
}

// Commands that were in order, with some of their bytes changed; never one that freezes for good.
class Mutations {
 public:
  explicit Mutations(unsigned int seed) : mRandom(seed) {}

  Command next() {
    Command command = mSound[below(mSound.size())];
    const std::size_t changes = below(4);
    for (std::size_t i = 0; i < changes; ++i) change(command);
    if (below(8) == 0) command = otherRequest(command);
    return command;
  }

 private:
  std::size_t below(std::size_t limit) { return mRandom() % limit; }

  void change(Command& command) {
    static constexpr std::uint32_t kNumbers[] = {0, 1, 2, 0x7f, 0xff, 0x7fffffff, 0x80000000, 0xffffffff, 0x10001};
    const std::size_t at =
        below(2) == 0 ? below(std::min<std::size_t>(command.size() - 4, 48)) : below(command.size() - 4);
    if (below(2) == 0) {
      command.put(at, kNumbers[below(std::size(kNumbers))]);
    } else {
      command.put(at, static_cast<unsigned char>(mRandom()));
    }
    // Mostly the handshake stays right, or little else would be looked at; the length never exceeds the buffer much.
  }

  Command otherRequest(Command command) {
    Command other(driverRequest(static_cast<unsigned int>(3 + below(24))), command.header().requestValue,
                  command.size());
    for (std::size_t i = sizeof(_ioctlCmd); i < command.size(); ++i) other.put(i, command.bytes()[i]);
    return other;
  }

  static std::vector<Command> sound() {
    std::vector<Command> commands;
    commands.emplace_back(IOC_GET_DRIVER_VERSION, 0, 91);
    commands.emplace_back(IOC_SET_LOG_LEVEL, 0, 28);
    commands.emplace_back(IOC_GET_NUM_OF_SNAPPED_VOLUMES, 0, 28);
    commands.emplace_back(IOC_GET_SNAPPED_VOL_DETAILS, 2, 27 + 2 * 2080);
    commands.emplace_back(IOC_GET_NUM_OF_RELOC_FILE_MAPPING, 0, 28);
    commands.emplace_back(IOC_GET_RELOC_FILE_MAPPING, 3, 27 + 3 * 2052);
    commands.emplace_back(IOC_CHECK_VOLUME_SNAPPED, 1, 35);
    commands.emplace_back(IOC_CHECK_VOLUME_FROZEN, 1, 35);
    commands.emplace_back(IOC_IS_VTRACK_ACTIVE, 1, 35);
    commands.emplace_back(IOC_GET_VTRACK_VARS, 1, 79);
    commands.emplace_back(IOC_VERIFY_AND_CLEAN_VOLUMES, 0, 28);
    commands.emplace_back(IOC_DUMP_STATE, 0, 299);
    commands.emplace_back(IOC_SNAP_DISCARD, 2, 27 + 2 * 1040);
    commands.emplace_back(IOC_STOP_VTRACK, 2, 27 + 2 * 12);
    commands.emplace_back(IOC_THAW, 2, 27 + 2 * 12);
    for (unsigned long request : {IOC_GET_VDIFF, IOC_UPDATE_BITMAP}) {
      Command command(request, 1, bitmapCommandLength(4));
      command.put(0, std::uint32_t{1});
      command.putRecord(0, BitmapPayload{254, 0, 0, 4});
      commands.push_back(command);
    }
    Command mapping(IOC_DELETE_RELOC_FILE_MAPPING, 0, 2079);
    RelocFileMappingEntry entry{};
    entry.appPid = 1;
    std::strcpy(entry.snappedVolumeName, "/dev/vda");
    mapping.putRecord(0, entry);
    commands.push_back(mapping);
    SnapVolume volume = pretended("/dev/vda", "/tmp/none");
    volume.entry.numBlocks = 65536;
    volume.entry.blockSize = 4096;
    volume.entry.relocFileSize = 100;
    volume.entry.hashSize = 7;
    volume.entry.volumeMajor = numberOf("/dev/vda").major;
    volume.entry.independentSnapshotRequest = 1;
    volume.runs = {{10, 20}, {50, 80}};
    SnapVolume second = volume;
    second.entry.volumeMinor = 16;
    commands.push_back(snapCommand({volume}));
    commands.push_back(snapCommand({volume, second}));
    return commands;
  }

  std::mt19937 mRandom;
  std::vector<Command> mSound = sound();
};

TEST(Commands, a_hundred_thousand_mutated_ones_change_nothing) {
  Mutations mutations(20240611);
  unsigned int refused = 0;
  for (unsigned int i = 0; i < 100000; ++i) {
    Command command = mutations.next();
    // What would write a file, or set the level, is not what is looked for.
    if (command.request() == IOC_CREATE_RELOC_FILE_MAPPING || command.request() == IOC_FREEZE) continue;
    refused += command.issue() != 0;
  }
  EXPECT_GT(refused, 50000u);
  Command level(IOC_SET_LOG_LEVEL, 0, 28);
  level.putRecord(0, LogLevelPayload{3});
  EXPECT_EQ(level.issue(), 0);
  EXPECT_NE(dumpedState().find("snapped volumes: 0\nmappings: 0\nfrozen volumes: 0\n"), std::string::npos);
}

}  // namespace
}  // namespace guest
