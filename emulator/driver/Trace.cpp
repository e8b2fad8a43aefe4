// SPDX-License-Identifier: Apache-2.0
#include "emulator/driver/Trace.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>

namespace emulator {
namespace {

using Json = nlohmann::ordered_json;

// "2024-05-01T12:00:00.000001Z"
std::string timeText(std::int64_t microseconds) {
  const auto seconds = static_cast<std::time_t>(microseconds / 1000000);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char day[32];
  std::strftime(day, sizeof day, "%Y-%m-%dT%H:%M:%S", &parts);
  char text[64];
  std::snprintf(text, sizeof text, "%s.%06dZ", day, static_cast<int>(microseconds % 1000000));
  return text;
}

void addRefusal(Json& line, const Refusal& refusal) {
  line["errno"] = refusal.error;
  if (const char* name = strerrorname_np(refusal.error)) line["error"] = name;
  if (!refusal.why.empty()) line["why"] = refusal.why;
}

}  // namespace

std::string traceLine(const TraceEntry& entry, std::int64_t time) {
  Json line;
  line["time"] = timeText(time);
  line["pid"] = entry.process;
  line["command"] = std::string(entry.command->name);
  if (entry.buffer != nullptr) {
    const _ioctlCmd header = entry.buffer->header();
    line["length"] = header.length;
    line["request_in"] = entry.requestValue;
    line["request_out"] = header.requestValue;
    line["status"] = header.driverStatus;
    if (const char* status = driverStatusName(header.driverStatus)) line["status_name"] = status;
  }
  line["errno"] = 0;
  if (!*entry.answer) addRefusal(line, entry.answer->error());
  if (entry.injected) line["injected"] = true;
  if (entry.buffer != nullptr) entry.command->describe(line, *entry.buffer);
  // A name need not be UTF-8.
  return line.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Trace::Trace(UniqueFd file) : mFile(std::move(file)) {
  if (mFile) mWriter.emplace(mFile.get());
}

void Trace::write(const TraceEntry& entry) {
  if (!mWriter) return;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  mWriter->write(traceLine(entry, std::chrono::duration_cast<std::chrono::microseconds>(now).count()));
}

}  // namespace emulator
