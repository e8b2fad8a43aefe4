// SPDX-License-Identifier: Apache-2.0
//
// mirelsnap-emulator: runs a command as if the driver were loaded.
#include <cstdio>
#include <exception>

#include "emulator/machine/Kernel.h"
#include "emulator/supervise/Options.h"
#include "emulator/supervise/Session.h"
#include "qxtools/StandardStreams.h"

int main(int argc, char** argv) {
  using namespace emulator;
  if (!openClosedStreams()) return kExitRefused;
  try {
    const ParsedOptions parsed = parseOptions(argc, argv);
    if (parsed.exit) return *parsed.exit;
    std::string refusal = whyNot();
    auto kernel = refusal.empty() ? Kernel::reach() : Result<Kernel>(Answer{});
    if (refusal.empty() && !kernel) refusal = std::move(kernel).refusal().why;
    if (!refusal.empty()) {
      std::fprintf(stderr, "mirelsnap-emulator: %s\n", refusal.c_str());
      return kExitRefused;
    }
    return runSession(*kernel, parsed.options);
  } catch (const std::exception& problem) {
    std::fprintf(stderr, "mirelsnap-emulator: %s\n", problem.what());
    return kExitRefused;
  }
}
