// SPDX-License-Identifier: Apache-2.0
//
// The driver's commands about mappings from a volume to the relocation file of its snapshot to come.
#include <algorithm>
#include <cerrno>

#include "emulator/driver/EmulatedDriver.h"

namespace emulator {

// A volume has one mapping. The process that made it may make it again, which replaces it; another process may not.
Answer EmulatedDriver::createMapping(const Caller& caller, CommandBuffer& buffer) {
  const auto entry = buffer.record<RelocFileMappingEntry>(0);
  Mapping mapping{entry.appPid, textOf(entry.snappedVolumeName), textOf(entry.relocFileName), std::nullopt};
  mapping.volume = caller.blockDevice(mapping.volumeName);
  const auto same = std::find_if(mMappings.begin(), mMappings.end(),
                                 [&](const Mapping& old) { return old.volumeName == mapping.volumeName; });
  if (same == mMappings.end()) {
    mMappings.push_back(std::move(mapping));
  } else if (same->process == mapping.process) {
    *same = std::move(mapping);
  } else {
    return refuse(EEXIST, mapping.volumeName + " is mapped by process " + std::to_string(same->process) + " already");
  }
  return done();
}

// Any process may delete a mapping, naming the one that made it: so a dead one's mappings can be cleaned up.
Answer EmulatedDriver::deleteMapping(const Caller&, CommandBuffer& buffer) {
  const auto entry = buffer.record<RelocFileMappingEntry>(0);
  const std::string volumeName = textOf(entry.snappedVolumeName);
  const auto removed = std::erase_if(mMappings, [&](const Mapping& mapping) {
    return mapping.process == entry.appPid && mapping.volumeName == volumeName;
  });
  if (removed > 0) return done();
  return refuse(ENOENT, "process " + std::to_string(entry.appPid) + " has no mapping for " + volumeName);
}

Answer EmulatedDriver::countMappings(const Caller&, CommandBuffer& buffer) {
  buffer.putRequestValue(static_cast<std::uint32_t>(mMappings.size()));
  return done();
}

// As many as there is room for.
Answer EmulatedDriver::listMappings(const Caller&, CommandBuffer& buffer) {
  const std::size_t filled = std::min<std::size_t>(buffer.header().requestValue, mMappings.size());
  for (std::size_t i = 0; i < filled; ++i) {
    RelocFileMappingEntry entry{};
    entry.appPid = mMappings[i].process;
    putText(entry.snappedVolumeName, mMappings[i].volumeName);
    putText(entry.relocFileName, mMappings[i].relocFileName);
    buffer.putRecord(i, entry);
  }
  buffer.putRequestValue(static_cast<std::uint32_t>(filled));
  return done();
}

}  // namespace emulator
