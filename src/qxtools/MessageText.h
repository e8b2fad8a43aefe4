// SPDX-License-Identifier: Apache-2.0
//
// The text of one message, for those who may neither throw nor lose it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <utility>

#include "base/Handle.h"

// A text of any length. While it is short it needs no heap; when the heap gives nothing, the text keeps its beginning.
template <class Char>
class MessageText {
 public:
  MessageText() = default;
  MessageText(const MessageText&) = delete;
  MessageText& operator=(const MessageText&) = delete;

  void append(Char character) noexcept {
    if (mLength + 1 == mRoom && !grow()) return markCut();
    mText[mLength++] = character;
  }
  void append(const Char* text) noexcept {
    for (; *text != 0; ++text) append(*text);
  }
  const Char* finish() noexcept {
    mText[mLength] = 0;
    return mText;
  }

 private:
  bool grow() noexcept {
    const std::size_t room = mRoom * 2;
    std::unique_ptr<Char[], FreeMemory> larger(static_cast<Char*>(std::malloc(room * sizeof(Char))));
    if (larger == nullptr) return false;
    std::copy_n(mText, mLength, larger.get());
    mOnHeap = std::move(larger);
    mText = mOnHeap.get();
    mRoom = room;
    return true;
  }
  void markCut() noexcept { std::fill_n(mText + mLength - 3, 3, Char{'.'}); }

  static constexpr std::size_t kFirstRoom = 512;
  Char mFirst[kFirstRoom];
  std::unique_ptr<Char[], FreeMemory> mOnHeap;
  Char* mText = mFirst;
  std::size_t mRoom = kFirstRoom;
  std::size_t mLength = 0;
};
