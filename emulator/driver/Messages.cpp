// SPDX-License-Identifier: Apache-2.0
#include "emulator/driver/Messages.h"

#include <unistd.h>

#include <cerrno>

namespace emulator {
namespace {

void writeAll(int descriptor, const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t written = write(descriptor, text.data() + done, text.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    done += static_cast<std::size_t>(written);
  }
}

}  // namespace

LineWriter::LineWriter(int descriptor) : mDescriptor(descriptor), mThread([this] { run(); }) {}

LineWriter::~LineWriter() {
  {
    const std::lock_guard lock(mMutex);
    mEnding = true;
  }
  mChanged.notify_one();
  mThread.join();
}

void LineWriter::write(std::string line) {
  line += '\n';
  {
    const std::lock_guard lock(mMutex);
    mLines.push_back(std::move(line));
  }
  mChanged.notify_one();
}

void LineWriter::run() {
  std::unique_lock lock(mMutex);
  while (true) {
    mChanged.wait(lock, [this] { return mEnding || !mLines.empty(); });
    if (mLines.empty()) return;
    const std::string line = std::move(mLines.front());
    mLines.pop_front();
    lock.unlock();
    writeAll(mDescriptor, line);
    lock.lock();
  }
}

Messages::Messages(bool quiet) : mQuiet(quiet), mWriter(STDERR_FILENO) {}

void Messages::say(const std::string& text) {
  if (!mQuiet) warn(text);
}

void Messages::warn(const std::string& text) { mWriter.write("mirelsnap-emulator: " + text); }

}  // namespace emulator
