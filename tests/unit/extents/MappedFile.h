// SPDX-License-Identifier: Apache-2.0
//
// A request whose relocation files are mapped, and what becomes of it.
#pragma once

#include <gtest/gtest.h>
#include <linux/fs.h>
#include <syslog.h>

#include <list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Files.h"
#include "Hooks.h"
#include "LogCapture.h"
#include "LoopVolume.h"
#include "ScriptedDriver.h"
#include "driver/LinuxSnapLib.h"
#include "reloc/RunMap.h"

namespace test {

using Extent = std::pair<std::uint64_t, std::uint64_t>;

constexpr unsigned int kEntry = 2160;

class SnapCommandSize : public testing::Test {
 protected:
  SnapCommandSize() : instance(SnapDriverInterface::Instance()) { log.openMask(); }
  ~SnapCommandSize() override {
    freeRunMap(runs);
    SnapDriverInterface::releaseInstance();
    fstatFailure = 0;
    realpathOfNothing.reset();
  }

  // Adds a volume to the request, as it is after its relocation file was made.
  void request(const Volume& volume, unsigned int blockSize, const std::string& relocFile) {
    volumes.emplace_back(blockSize, 1000UL, volume.wdevice(), false, true, 0u);
    volumes.back().setRelocFileName(relocFile);
  }
  int ask() { return instance->getIoctlCmdSize(&volumes, &runs, &size); }

  std::vector<Extent> runsOf(unsigned int index) const {
    std::vector<Extent> found;
    for (const _run* run : *runs.at(index)) found.emplace_back(run->startBlock, run->numBlocks);
    return found;
  }

  // FIBMAP answers these physical blocks, from logical block 0 on; 0 is a hole, a negative one an errno.
  void answerBlocks(std::vector<int> blocks) {
    driver.intercept(FIBMAP, [this, blocks](int, void* argument) -> std::optional<int> {
      int& block = *static_cast<int*>(argument);
      asked.push_back(block);
      const int answer = blocks.at(static_cast<std::size_t>(block));
      if (answer < 0) return -answer;
      block = answer;
      return 0;
    });
  }
  void answerBlockSize(int blockSize) {
    driver.intercept(FIGETBSZ, [blockSize](int, void* argument) {
      *static_cast<int*>(argument) = blockSize;
      return 0;
    });
  }
  // The file is refused with 10, this text before "is invalid", and nothing is left in the map.
  void expectRefused(const std::string& relocFile, const std::string& why) {
    EXPECT_EQ(ask(), 10);
    EXPECT_TRUE(runs.empty());
    const std::vector<std::string> errors = log.texts(LOG_ERR);
    ASSERT_GE(errors.size(), 2u) << log.dump();
    EXPECT_EQ(errors[errors.size() - 2], why);
    EXPECT_EQ(errors.back(), "Relocation File " + relocFile + " is invalid.\n");
  }

  LogCapture log;
  ScriptedDriver driver;
  SnapDriverInterface* instance;
  std::list<SnapVolumeInformation> volumes;
  RunMap runs;
  unsigned int size = 0;
  std::vector<int> asked;  // logical blocks
};

// One ext4 volume of 4096-byte blocks with a file to play the relocation file.
class MappedFile : public SnapCommandSize {
 protected:
  MappedFile() : volume("ext4", 16 << 20, {"-b", "4096"}), file(volume.folder() + "/reloc") {}

  // The request has this one volume, its file `count` blocks long.
  void requestFile(std::uint64_t count, unsigned int blockSize = 4096) {
    makeSparse(file, count * 4096);
    request(volume, blockSize, file);
  }

  Volume volume;
  const std::string file;
};

}  // namespace test
