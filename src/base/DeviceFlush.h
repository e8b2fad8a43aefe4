// SPDX-License-Identifier: Apache-2.0
#pragma once

// Writes out what the kernel holds of the block device at `path` in memory, and drops it: a driver reads and writes
// below. A failure is logged and stops nothing.
void flushDevice(const char* path);
