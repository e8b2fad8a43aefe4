// SPDX-License-Identifier: Apache-2.0
//
// The emulator's own access to the kernel's tables and devices: private mounts of procfs, sysfs and a tmpfs, so that
// mounts over /proc and /sys, and what /dev lacks, do not matter. They vanish with the process.
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

  // Marks a net as in use for its own lifetime, which ends before that of the net.
  class [[nodiscard]] NetInUse {
   public:
    NetInUse(Kernel& kernel, SafetyNet& net) : mKernel(kernel) { mKernel.mNet = &net; }
    ~NetInUse() { mKernel.mNet = nullptr; }
    NetInUse(const NetInUse&) = delete;
    NetInUse& operator=(const NetInUse&) = delete;

   private:
    Kernel& mKernel;
  };
  // Registers the net that undoes, should the emulator be killed, what must be undone.
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
