// SPDX-License-Identifier: Apache-2.0
//
// The engine's own messages, taken through QX_SetLogHandler for a scope. Each must come at level 0, the engine's only
// one.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace test {

class EngineLog {
 public:
  EngineLog();
  ~EngineLog();
  EngineLog(const EngineLog&) = delete;
  EngineLog& operator=(const EngineLog&) = delete;

  std::vector<std::wstring> lines();
  bool has(const std::wstring& text);
  void clear();

 private:
  static void take(unsigned short level, const wchar_t* message, void* self);
  std::mutex mMutex;
  std::vector<std::wstring> mLines;
};

}  // namespace test
