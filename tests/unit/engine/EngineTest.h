// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include "EngineLog.h"
#include "ScriptedDriver.h"
#include "engine/MirelSnapshotEngine.h"

namespace test {

using MirelSnapSnapshotCoordinator::IAsyncDoSnapshot;
using MirelSnapSnapshotCoordinator::MirelSnapshotEngine;
using UnixSnapshotCoordinator::IUscAsync;
using UnixSnapshotCoordinator::IUscSnapshotEngine;

// A driver, the engine's messages, and an engine when a test makes one.
class EngineTest : public testing::Test {
 protected:
  // The engine that the exported entry makes.
  void create() { engine = static_cast<MirelSnapshotEngine*>(GetCreatorFunction()()); }
  void release() {
    if (engine != nullptr) engine->Release();
    engine = nullptr;
  }
  unsigned int references() {
    engine->AddRef();
    return engine->Release();
  }
  void TearDown() override {
    release();
    EXPECT_EQ(SnapDriverInterface::mReferenceCount, 0u);
    EXPECT_EQ(SnapDriverInterface::mInstance, nullptr);
  }

  ScriptedDriver driver;
  EngineLog log;
  MirelSnapshotEngine* engine = nullptr;
};

}  // namespace test
