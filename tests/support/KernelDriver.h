// SPDX-License-Identifier: Apache-2.0
//
// The driver of this kernel, for tests that run in a machine of their own which has it. The variable MIRELSNAP_MODULE
// says so: it names the module's file, which is loaded when the tests start.
#pragma once

#include <optional>
#include <string>

namespace test {

// Whether the tests have the kernel's driver in place of the emulator.
bool hasKernelDriver();

// What the driver still holds, as its dump tells it: snapshots, mappings, frozen volumes. Empty when it holds nothing.
std::string heldByKernelDriver();

// The module is not loaded, for a scope.
class UnloadedModule {
 public:
  UnloadedModule();
  ~UnloadedModule();
  UnloadedModule(const UnloadedModule&) = delete;
  UnloadedModule& operator=(const UnloadedModule&) = delete;
};

}  // namespace test
