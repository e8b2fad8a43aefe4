// SPDX-License-Identifier: Apache-2.0
//
// Identifiers, their helpers, the counted base, and the numbers that an agent relies on.
#include <gtest/gtest.h>

#include <cstring>

#include "AtOnce.h"
#include "engine/MirelSnapshotEngine.h"
#include "engine/UnknownImpl.h"

namespace {

using namespace UnixInterfaces;
using UnixSnapshotCoordinator::IUscAsync;
using UnixSnapshotCoordinator::IUscSnapshotEngine;

// The identifier's bytes as they lie in memory.
std::string bytesOf(const _SSGUIDPLAIN& id) { return {reinterpret_cast<const char*>(&id), sizeof id}; }
std::string bytes(std::initializer_list<int> values) {
  std::string text;
  for (const int value : values) text.push_back(static_cast<char>(value));
  return text;
}

TEST(Identifiers, of_the_unknown_interface) {
  EXPECT_EQ(bytesOf(UnixInterfaces::IUnknown::GetGUID()),
            bytes({0, 0, 0, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46}));
}

TEST(Identifiers, of_the_engine) {
  EXPECT_EQ(bytesOf(IUscSnapshotEngine::GetGUID()),
            bytes({0xC4, 0xB0, 0x3B, 0x64, 0x75, 0x2D, 0xEA, 0x44, 0x9E, 0xE2, 0x91, 0x3D, 0x66, 0xC2, 0x54, 0xD4}));
}

TEST(Identifiers, of_the_job) {
  EXPECT_EQ(bytesOf(IUscAsync::GetGUID()),
            bytes({0xB4, 0x37, 0x7C, 0x50, 0x5B, 0xCF, 0x95, 0x4E, 0xB0, 0xAF, 0x14, 0xEB, 0x97, 0x67, 0x46, 0x7E}));
}

TEST(Identifiers, of_the_provider) {
  EXPECT_EQ(bytesOf(MirelSnapSnapshotCoordinator::MirelSnapshotEngine::sProviderUUID),
            bytes({0xDD, 0x8D, 0x2B, 0x86, 0x46, 0x81, 0xA1, 0x46, 0x98, 0x85, 0xEA, 0x7F, 0x74, 0xC1, 0x5B, 0xA7}));
}

TEST(Identifiers, are_found_by_type) {
  EXPECT_EQ(&__uuidof2<IUscAsync>(), &IUscAsync::GetGUID());
  EXPECT_EQ(&__uuidof2<IUscSnapshotEngine>(), &IUscSnapshotEngine::GetGUID());
  EXPECT_EQ(&__uuidof2<UnixInterfaces::IUnknown>(), &UnixInterfaces::IUnknown::GetGUID());
}

TEST(Identifiers, differ_in_any_byte) {
  const _SSGUIDPLAIN original = IUscAsync::GetGUID();
  EXPECT_TRUE(InlineIsEqualGUID(original, IUscAsync::GetGUID()));
  EXPECT_TRUE(IsEqualGUID(original, IUscAsync::GetGUID()));
  for (std::size_t i = 0; i < sizeof original; ++i) {
    _SSGUIDPLAIN other = original;
    reinterpret_cast<unsigned char*>(&other)[i] ^= 0x80;
    EXPECT_FALSE(InlineIsEqualGUID(original, other)) << i;
    EXPECT_FALSE(IsEqualGUID(original, other)) << i;
  }
}

TEST(Identifiers, are_null_only_when_every_byte_is_zero) {
  EXPECT_TRUE(InlineIsNULLGUID({}));
  for (std::size_t i = 0; i < sizeof(_SSGUIDPLAIN); ++i) {
    _SSGUIDPLAIN other{};
    reinterpret_cast<unsigned char*>(&other)[i] = 1;
    EXPECT_FALSE(InlineIsNULLGUID(other)) << i;
  }
}

TEST(Interlocked, operations_return_the_new_value) {
  volatile unsigned int value = 0xFFFFFFFF;
  EXPECT_EQ(InterlockedIncrement(&value), 0u);
  EXPECT_EQ(InterlockedIncrement(&value), 1u);
  EXPECT_EQ(InterlockedDecrement(&value), 0u);
  EXPECT_EQ(InterlockedDecrement(&value), 0xFFFFFFFFu);
  EXPECT_EQ(value, 0xFFFFFFFFu);
}

constexpr unsigned int kThreads = 4;
constexpr unsigned int kTimes = 200'000;

TEST(Interlocked, no_operation_of_any_thread_is_lost) {
  volatile unsigned int value = 5;
  test::atOnce(kThreads, kTimes, [&] { InterlockedIncrement(&value); });
  EXPECT_EQ(value, 5 + kThreads * kTimes);
  test::atOnce(kThreads, kTimes, [&] { InterlockedDecrement(&value); });
  EXPECT_EQ(value, 5u);
}

TEST(ResultCodes, have_their_values) {
  EXPECT_EQ(static_cast<unsigned int>(S_OK), 0u);
  EXPECT_EQ(static_cast<unsigned int>(E_NOTIMPL), 0x80000001u);
  EXPECT_EQ(static_cast<unsigned int>(E_OUTOFMEMORY), 0x80000002u);
  EXPECT_EQ(static_cast<unsigned int>(E_INVALIDARG), 0x80000003u);
  EXPECT_EQ(static_cast<unsigned int>(E_NOINTERFACE), 0x80000004u);
  EXPECT_EQ(static_cast<unsigned int>(E_POINTER), 0x80000005u);
  EXPECT_EQ(static_cast<unsigned int>(E_FAIL), 0x80000008u);
  EXPECT_EQ(static_cast<unsigned int>(E_UNEXPECTED), 0x8000FFFFu);
  EXPECT_EQ(static_cast<unsigned int>(USC_E_BAD_STATE), 0x80042301u);
  EXPECT_EQ(static_cast<unsigned int>(USC_E_OBJECT_NOT_FOUND), 0x80042308u);
  EXPECT_EQ(static_cast<unsigned int>(USC_S_ASYNC_PENDING), 0x00042309u);
  EXPECT_EQ(static_cast<unsigned int>(USC_S_ASYNC_FINISHED), 0x0004230Au);
  EXPECT_EQ(static_cast<unsigned int>(USC_E_VOLUME_NOT_SUPPORTED), 0x8004230Cu);
  EXPECT_EQ(static_cast<unsigned int>(USC_E_OBJECT_ALREADY_EXISTS), 0x8004230Du);
  EXPECT_EQ(static_cast<unsigned int>(USC_E_SNAPSHOT_SET_IN_PROGRESS), 0x80042316u);
  EXPECT_EQ(static_cast<unsigned int>(USC_E_VOLUME_ALREADY_SNAPPED), 0x8004231Du);
  EXPECT_EQ(static_cast<unsigned int>(USC_E_INSUFFICIENT_STORAGE), 0x8004231Fu);
}

// --- The counted base

// The job's interface on the base alone.
class PlainJob : public IUnknownImpl<IUscAsync> {
 public:
  explicit PlainJob(bool& alive) : mAlive(alive) { mAlive = true; }
  ~PlainJob() override { mAlive = false; }
  int Cancel() override { return S_OK; }
  int Wait(unsigned int) override { return S_OK; }
  int QueryStatus(int*, int*) override { return S_OK; }

 private:
  bool& mAlive;
};

class UnknownImpl : public testing::Test {
 protected:
  ~UnknownImpl() override {
    if (alive) job->Release();
  }
  bool alive = false;
  PlainJob* job = new PlainJob(alive);
};

TEST_F(UnknownImpl, starts_with_one_reference_and_goes_with_the_last) {
  EXPECT_EQ(job->AddRef(), 2u);
  EXPECT_EQ(job->AddRef(), 3u);
  EXPECT_EQ(job->Release(), 2u);
  EXPECT_EQ(job->Release(), 1u);
  EXPECT_TRUE(alive);
  EXPECT_EQ(job->Release(), 0u);
  EXPECT_FALSE(alive);
}

TEST_F(UnknownImpl, counts_the_references_of_every_thread) {
  test::atOnce(kThreads, kTimes, [&] { job->AddRef(); });
  EXPECT_EQ(job->AddRef(), kThreads * kTimes + 2);
  test::atOnce(kThreads, kTimes, [&] { job->Release(); });
  EXPECT_EQ(job->Release(), 1u);
}

TEST_F(UnknownImpl, answers_the_unknown_identifier_and_its_own) {
  for (const _SSGUIDPLAIN* iid : {&UnixInterfaces::IUnknown::GetGUID(), &IUscAsync::GetGUID()}) {
    void* out = nullptr;
    EXPECT_EQ(job->QueryInterface(*iid, &out), S_OK);
    EXPECT_EQ(out, static_cast<IUscAsync*>(job));
    EXPECT_EQ(job->Release(), 1u);
  }
}

TEST_F(UnknownImpl, tests_the_identifier_before_the_pointer) {
  EXPECT_EQ(job->QueryInterface(IUscSnapshotEngine::GetGUID(), nullptr), E_NOINTERFACE);
  EXPECT_EQ(job->QueryInterface(IUscAsync::GetGUID(), nullptr), E_POINTER);
  EXPECT_EQ(job->AddRef(), 2u);
  EXPECT_EQ(job->Release(), 1u);
}

TEST_F(UnknownImpl, leaves_the_output_alone_for_an_unknown_identifier) {
  void* out = &out;
  EXPECT_EQ(job->QueryInterface({1, 2, 3, {}}, &out), E_NOINTERFACE);
  EXPECT_EQ(out, &out);
}

}  // namespace
