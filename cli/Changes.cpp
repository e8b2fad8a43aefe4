// SPDX-License-Identifier: Apache-2.0
//
// `mirelsnap changes`: which blocks of a tracked volume changed.
#include <algorithm>
#include <array>
#include <cstdio>

#include <unistd.h>

#include "ChangedRuns.h"
#include "Driver.h"
#include "Report.h"
#include "Terminal.h"
#include "Text.h"
#include "Verbs.h"
#include "VolumeChoice.h"

namespace cli {
namespace {

using nlohmann::json;

struct ChangesOptions {
  std::string device;
  bool map = false;
  bool json = false;
};

std::string percentText(std::uint64_t part, std::uint64_t whole) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.1f %%",
                whole == 0 ? 0.0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole));
  return text.data();
}

std::string headline(const std::string& device, const ChangedRuns& changed) {
  return onOneLine(device) + ": " + counted(changed.blocks(), "block") + " of " + std::to_string(changed.blockSize) +
         " bytes changed in " + counted(changed.runs.size(), "run") + " (" +
         sizeText(changed.blocks() * changed.blockSize) + ", " + percentText(changed.blocks(), changed.numBlocks) +
         " of " + sizeText(changed.numBlocks * changed.blockSize) + ")\n";
}

std::string runsText(const ChangedRuns& changed) {
  Table table({">FIRST BLOCK", ">BLOCKS", ">SIZE"});
  for (const _run& run : changed.runs)
    table.add(
        {std::to_string(run.startBlock), std::to_string(run.numBlocks), sizeText(run.numBlocks * changed.blockSize)});
  return table.empty() ? "" : table.text();
}

// The device from its first block to its last, in one line.
std::string mapText(const ChangedRuns& changed) {
  const std::vector<std::string>& shades = mapShades();
  const unsigned int cells = static_cast<unsigned int>(
      std::min<std::uint64_t>(columnsOf(STDOUT_FILENO), std::max<std::uint64_t>(changed.numBlocks, 1)));
  std::string text;
  for (unsigned int cell = 0; cell < cells; ++cell) {
    const std::uint64_t first = changed.numBlocks * cell / cells;
    const std::uint64_t end = changed.numBlocks * (cell + 1) / cells;
    const std::uint64_t part = changed.blocksIn(first, end);
    text += part == 0 ? shades[0] : part == end - first ? shades[3] : part * 2 < end - first ? shades[1] : shades[2];
  }
  return text + "\n" + shades[0] + " unchanged  " + shades[1] + " less than half  " + shades[2] + " half or more  " +
         shades[3] + " all changed; a cell is " + sizeText(changed.numBlocks * changed.blockSize / cells) + "\n";
}

void changes(const ChangesOptions& options, Report& report) {
  report.document() = {{"device", nullptr}, {"tracking", nullptr},       {"block_size", nullptr},
                       {"blocks", nullptr}, {"changed_blocks", nullptr}, {"runs", json::array()}};
  if (const Outcome failure = requireRoot("changes", "it talks to the kernel driver")) return report.failed(*failure);
  const auto named = deviceNamed(options.device, MountTable());
  if (const auto* failure = std::get_if<Failure>(&named)) return report.failed(*failure);
  const std::string& device = std::get<std::string>(named);
  Driver driver;
  if (const Outcome failure = driver.check()) return report.failed(*failure);
  const std::optional<Tracking> tracking = driver.tracking(device);
  if (!tracking) return report.failed(notTracked(device));
  const auto read = readChangedRuns(driver, device);
  if (const auto* failure = std::get_if<Failure>(&read)) return report.failed(*failure);
  const auto& changed = std::get<ChangedRuns>(read);

  json& document = report.document();
  document["device"] = device;
  document["tracking"] = {{"id", tracking->id}, {"sequence", tracking->sequence}};
  document["block_size"] = changed.blockSize;
  document["blocks"] = changed.numBlocks;
  document["changed_blocks"] = changed.blocks();
  for (const _run& run : changed.runs)
    document["runs"].push_back({{"start", run.startBlock}, {"blocks", run.numBlocks}});
  report.print(headline(device, changed));
  report.print("Tracked as " + tracking->id + ", sequence " + std::to_string(tracking->sequence) + "\n");
  report.print(options.map ? mapText(changed) : runsText(changed));
}

}  // namespace

void addChanges(CLI::App& program, CommandLine& line) {
  auto [verb, options] =
      addVerb<ChangesOptions>(program, line, "changes", "Show which blocks of a tracked volume changed", &changes);
  verb.argument("DEVICE", options->device, "A volume that is tracked: device or mount point");
  verb.flag("--map", options->map, "Draw the device as a bar instead, as wide as the terminal\n(else 80 cells)");
  addJsonOption(verb, options->json);
  verb.footer(
      "The driver tracks a volume from the instant of a snapshot that asks for it,\n"
      "until the snapshot is deleted or mirelsnap stop-tracking. What is written\n"
      "meanwhile may be shown or not: freeze the volume to see one instant.\n\n" +
      exitCodeHelp({kSuccess, kNotRoot, kNoDriver, kVolumeNotSupported, kRefused, kNotInState}));
}

}  // namespace cli
