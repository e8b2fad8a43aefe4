// SPDX-License-Identifier: Apache-2.0
//
// What the payload of a command says, as JSON for the trace. A payload that was refused is described as far as it can
// be read: no count is followed past the buffer.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "emulator/driver/CommandBuffer.h"

namespace emulator {

// Each adds its members to `line`. The buffer is as long as its command's rule says.
void describeNothing(nlohmann::ordered_json& line, const CommandBuffer& buffer);
void describeVersion(nlohmann::ordered_json& line, const CommandBuffer& buffer);
void describeLogLevel(nlohmann::ordered_json& line, const CommandBuffer& buffer);
void describeVolumeCheck(nlohmann::ordered_json& line, const CommandBuffer& buffer);
void describeVolumeList(nlohmann::ordered_json& line, const CommandBuffer& buffer);
void describeMapping(nlohmann::ordered_json& line, const CommandBuffer& buffer);
void describeMappings(nlohmann::ordered_json& line, const CommandBuffer& buffer);
void describeSnappedVolumes(nlohmann::ordered_json& line, const CommandBuffer& buffer);
void describeSnap(nlohmann::ordered_json& line, const CommandBuffer& buffer);
void describeDiscard(nlohmann::ordered_json& line, const CommandBuffer& buffer);
void describeTrackingVars(nlohmann::ordered_json& line, const CommandBuffer& buffer);
void describeBitmap(nlohmann::ordered_json& line, const CommandBuffer& buffer);
void describeDumpState(nlohmann::ordered_json& line, const CommandBuffer& buffer);

}  // namespace emulator
