// SPDX-License-Identifier: Apache-2.0
//
// Lines that are written behind the speaker's back.
#include "emulator/driver/Messages.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "World.h"
#include "base/Handle.h"

namespace {

// Who speaks does not wait for who reads: the reader may be held still by the emulator itself.
TEST(LineWriter, never_makes_the_speaker_wait_and_loses_nothing) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const int room = fcntl(ends[1], F_SETPIPE_SZ, 4096);
  const std::string line(1000, 'x');
  std::string all;
  {
    emulator::LineWriter writer(ends[1]);
    for (int i = 0; i < 100; ++i) writer.write(line);  // far more than the pipe takes
    ASSERT_LT(room, 100 * 1000);
    while (all.size() < 100 * 1001) {
      char piece[4096];
      const ssize_t got = read(ends[0], piece, sizeof piece);
      ASSERT_GT(got, 0);
      all.append(piece, static_cast<std::size_t>(got));
    }
  }
  EXPECT_EQ(all.substr(0, 1001), line + "\n");
  close(ends[0]);
  close(ends[1]);
}

TEST(LineWriter, writes_what_is_left_at_its_end) {
  const test::TempDir dir;
  const UniqueFd file(open((dir / "file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  {
    emulator::LineWriter writer(file.get());
    for (int i = 0; i < 1000; ++i) writer.write(std::to_string(i));
  }
  const std::string text = test::readFile(dir / "file");
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1000);
  EXPECT_TRUE(text.ends_with("998\n999\n"));
}

}  // namespace
