// SPDX-License-Identifier: Apache-2.0
//
// The world of the job's tests: a driver that takes snapshots, the engine's messages, engines and volumes.
#pragma once

#include <gtest/gtest.h>

#include <semaphore>
#include <string>
#include <utility>

#include "EngineLog.h"
#include "LoopVolume.h"
#include "ScriptedDriver.h"
#include "Wide.h"
#include "engine/MirelSnapshotEngine.h"

namespace test {

using namespace MirelSnapSnapshotCoordinator;
using UnixSnapshotCoordinator::IUscAsync;

// An engine and the agent's reference on it.
class Engine {
 public:
  Engine();
  ~Engine() { release(); }
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  MirelSnapshotEngine* operator->() const { return mEngine; }
  MirelSnapshotEngine& operator*() const { return *mEngine; }
  // Drops the agent's reference.
  void release();
  unsigned int references() const;
  // The job's face, no reference added.
  IAsyncDoSnapshot* face() const;

  // Opens a set; its identifier.
  _SSGUIDPLAIN start() const;
  // Adds the volume; its snapshot's identifier.
  _SSGUIDPLAIN add(const Volume& volume) const;
  // Adds the volume, with a relocation file of 16 blocks on the volume itself.
  _SSGUIDPLAIN addWithRelocation(const Volume& volume) const;

 private:
  MirelSnapshotEngine* mEngine;
};

// A job and the agent's reference on it.
class Job {
 public:
  // Starts the engine's job.
  explicit Job(const Engine& engine);
  ~Job() { release(); }
  Job(const Job&) = delete;
  Job& operator=(const Job&) = delete;
  IUscAsync* operator->() const { return mJob; }
  void release();

 private:
  IUscAsync* mJob = nullptr;
};

class JobTest : public testing::Test {
 protected:
  // Nothing of the process-wide state may stay.
  void TearDown() override;

  // Waits until the job is done and its worker has ended. The agent's two references are left.
  static void awaitEnd(const Engine& engine, const Job& job);
  // Status and snap result of a finished job.
  static std::pair<int, int> outcome(const Job& job);
  // Whether no set is in progress in the process.
  static bool noSetInProgress();
  // Takes the set out of the list of snapped sets.
  static void forget(const _SSGUIDPLAIN& setId);
  static bool isListed(const _SSGUIDPLAIN& setId);

  ScriptedDriver driver;
  EngineLog log;
};

// Takes the engine's messages in place of the fixture's log, and looks whether the engine's lock is held at each.
class LockAtMessages {
 public:
  LockAtMessages();
  ~LockAtMessages();
  LockAtMessages(const LockAtMessages&) = delete;
  LockAtMessages& operator=(const LockAtMessages&) = delete;
  int held() const { return mHeld; }
  int free() const { return mFree; }

 private:
  static void look(unsigned short level, const wchar_t* message, void* self);
  int mHeld = 0;
  int mFree = 0;
};

// A place at which the worker stays until the test lets it go on.
class Gate {
 public:
  // The worker's side.
  void pass();
  // The test's side: waits until the worker has come, and lets it go.
  bool reached();
  void open() { mOpened.release(); }

 private:
  std::binary_semaphore mReached{0};
  std::binary_semaphore mOpened{0};
};

}  // namespace test
