// SPDX-License-Identifier: Apache-2.0
#include "EngineLog.h"

#include <gtest/gtest.h>
#include <mirelsnap/SnapshotEngine.h>

#include <algorithm>

#include "HarnessScope.h"

namespace test {

EngineLog::EngineLog() { QX_SetLogHandler(&EngineLog::take, this); }
EngineLog::~EngineLog() { QX_SetLogHandler(nullptr, nullptr); }

void EngineLog::take(unsigned short level, const wchar_t* message, void* self) {
  auto* log = static_cast<EngineLog*>(self);
  const HarnessScope own;
  EXPECT_EQ(level, 0) << "the engine has no other level";
  const std::lock_guard<std::mutex> hold(log->mMutex);
  log->mLines.emplace_back(message);
}

std::vector<std::wstring> EngineLog::lines() {
  const std::lock_guard<std::mutex> hold(mMutex);
  return mLines;
}

bool EngineLog::has(const std::wstring& text) {
  const std::lock_guard<std::mutex> hold(mMutex);
  return std::find(mLines.begin(), mLines.end(), text) != mLines.end();
}

void EngineLog::clear() {
  const std::lock_guard<std::mutex> hold(mMutex);
  mLines.clear();
}

}  // namespace test
