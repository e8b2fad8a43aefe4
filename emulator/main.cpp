// SPDX-License-Identifier: Apache-2.0
//
// mirelsnap-emulator: runs a command as if the driver were loaded.
#include <cstdio>
#include <exception>
#include <string>

#include "base/StandardStreams.h"
#include "emulator/machine/Kernel.h"
#include "emulator/supervise/Options.h"
#include "emulator/supervise/Session.h"

namespace {

int complain(const std::string& what) {
  std::fprintf(stderr, "mirelsnap-emulator: %s\n", what.c_str());
  return emulator::kExitRefused;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace emulator;
  if (!openClosedStreams()) return kExitRefused;
  try {
    const ParsedOptions parsed = parseOptions(argc, argv);
    if (parsed.exit) return *parsed.exit;
    if (const std::string refusal = whyNot(); !refusal.empty()) return complain(refusal);
    auto kernel = Kernel::reach();
    if (!kernel) return complain(kernel.error().why);
    return runSession(*kernel, parsed.options);
  } catch (const std::exception& problem) {
    return complain(problem.what());
  }
}
