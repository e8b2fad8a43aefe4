// SPDX-License-Identifier: Apache-2.0
//
// The COM-style base of the engine: identifier helpers, atomic counting, and the counted implementation of the unknown
// interface.
#pragma once

#include <mirelsnap/SnapshotEngine.h>

#include <cstring>

namespace UnixInterfaces {

// Compares two identifiers as four 32-bit words.
inline bool InlineIsEqualGUID(const _SSGUIDPLAIN& a, const _SSGUIDPLAIN& b) {
  std::uint32_t x[4];
  std::uint32_t y[4];
  std::memcpy(x, &a, sizeof x);
  std::memcpy(y, &b, sizeof y);
  return x[0] == y[0] && x[1] == y[1] && x[2] == y[2] && x[3] == y[3];
}

// Compares two identifiers byte by byte.
inline bool IsEqualGUID(const _SSGUIDPLAIN& a, const _SSGUIDPLAIN& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// True for the all-zero identifier.
inline bool InlineIsNULLGUID(const _SSGUIDPLAIN& g) {
  std::uint32_t words[4];
  std::memcpy(words, &g, sizeof words);
  return words[0] == 0 && words[1] == 0 && words[2] == 0 && words[3] == 0;
}

// Adds (subtracts) one atomically; the new value.
inline unsigned int InterlockedIncrement(volatile unsigned int* value) {
  return __atomic_add_fetch(value, 1U, __ATOMIC_SEQ_CST);
}
inline unsigned int InterlockedDecrement(volatile unsigned int* value) {
  return __atomic_sub_fetch(value, 1U, __ATOMIC_SEQ_CST);
}

// Implements the unknown interface for interface I with a reference count that starts at 1. The virtual destructor
// stands behind I's slots.
template <class I>
class IUnknownImpl : public I {
 public:
  // Answers the unknown identifier and I's own. The identifier is tested before the pointer: E_NOINTERFACE comes before
  // E_POINTER.
  int QueryInterface(const _SSGUIDPLAIN& iid, void** out) override {
    if (!InlineIsEqualGUID(iid, IUnknown::GetGUID()) && !InlineIsEqualGUID(iid, I::GetGUID())) return E_NOINTERFACE;
    if (out == nullptr) return E_POINTER;
    AddRef();
    *out = static_cast<I*>(this);
    return S_OK;
  }

  unsigned int AddRef() override { return InterlockedIncrement(&mReferenceCount); }

  unsigned int Release() override {
    // The object may be gone once the count is dropped, so the count is not read a second time.
    const unsigned int remaining = InterlockedDecrement(&mReferenceCount);
    if (remaining == 0) delete this;
    return remaining;
  }

  virtual ~IUnknownImpl() = default;

 protected:
  IUnknownImpl() = default;
  IUnknownImpl(const IUnknownImpl&) = delete;
  IUnknownImpl& operator=(const IUnknownImpl&) = delete;

 private:
  volatile unsigned int mReferenceCount = 1;
};

}  // namespace UnixInterfaces
