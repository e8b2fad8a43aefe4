// SPDX-License-Identifier: Apache-2.0
//
// The emulator's own way to the kernel's tables and devices: file systems that nobody else sees, so that neither what
// lies over /proc and /sys nor what /dev lacks matters. They are gone with the process.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "base/Handle.h"
#include "emulator/machine/DeviceNumber.h"
#include "emulator/machine/Result.h"

namespace emulator {

class SafetyNet;

class Kernel {
 public:
  // Mounts them. Needs CAP_SYS_ADMIN.
  static Result<Kernel> reach();

  int proc() const { return mProc.get(); }
  int sys() const { return mSys.get(); }
  int nodes() const { return mNodes.get(); }

  // A net in use; when this goes, before the net, it is in use no more.
  class [[nodiscard]] NetInUse {
   public:
    NetInUse(Kernel& kernel, SafetyNet& net) : mKernel(kernel) { mKernel.mNet = &net; }
    ~NetInUse() { mKernel.mNet = nullptr; }
    NetInUse(const NetInUse&) = delete;
    NetInUse& operator=(const NetInUse&) = delete;

   private:
    Kernel& mKernel;
  };
  // What must be undone even when the emulator is killed is told to the net in use; without one, nobody is told.
  NetInUse use(SafetyNet& net) { return {*this, net}; }
  SafetyNet* net() const { return mNet; }

  // Opens a device by its numbers; `type` is S_IFBLK or S_IFCHR. Invalid on failure, errno says why.
  UniqueFd openDevice(mode_t type, DeviceNumber device, int flags) const;

  // The whole text of a file under /proc or /sys (`folder` is proc() or sys()); empty when it cannot be read.
  static std::string readText(int folder, const std::string& path);

 private:
  Kernel(UniqueFd proc, UniqueFd sys, UniqueFd nodes)
      : mProc(std::move(proc)), mSys(std::move(sys)), mNodes(std::move(nodes)) {}

  UniqueFd mProc;
  UniqueFd mSys;
  UniqueFd mNodes;  // a tmpfs for device nodes
  SafetyNet* mNet = nullptr;
};

}  // namespace emulator
