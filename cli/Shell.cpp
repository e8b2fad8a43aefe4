// SPDX-License-Identifier: Apache-2.0
//
// `mirelsnap shell`: snapshot, sit down in the snapshots with a shell, clean up.
#include <cstdlib>
#include <memory>

#include "Failure.h"
#include "Run.h"
#include "Verbs.h"

namespace cli {
namespace {

// What the shell's own files may show in the prompt. Debian's bash shows the second by itself.
const std::map<std::string, std::string> kPromptHints = {{"MIRELSNAP_PROMPT", "(mirelsnap) "},
                                                         {"debian_chroot", "mirelsnap"}};

std::string shellProgram() {
  const char* chosen = std::getenv("SHELL");
  return chosen == nullptr || *chosen == '\0' ? "/bin/sh" : chosen;
}

int shell(const RunOptions& options) {
  return snapshotAndRun(options, {"shell",
                                  {shellProgram()},
                                  kPromptHints,
                                  "A shell in the snapshots, which are removed when it ends (exit, or Ctrl-D):",
                                  {.inBase = true, .folder = "", .interactive = true}});
}

}  // namespace

void addShell(CLI::App& program, CommandLine& line) {
  Syntax verb(program, "shell", "Snapshot volumes, open a shell in the snapshots, clean up");
  const auto options = std::make_shared<RunOptions>();
  addSnapshotOptions(verb, *options);
  verb.footer(
      "The shell is $SHELL, else /bin/sh. It starts in the directory below which the\n"
      "snapshots are mounted, and\n" +
      environmentHelp() +
      "$MIRELSNAP_PROMPT holds a hint for its prompt, \"(mirelsnap) \"; on Debian, bash\n"
      "shows one by itself (from $debian_chroot). SIGTERM and the like hang the shell\n"
      "up.\n\n"
      "The exit code is the shell's own, 128 + N when signal N ended it, or one of\n"
      "these.\n\n" +
      exitCodeHelp({kNotRoot, kNoDriver, kVolumeNotSupported, kAlreadySnapped, kNoRoom, kSnapshotFailed, kCannotExpose,
                    kCannotCleanUp, kNotExecutable, kNotFound}));
  verb.whenRead([options, &line] { line.action = [options] { return shell(*options); }; });
}

}  // namespace cli
