// SPDX-License-Identifier: Apache-2.0
//
// A small process that outlives the emulator. Should the emulator be killed, it thaws what is frozen, unmounts the
// snapshots in the emulator's mount namespace, and removes their nodes. After an orderly exit it has nothing to do.
#pragma once

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <utility>

#include "base/Handle.h"
#include "emulator/machine/DeviceNumber.h"
#include "emulator/machine/Result.h"

namespace emulator {

class Kernel;

class SafetyNet {
 public:
  // While this exists, something is undone when the emulator is killed.
  class [[nodiscard]] Hold {
   public:
    Hold() = default;
    Hold(Hold&& other) noexcept : mNet(std::exchange(other.mNet, nullptr)), mNumber(other.mNumber) {}
    Hold& operator=(Hold&& other) noexcept {
      release();
      mNet = std::exchange(other.mNet, nullptr);
      mNumber = other.mNumber;
      return *this;
    }
    ~Hold() { release(); }
    void release() noexcept;

   private:
    friend class SafetyNet;
    Hold(SafetyNet* net, unsigned int number) : mNet(net), mNumber(number) {}
    SafetyNet* mNet = nullptr;
    unsigned int mNumber = 0;
  };

  // Starts the process. To be called before there are threads, and before the emulator adopts orphans.
  static Result<SafetyNet> spread(const Kernel& kernel);

  // A file system, open on `root`, that is about to be frozen.
  Hold holdFrozen(const UniqueFd& root);
  // A snapshot's node in a folder, and what may be mounted from its loop device.
  Hold holdSnapshot(const UniqueFd& folder, DeviceNumber volume, DeviceNumber device);

 private:
  explicit SafetyNet(UniqueFd socket) : mSocket(std::move(socket)), mMutex(std::make_unique<std::mutex>()) {}
  void letGo(unsigned int number) noexcept;

  UniqueFd mSocket;
  std::unique_ptr<std::mutex> mMutex;  // one question to the net at a time
};

}  // namespace emulator
