// SPDX-License-Identifier: Apache-2.0
//
// The names of the devices that the driver offers snapshots as: /dev/snapMAJOR_MINOR, the numbers being the volume's.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

// The volume whose snapshot the device at `path` is; nothing when the path names no such device.
std::optional<dev_t> volumeOfSnapshot(const std::string& path);
