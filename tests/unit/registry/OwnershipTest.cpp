// SPDX-License-Identifier: Apache-2.0
//
// The holders that the registry is built with.
#include <gtest/gtest.h>

#include <cstdlib>

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

}  // namespace

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
