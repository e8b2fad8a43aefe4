// SPDX-License-Identifier: Apache-2.0
#include "Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <langinfo.h>

#include "Text.h"

namespace cli {
namespace {

std::string seconds(std::chrono::steady_clock::time_point since) {
  const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - since;
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.1f s", passed.count());
  return text.data();
}

bool hasBlocks() { return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0; }

}  // namespace

Terminal::Terminal(bool verbose)
    : mInteractive(isatty(STDERR_FILENO) == 1 && std::getenv("TERM") != nullptr &&
                   std::strcmp(std::getenv("TERM"), "dumb") != 0),
      mVerbose(verbose) {}

Terminal::~Terminal() { end(); }

void Terminal::draw(const std::string& text) {
  std::fprintf(stderr, "\r%s\033[K", fitted(text, columnsOf(STDERR_FILENO) - 1).c_str());
  std::fflush(stderr);
}

void Terminal::begin(const std::string& what) {
  end();
  mPhase = onOneLine(what);
  mStarted = std::chrono::steady_clock::now();
  tick();
}

void Terminal::tick() {
  if (mInteractive && !mPhase.empty()) draw(mPhase + " ... " + seconds(mStarted));
}

void Terminal::bar(const std::string& what, std::uint64_t done, std::uint64_t total) {
  if (!mInteractive || mPhase.empty()) return;
  if (total == 0) {
    draw(mPhase + ": " + onOneLine(what) + ", " + sizeText(done) + ", " + seconds(mStarted));
    return;
  }
  const std::uint64_t shown = std::min(done, total);
  draw(barText(shown, total, 24) + " " + std::to_string(shown * 100 / total) + " % of " + sizeText(total) + ", " +
       seconds(mStarted) + ": " + onOneLine(what));
}

void Terminal::end() {
  if (mPhase.empty()) return;
  const std::string line = mPhase + ": " + seconds(mStarted);
  if (mInteractive) {
    draw(line);
    std::fputc('\n', stderr);
  } else if (mVerbose) {
    std::fprintf(stderr, "mirelsnap: %s\n", line.c_str());
  }
  mPhase.clear();
}

std::size_t outputColumns() { return isatty(STDOUT_FILENO) == 1 ? columnsOf(STDOUT_FILENO) : 0; }

unsigned int columnsOf(int descriptor) {
  winsize size{};
  return ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

const std::vector<std::string>& mapShades() {
  static const std::vector<std::string> blocks = {"░", "▒", "▓", "█"};
  static const std::vector<std::string> plain = {".", "-", "=", "#"};
  return hasBlocks() ? blocks : plain;
}

std::string barText(std::uint64_t done, std::uint64_t total, unsigned int width) {
  const std::uint64_t filled = total == 0 ? 0 : done * width / total;
  const bool blocks = hasBlocks();
  std::string text = blocks ? "" : "[";
  for (unsigned int cell = 0; cell < width; ++cell) {
    text += cell < filled ? (blocks ? "█" : "#") : (blocks ? "░" : "-");
  }
  return blocks ? text : text + "]";
}

}  // namespace cli
