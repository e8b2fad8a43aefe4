// SPDX-License-Identifier: Apache-2.0
#include "AlternatingWriter.h"

#include <fcntl.h>
#include <unistd.h>

#include "Waiting.h"
#include "World.h"

namespace test {

AlternatingWriter::AlternatingWriter(const std::vector<std::string>& folders) {
  for (const std::string& folder : folders) {
    mFiles.push_back(open((folder + "/counter").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  }
  mThread = std::thread([this] { run(); });
}

AlternatingWriter::~AlternatingWriter() {
  mStop = true;
  mThread.join();
  for (const int file : mFiles) close(file);
}

void AlternatingWriter::waitForSteps(std::uint64_t more) const {
  if (!comesTrue([this, until = mStep + more] { return mStep >= until; })) throw std::runtime_error("no more steps");
}

std::uint64_t AlternatingWriter::valueIn(const std::string& folder) {
  std::uint64_t value = 0;
  const std::string text = readFile(folder + "/counter");
  text.copy(reinterpret_cast<char*>(&value), sizeof value);
  return value;
}

bool AlternatingWriter::standAtOneInstant(const std::vector<std::string>& folders) {
  const std::uint64_t first = valueIn(folders.front());
  std::uint64_t last = first;
  for (const std::string& folder : folders) {
    const std::uint64_t value = valueIn(folder);
    if (value > last || value + 1 < first) return false;
    last = value;
  }
  return first != 0;
}

void AlternatingWriter::run() {
  while (!mStop) {
    const std::uint64_t step = mStep + 1;
    for (const int file : mFiles) {
      if (pwrite(file, &step, sizeof step, 0) != sizeof step) return;
    }
    mStep = step;
  }
}

}  // namespace test
