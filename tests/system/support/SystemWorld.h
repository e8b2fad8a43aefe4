// SPDX-License-Identifier: Apache-2.0
//
// The world of the system tests: the tests' private world with the real /proc, terminals, an empty /run, and of the
// machine's real volumes only those that hold the programs, read-only: no relocation file ever goes there.
#pragma once

namespace test {

void laySystemWorld();

}  // namespace test
