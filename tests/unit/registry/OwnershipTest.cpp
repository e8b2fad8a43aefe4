// SPDX-License-Identifier: Apache-2.0
//
// Counted references, and the holders that the registry is built with.
#include <gtest/gtest.h>

#include <cstdlib>

#include "AtOnce.h"
#include "Builders.h"
#include "engine/AutoFreeVector.h"
#include "engine/GetDoneWrapper.h"

using MirelSnapSnapshotCoordinator::AutoFreeVector;
using MirelSnapSnapshotCoordinator::AutoFreeVectorSpecific;
using MirelSnapSnapshotCoordinator::GetDoneWrapper;

namespace {

struct Counted {
  int references = 1;
  void Get() { ++references; }
  bool Done() { return --references == 0; }
};

struct Noted {
  explicit Noted(int& destroyed) : mDestroyed(destroyed) {}
  ~Noted() { ++mDestroyed; }
  int& mDestroyed;
};

constexpr unsigned int kThreads = 4;
constexpr unsigned int kTimes = 500'000;

// Takes over the two references of `object`.
template <class T>
void expectEveryReferenceToCount(T* object) {
  test::atOnce(kThreads, kTimes, [&] { object->Get(); });
  for (unsigned int i = 0; i < kThreads * kTimes; ++i) {
    if (object->Done()) FAIL() << "a reference was lost: gone at drop " << i;
  }
  for (unsigned int i = 0; i < kThreads * kTimes; ++i) object->Get();
  test::atOnce(kThreads, kTimes, [&] { object->Done(); });
  EXPECT_FALSE(object->Done());
  EXPECT_TRUE(object->Done());
}

}  // namespace

TEST(References, on_a_set_count_whichever_thread_takes_or_drops_them) {
  test::MirelSnapshotSetParams* const set = test::newSet().release();
  set->Get();
  expectEveryReferenceToCount(set);
}

TEST(References, on_a_volume_count_whichever_thread_takes_or_drops_them) {
  const test::SmallVolume device;
  auto* const volume = test::MirelSnapshotVolumeParams::CreateSnapshotVolumeParameters(
      test::guid(1), device.wdevice().c_str(), device.wfolder().c_str());
  ASSERT_NE(volume, nullptr);
  volume->Get();
  expectEveryReferenceToCount(volume);
}

TEST(GetDoneWrapper, drops_one_reference_at_the_end) {
  Counted object;
  object.Get();
  {
    const GetDoneWrapper<Counted> holder(&object);
    EXPECT_FALSE(!holder);
    EXPECT_EQ(holder->references, 2);
  }
  EXPECT_EQ(object.references, 1);
}

TEST(GetDoneWrapper, empty_holds_and_drops_nothing) {
  GetDoneWrapper<Counted> holder;
  EXPECT_TRUE(!holder);
  EXPECT_EQ(holder.Detach(), nullptr);
}

TEST(GetDoneWrapper, attaching_takes_the_reference_over_and_drops_the_one_held_before) {
  Counted first;
  Counted second;
  {
    GetDoneWrapper<Counted> holder;
    holder.Attach(&first);
    EXPECT_EQ(first.references, 1);
    holder.Attach(&second);
    EXPECT_EQ(first.references, 0);
    EXPECT_EQ(second.references, 1);
  }
  EXPECT_EQ(second.references, 0);
}

TEST(GetDoneWrapper, detaching_hands_the_reference_out_and_forgets_the_object) {
  Counted object;
  {
    GetDoneWrapper<Counted> holder(&object);
    EXPECT_EQ(holder.Detach(), &object);
    EXPECT_TRUE(!holder);
  }
  EXPECT_EQ(object.references, 1);
}

TEST(AutoFreeVectorSpecific, deletes_its_elements_when_it_is_destroyed) {
  int destroyed = 0;
  {
    AutoFreeVectorSpecific<Noted> owner;
    owner.push_back(new Noted(destroyed));
    owner.push_back(new Noted(destroyed));
    EXPECT_EQ(destroyed, 0);
  }
  EXPECT_EQ(destroyed, 2);
}

TEST(AutoFreeVector, frees_its_elements_when_it_is_destroyed) {
  AutoFreeVector<void*> owner;
  owner.push_back(std::malloc(10));  // the leak check sees one that stays
  owner.push_back(nullptr);
  EXPECT_EQ(owner.size(), 2u);
}
