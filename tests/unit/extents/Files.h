// SPDX-License-Identifier: Apache-2.0
//
// Files as relocation files are, and what the kernel says of their blocks.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <mirelsnap/VolumeRecords.h>

namespace test {

// Writes every block of a file of `bytes` bytes and sees to it that they are on the device.
void writeOut(const std::string& path, std::uint64_t bytes);
// Makes a file that is one hole.
void makeSparse(const std::string& path, std::uint64_t bytes);
// Puts written blocks of `bytes` at `offset` of a file that exists.
void writeAt(const std::string& path, std::uint64_t offset, std::uint64_t bytes);
// The physical block of each of the first `count` blocks of a file, from the kernel itself.
std::vector<std::uint64_t> physicalBlocks(const std::string& path, int count);
// Those blocks as runs, each start and count multiplied.
std::vector<std::pair<std::uint64_t, std::uint64_t>> asRuns(const std::vector<std::uint64_t>& blocks,
                                                            std::uint64_t factor = 1);

}  // namespace test
