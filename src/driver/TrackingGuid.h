// SPDX-License-Identifier: Apache-2.0
//
// The time-based identifier of change tracking, the system's own kind.
#pragma once

#include <string>

// Seeds the generator's last time and clock sequence; only the first call of the process does anything.
void guidInit();

// A 36-character lower-case text in the grouping 8-4-4-4-12, or "{null}" when too many were made in one tick.
std::string generateTrackingGuid();
