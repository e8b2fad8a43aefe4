// SPDX-License-Identifier: Apache-2.0
//
// Large sets and large relocation files: memory grows with runs, not with blocks.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <regex>
#include <sstream>

#include "Agent.h"
#include "AlternatingWriter.h"
#include "Base.h"
#include "Run.h"

namespace {

using test::Agent;
using test::AlternatingWriter;
using test::Base;
using test::Engine;
using test::Session;
using test::Volume;

using Texts = std::vector<std::string>;

TEST(Set, of_sixteen_volumes_stands_at_one_instant_and_is_exposed_and_deleted_as_one) {
  std::vector<std::unique_ptr<Volume>> volumes;
  std::vector<const Volume*> all;
  Texts folders;
  for (int i = 0; i < 16; ++i) {
    volumes.push_back(std::make_unique<Volume>("ext4", 64 << 20));
    all.push_back(volumes.back().get());
    folders.push_back(volumes.back()->folder());
  }
  const Base base(folders);
  Texts exposed;
  for (const std::string& folder : folders) exposed.push_back(base.at(folder));
  Session session;
  Agent agent(session);
  Engine engine = agent.openedSet(all);
  const AlternatingWriter writer(folders);
  writer.waitForSteps(100);
  ASSERT_EQ(engine.snap(), 0);
  writer.waitForSteps(10);
  EXPECT_EQ(session.trace("snap").size(), 1u);
  EXPECT_EQ(session.trace("snap").at(0)["volumes"].size(), 16u);
  ASSERT_EQ(engine.expose(base.path()), S_OK);
  EXPECT_TRUE(AlternatingWriter::standAtOneInstant(exposed));
  for (std::size_t volume = 0; volume < 16; ++volume) EXPECT_EQ(engine.properties(volume)["count"], 16);
  engine.unexpose();
  EXPECT_EQ(engine.deleteSet(), S_OK);
  EXPECT_EQ(session.trace("discard").size(), 1u);
  engine.release();
}

// KiB by which a snap with a relocation file of `blocks` blocks on the volume itself raises the agent's peak.
long memoryForSnap(Session& session, const Volume& volume, unsigned int blocks) {
  Agent agent(session);
  Engine engine = agent.openedSet({&volume});
  EXPECT_EQ(engine.setRelocation(0, volume.folder(), blocks), S_OK);
  const long before = agent.peakMemory();
  EXPECT_EQ(engine.snap(), 0);
  const long after = agent.peakMemory();
  EXPECT_EQ(engine.deleteSet(), S_OK);
  engine.release();
  return after - before;
}

// What a small snap may take, in KiB; the address sanitizer keeps what was freed, and its own notes on all of it.
#ifdef __SANITIZE_ADDRESS__
constexpr long kSmallSnap = 8192;
#else
constexpr long kSmallSnap = 2048;
#endif

test::Json lastSnapped(Session& session) { return session.trace("snap").back()["volumes"].at(0); }

TEST(RelocationFile, of_one_gibibyte_takes_no_more_memory_than_a_small_one) {
  const Volume volume("xfs", std::uint64_t{3} << 30);
  Session session;
  const long small = memoryForSnap(session, volume, 16);
  constexpr unsigned int kBlocks = (1 << 30) / 4096;
  const long large = memoryForSnap(session, volume, kBlocks);
  const test::Json snapped = lastSnapped(session);
  EXPECT_EQ(snapped["relocation_blocks"], kBlocks);
  EXPECT_EQ(snapped["run_blocks"], kBlocks);
  EXPECT_LT(snapped["runs"].get<int>(), 200);
  EXPECT_LT(small, kSmallSnap) << "KiB";
  EXPECT_LT(large, kSmallSnap) << "KiB, for " << kBlocks << " blocks in " << snapped["runs"] << " runs";
}

// Leaves every other block of the volume free, and no more.
void fragment(const Volume& volume, std::int64_t blockSize) {
  struct statfs status {};
  ASSERT_EQ(statfs(volume.folder().c_str(), &status), 0);
  const int file = open((volume.folder() + "/filling").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  const std::int64_t blocks = static_cast<std::int64_t>(status.f_bfree) * 9 / 10;
  ASSERT_EQ(posix_fallocate(file, 0, blocks * blockSize), 0);
  const int rest = open((volume.folder() + "/rest").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  const std::string piece(static_cast<std::size_t>(blockSize), 'x');
  while (write(rest, piece.data(), piece.size()) == blockSize) {
  }
  for (std::int64_t block = 0; block < blocks; block += 2) {
    ASSERT_EQ(fallocate(file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, block * blockSize, blockSize), 0);
  }
  fsync(file);
  close(rest);
  close(file);
}

TEST(RelocationFile, in_thousands_of_pieces_reaches_the_driver_run_by_run_in_little_memory) {
  const Volume volume("ext4", 32 << 20, {"-b", "1024", "-m", "0"});
  fragment(volume, 1024);
  Session session;
  constexpr unsigned int kBlocks = 6000;
  const long memory = memoryForSnap(session, volume, kBlocks);
  const test::Json snapped = lastSnapped(session);
  const auto runs = snapped["runs"].get<long>();
  EXPECT_EQ(snapped["run_blocks"], kBlocks);
  EXPECT_GT(runs, 4000);
  // The list and the command itself, on top of what a small snap takes.
  EXPECT_LT(memory, kSmallSnap + runs * 16 * 6 / 1024) << "KiB";
}

// Allocates without writing: the image of the volume stays small.
void use(const Volume& volume, std::uint64_t bytes) {
  const int file = open((volume.folder() + "/large").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(posix_fallocate(file, 0, static_cast<off_t>(bytes)), 0);
  close(file);
}

// The calls on relocation files, one a line, as the kernel took them: "fsync", "ioctl FIBMAP".
Texts callsOnRelocationFile(const std::string& trace) {
  static const std::regex call(R"((\w+)\(\d+<[^>]*/\.verrelocarea/[^>]*>(?:, (F[A-Z_]+))?.*)");
  Texts calls;
  std::istringstream lines(test::readFile(trace));
  std::smatch match;
  for (std::string line; std::getline(lines, line);) {
    if (std::regex_search(line, match, call))
      calls.push_back(match[1].str() + (match[2].matched ? " " : "") + match[2].str());
  }
  return calls;
}

TEST(RelocationFile, of_6_GiB_takes_a_call_an_extent_and_not_one_that_writes) {
  const Volume volume("ext4", std::uint64_t{200} << 30, {"-b", "4096", "-J", "size=16"});
  use(volume, std::uint64_t{60} << 30);
  Session session;
  const test::TempDir folder;
  const test::Ended ended =
      session.run({"strace", "-f", "-qq", "-y", "-e", "trace=desc,fsync,fdatasync", "-o", folder / "calls",
                   MIRELSNAP_PROGRAM, "run", "--volume", volume.device(), "--", "true"});
  ASSERT_EQ(ended.code, 0) << ended.errors;
  const test::Json snapped = lastSnapped(session);
  constexpr std::uint64_t kLeast = (std::uint64_t{6} << 30) / 4096;
  EXPECT_GE(snapped["relocation_blocks"], kLeast);
  EXPECT_EQ(snapped["run_blocks"], snapped["relocation_blocks"]);

  std::map<std::string, int> counts;
  for (const std::string& call : callsOnRelocationFile(folder / "calls")) ++counts[call];
  EXPECT_EQ(counts["fallocate"], 1);
  EXPECT_EQ(counts["fsync"], 1);
  // Making and mapping look for the blocks, which lie in a few extents.
  EXPECT_EQ(counts["ioctl FS_IOC_FIEMAP"], 2);
  EXPECT_LE(counts["ioctl FIBMAP"], 200);
  EXPECT_EQ(counts["write"] + counts["pwrite64"] + counts["lseek"], 0);
  int all = 0;
  for (const auto& [call, count] : counts) all += count;
  EXPECT_LE(all, 250);
}

}  // namespace
