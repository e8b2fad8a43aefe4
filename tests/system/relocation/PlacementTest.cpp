// SPDX-License-Identifier: Apache-2.0
//
// Where relocation files go, and how large they are, under every combination of the two options.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "Agent.h"
#include "DriverClient.h"

namespace {

using test::Agent;
using test::DriverClient;
using test::Engine;
using test::Session;
using test::Volume;

std::string relocationFile(const Volume& volume, const std::string& mountPoint) {
  return mountPoint + "/.verrelocarea/" + volume.device().substr(sizeof("/dev/") - 1);
}

struct Sizes {
  std::uint64_t blockSize;
  std::uint64_t freeKiB;
  std::uint64_t usedKiB;
};
Sizes sizesOf(const Volume& volume) {
  struct statfs status {};
  statfs(volume.folder().c_str(), &status);
  const auto block = static_cast<std::uint64_t>(status.f_bsize);
  return {block, status.f_bfree * block / 1024, (status.f_blocks - status.f_bfree) * block / 1024};
}

std::uint64_t bytesOf(const std::string& file) {
  struct stat status {};
  return stat(file.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

// Leaves `freeKiB` on the volume.
void fill(const Volume& volume, std::uint64_t freeKiB) {
  const int file = open((volume.folder() + "/filling").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const std::uint64_t bytes = (sizesOf(volume).freeKiB - freeKiB) * 1024;
  EXPECT_EQ(posix_fallocate(file, 0, static_cast<off_t>(bytes)), 0);
  close(file);
}

// Writes until there is no room. ext4 still counts some blocks as free then, which it keeps for itself.
void fill(const Volume& volume) {
  const std::string piece(64 << 10, 'x');
  const int file = open((volume.folder() + "/filling").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  for (std::size_t size = piece.size(); size > 0; size /= 4) {
    while (write(file, piece.data(), size) == static_cast<ssize_t>(size)) {
    }
  }
  fsync(file);
  close(file);
}

class Relocation : public testing::Test {
 protected:
  // The file, as the driver was told and as it lies there.
  void expectFile(Session& session, const std::string& file, std::uint64_t blocks, std::uint64_t blockSize) {
    const test::Json volume = session.trace("snap").at(0)["volumes"].at(0);
    EXPECT_EQ(volume["relocation_file"], file);
    EXPECT_EQ(volume["relocation_blocks"], blocks);
    EXPECT_EQ(volume["block_size"], blockSize);
    EXPECT_EQ(bytesOf(file), blocks * blockSize);
  }
  // Whether the driver learned the blocks of the file as lying on the volume itself.
  static std::uint64_t blocksOnItself(Session& session) {
    return session.trace("snap").at(0)["volumes"].at(0)["run_blocks"];
  }
  void end(Engine& engine, const std::string& file) {
    EXPECT_EQ(engine.deleteSet(), S_OK);
    EXPECT_EQ(access(file.c_str(), F_OK), -1) << "the relocation file is left";
    engine.release();
  }
};

// ---- through the engine

TEST_F(Relocation, without_options_is_a_tenth_of_the_free_space_of_the_volume_itself) {
  const Volume volume("ext4", 64 << 20, {"-b", "1024"});
  const Sizes sizes = sizesOf(volume);
  Session session;
  Agent agent(session);
  Engine engine = agent.openedSet({&volume});
  ASSERT_EQ(engine.snap(), 0);
  const std::uint64_t blocks = sizes.freeKiB / 10;
  expectFile(session, relocationFile(volume, volume.folder()), blocks, 1024);
  EXPECT_EQ(blocksOnItself(session), blocks);
  end(engine, relocationFile(volume, volume.folder()));
}

TEST_F(Relocation, without_options_goes_to_the_roomiest_other_volume_when_its_own_is_nine_tenths_full) {
  const Volume volume("ext4", 64 << 20, {"-b", "4096"});
  const Volume small("ext4", 32 << 20);
  const Volume roomy("ext4", 96 << 20);
  fill(volume, 2048);
  const Sizes there = sizesOf(roomy);
  Session session;
  Agent agent(session);
  Engine engine = agent.openedSet({&volume});
  ASSERT_EQ(engine.snap(), 0);
  const std::uint64_t volumeBlocks = (64 << 20) / 4096;
  const std::uint64_t blocks = std::min(there.freeKiB / 10 * 1024 / 4096, volumeBlocks / 10);
  expectFile(session, relocationFile(volume, roomy.folder()), blocks, 4096);
  EXPECT_EQ(blocksOnItself(session), 0u);
  end(engine, relocationFile(volume, roomy.folder()));
}

TEST_F(Relocation, of_a_volume_mounted_read_only_goes_to_another) {
  const Volume volume("ext4", 32 << 20);
  const Volume other("ext4", 32 << 20);
  ASSERT_EQ(mount(nullptr, volume.folder().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  Session session;
  Agent agent(session);
  Engine engine = agent.openedSet({&volume});
  ASSERT_EQ(engine.snap(), 0);
  EXPECT_EQ(session.trace("snap").at(0)["volumes"].at(0)["relocation_file"], relocationFile(volume, other.folder()));
  end(engine, relocationFile(volume, other.folder()));
}

// The volume's own file cannot be written out, and its mapping stays until its owner is gone and another one
// reconciles.
TEST_F(Relocation, without_options_and_without_any_room_fails_as_placement) {
  const Volume volume("ext4", 32 << 20);
  fill(volume);
  Session session;
  auto agent = std::make_unique<Agent>(session);
  Engine engine = agent->openedSet({&volume});
  EXPECT_EQ(engine.snap(), 20);
  EXPECT_EQ(engine.status().status, E_UNEXPECTED);
  EXPECT_TRUE(session.trace("snap").empty());
  EXPECT_EQ(access(relocationFile(volume, volume.folder()).c_str(), F_OK), -1);
  EXPECT_EQ(DriverClient(session).mappings().size(), 1u);
  agent->kill();
  EXPECT_EQ(DriverClient(session).reconcile(), 0u);
  EXPECT_EQ(DriverClient(session).mappings().size(), 0u);
  rmdir((volume.folder() + "/.verrelocarea").c_str());  // there, if there was a block for it
}

TEST_F(Relocation, with_both_options_is_as_large_as_said_where_it_was_said) {
  const Volume volume("ext4", 32 << 20, {"-b", "4096"});
  const Volume other("xfs", 300 << 20);
  Session session;
  Agent agent(session);
  Engine engine = agent.openedSet({&volume});
  ASSERT_EQ(engine.setRelocation(0, other.folder(), 77), S_OK);
  ASSERT_EQ(engine.snap(), 0);
  expectFile(session, relocationFile(volume, other.folder()), 77, 4096);
  EXPECT_EQ(engine.properties(0)["relocation_file"], relocationFile(volume, other.folder()));
  end(engine, relocationFile(volume, other.folder()));
}

TEST_F(Relocation, with_both_options_may_name_the_volume_itself) {
  const Volume volume("ext4", 32 << 20, {"-b", "1024"});
  Session session;
  Agent agent(session);
  Engine engine = agent.openedSet({&volume});
  ASSERT_EQ(engine.setRelocation(0, volume.folder(), 10), S_OK);
  ASSERT_EQ(engine.snap(), 0);
  expectFile(session, relocationFile(volume, volume.folder()), 10, 1024);
  EXPECT_EQ(blocksOnItself(session), 10u);
  end(engine, relocationFile(volume, volume.folder()));
}

TEST_F(Relocation, with_both_options_on_a_volume_that_is_too_small_fails_as_placement) {
  const Volume volume("ext4", 32 << 20, {"-b", "4096"});
  const Volume other("ext4", 16 << 20);
  Session session;
  Agent agent(session);
  Engine engine = agent.openedSet({&volume});
  ASSERT_EQ(engine.setRelocation(0, other.folder(), (16 << 20) / 4096), S_OK);
  EXPECT_EQ(engine.snap(), 20);
  engine.release();
}

TEST_F(Relocation, with_one_option_alone_is_refused_by_the_engine_until_both_are_there) {
  const Volume volume("ext4", 32 << 20, {"-b", "4096"});
  Session session;
  Agent agent(session);
  Engine engine = agent.openedSet({&volume});
  ASSERT_EQ(engine.setOption(engine.snapshot(0), "RelocationFileSize", "16"), S_OK);
  EXPECT_EQ(engine.startJob(), USC_E_BAD_STATE);
  ASSERT_EQ(engine.setOption(engine.snapshot(0), "RelocationFileMountPoint", volume.folder()), S_OK);
  ASSERT_EQ(engine.setOption(engine.snapshot(0), "RelocationFileSize", "0"), S_OK);
  EXPECT_EQ(engine.startJob(), USC_E_BAD_STATE);
  EXPECT_TRUE(session.trace("create-mapping").empty());
  ASSERT_EQ(engine.setOption(engine.snapshot(0), "RelocationFileSize", "0x10"), S_OK);
  ASSERT_EQ(engine.snap(), 0);
  expectFile(session, relocationFile(volume, volume.folder()), 16, 4096);
  end(engine, relocationFile(volume, volume.folder()));
}

TEST_F(Relocation, of_two_volumes_may_lie_in_one_folder_which_goes_with_the_last) {
  const Volume first("ext4", 32 << 20);
  const Volume second("ext4", 32 << 20);
  const Volume other("ext4", 32 << 20);
  Session session;
  Agent agent(session);
  Engine engine = agent.openedSet({&first, &second});
  ASSERT_EQ(engine.setRelocation(0, other.folder(), 8), S_OK);
  ASSERT_EQ(engine.setRelocation(1, other.folder(), 9), S_OK);
  ASSERT_EQ(engine.snap(), 0);
  EXPECT_GT(bytesOf(relocationFile(first, other.folder())), 0u);
  EXPECT_GT(bytesOf(relocationFile(second, other.folder())), 0u);
  EXPECT_EQ(engine.deleteSet(), S_OK);
  EXPECT_EQ(access((other.folder() + "/.verrelocarea").c_str(), F_OK), -1);
  engine.release();
}

// ---- through the driver interface, which takes each option alone

TEST_F(Relocation, with_a_size_alone_stays_on_the_volume_itself) {
  const Volume volume("ext4", 32 << 20, {"-b", "1024"});
  Session session;
  DriverClient driver(session);
  const auto snapped = driver.snap({{volume.device(), volume.folder(), 33, ""}});
  ASSERT_EQ(snapped.result, 0);
  EXPECT_EQ(snapped.relocationBlocks, std::vector<unsigned int>{33});
  expectFile(session, relocationFile(volume, volume.folder()), 33, 1024);
  EXPECT_EQ(driver.unsnap({volume.device()}), 0u);
}

TEST_F(Relocation, with_a_size_alone_keeps_the_size_on_another_volume_when_its_own_is_full) {
  const Volume volume("ext4", 32 << 20, {"-b", "4096"});
  const Volume other("xfs", 300 << 20);
  fill(volume, 1024);
  Session session;
  DriverClient driver(session);
  ASSERT_EQ(driver.snap({{volume.device(), volume.folder(), 33, ""}}).result, 0);
  expectFile(session, relocationFile(volume, other.folder()), 33, 4096);
  EXPECT_EQ(driver.unsnap({volume.device()}), 0u);
}

TEST_F(Relocation, with_a_mount_point_alone_is_a_tenth_of_the_smaller_of_free_there_and_used_here) {
  const Volume volume("ext4", 64 << 20, {"-b", "4096"});
  const Volume other("ext4", 32 << 20);
  fill(volume, 20000);
  const std::uint64_t used = sizesOf(volume).usedKiB;
  const std::uint64_t free = sizesOf(other).freeKiB;
  ASSERT_NE(used / 10, free / 10);
  Session session;
  DriverClient driver(session);
  ASSERT_EQ(driver.snap({{volume.device(), volume.folder(), 0, other.folder()}}).result, 0);
  expectFile(session, relocationFile(volume, other.folder()), std::min(used / 10, free / 10) * 1024 / 4096, 4096);
  EXPECT_EQ(driver.unsnap({volume.device()}), 0u);
}

TEST_F(Relocation, through_the_driver_interface_takes_neither_option_and_both_as_the_engine_does) {
  const Volume first("ext4", 32 << 20, {"-b", "1024"});
  const Volume second("ext4", 32 << 20, {"-b", "1024"});
  const std::uint64_t blocks = sizesOf(first).freeKiB / 10;
  Session session;
  DriverClient driver(session);
  const auto snapped =
      driver.snap({{first.device(), first.folder(), 0, ""}, {second.device(), second.folder(), 20, first.folder()}});
  ASSERT_EQ(snapped.result, 0);
  EXPECT_EQ(snapped.relocationFiles,
            (std::vector<std::string>{relocationFile(first, first.folder()), relocationFile(second, first.folder())}));
  EXPECT_EQ(snapped.relocationBlocks, (std::vector<unsigned int>{static_cast<unsigned int>(blocks), 20}));
  EXPECT_EQ(driver.unsnap({first.device(), second.device()}), 0u);
}

}  // namespace
