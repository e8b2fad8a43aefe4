// SPDX-License-Identifier: Apache-2.0
#include "LogCapture.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace test {
namespace {

constexpr char kSocketPath[] = "/dev/log";
constexpr char kMark[] = "\x01mark";
constexpr char kStop[] = "\x01stop";

sockaddr_un logAddress() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, kSocketPath);
  return address;
}

void sendToLog(const char* text) {
  const sockaddr_un address = logAddress();
  const int s = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sendto(s, text, std::strlen(text), 0, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  close(s);
}

// "<11>Nov 21 02:26:58 MIRELSNAP_SDK[123]: text"
LogLine parse(const std::string& datagram) {
  LogLine line{};
  const std::size_t close = datagram.find('>');
  const int value = std::stoi(datagram.substr(1, close - 1));
  line.priority = LOG_PRI(value);
  line.facility = value & LOG_FACMASK;
  const std::size_t identStart = close + 1 + std::strlen("Nov 21 02:26:58 ");
  const std::size_t colon = datagram.find(": ", identStart);
  line.ident = datagram.substr(identStart, colon - identStart);
  line.text = datagram.substr(colon + 2);
  return line;
}

}  // namespace

LogCapture::LogCapture() : mSocket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)), mOldMask(setlogmask(0)) {
  closelog();
  const sockaddr_un address = logAddress();
  if (mSocket < 0 || bind(mSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("cannot listen on /dev/log");
  }
  openMask();
  mListener = std::thread([this] { listen(); });
}

LogCapture::~LogCapture() {
  sendToLog(kStop);
  mListener.join();
  close(mSocket);
  unlink(kSocketPath);
  closelog();
  setlogmask(mOldMask);
}

void LogCapture::openMask() { setlogmask(LOG_UPTO(LOG_DEBUG)); }

void LogCapture::listen() {
  std::string buffer(65536, '\0');
  for (;;) {
    const ssize_t got = recv(mSocket, buffer.data(), buffer.size(), 0);
    if (got < 0) return;
    const std::string datagram(buffer, 0, static_cast<std::size_t>(got));
    if (datagram == kStop) return;
    if (datagram == kMark) {
      ++mMarksSeen;
      continue;
    }
    const std::lock_guard<std::mutex> hold(mMutex);
    mLines.push_back(parse(datagram));
  }
}

void LogCapture::waitUntilDrained() {
  ++mMarksSent;
  sendToLog(kMark);
  while (mMarksSeen < mMarksSent) std::this_thread::yield();
}

std::vector<LogLine> LogCapture::lines() {
  waitUntilDrained();
  const std::lock_guard<std::mutex> hold(mMutex);
  return mLines;
}

std::vector<std::string> LogCapture::texts(int priority) {
  std::vector<std::string> found;
  for (const LogLine& line : lines()) {
    if (line.priority == priority) found.push_back(line.text);
  }
  return found;
}

std::size_t LogCapture::count(int priority, const std::string& text) {
  std::size_t n = 0;
  for (const LogLine& line : lines()) n += line.priority == priority && line.text == text;
  return n;
}

void LogCapture::clear() {
  waitUntilDrained();
  const std::lock_guard<std::mutex> hold(mMutex);
  mLines.clear();
}

std::string LogCapture::dump() {
  std::string all;
  for (const LogLine& line : lines()) all += "[" + std::to_string(line.priority) + "] " + line.text + "\n";
  return all;
}

}  // namespace test
