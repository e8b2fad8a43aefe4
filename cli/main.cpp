// SPDX-License-Identifier: Apache-2.0
//
// mirelsnap, the command-line agent.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <charconv>
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "Failure.h"
#include "Run.h"
#include "qxtools/Handle.h"

namespace {

constexpr char kExitCodes[] =
    "Exit codes of run: COMMAND's own (128 + N when signal N ended it), or\n"
    "    2  the options are wrong, nothing was done     115  no room for a relocation file\n"
    "  111  not root                                    116  the snapshot failed otherwise\n"
    "  112  the driver does not answer                  117  the snapshots cannot be mounted\n"
    "  113  a volume cannot be snapped                  118  something could not be removed\n"
    "  114  a volume is snapped or frozen already       125  standard output cannot be written\n"
    "  126, 127  COMMAND cannot be executed, is not found\n";

// Arguments before the first "--", and those behind it.
struct SplitArguments {
  std::vector<std::string> own;
  std::vector<std::string> command;
  bool separated = false;
};

SplitArguments split(int argc, char** argv) {
  SplitArguments result;
  for (int i = 1; i < argc; ++i) {
    if (!result.separated && std::strcmp(argv[i], "--") == 0) {
      result.separated = true;
    } else {
      (result.separated ? result.command : result.own).emplace_back(argv[i]);
    }
  }
  return result;
}

// What is wrong with a size; nothing when it is one.
std::string checkBlocks(const std::string& text) {
  std::uint32_t blocks = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), blocks);
  if (error == std::errc() && end == text.data() + text.size() && blocks != 0) return "";
  return text + " is no number of blocks (1 to " + std::to_string(std::numeric_limits<std::uint32_t>::max()) + ")";
}

// A result that did not reach its file must not be taken for one.
int checkOutput(int exitCode) {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return exitCode;
  std::fprintf(stderr, "mirelsnap: standard output: cannot be written: %s; the result is lost, all else was done\n",
               std::strerror(errno));
  return exitCode == cli::kSuccess ? cli::kOutputLost : exitCode;
}

// Names that are not ASCII need a locale that can decode them.
void chooseLocale() {
  const char* chosen = std::setlocale(LC_ALL, "");
  if (chosen == nullptr || std::strcmp(std::setlocale(LC_CTYPE, nullptr), "C") == 0)
    std::setlocale(LC_CTYPE, "C.UTF-8");
}

// The usage line with what stands behind "--", which the option parser does not see.
class RunFormatter : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App*, std::string) const override {
    return "Usage: mirelsnap run [OPTIONS] -- COMMAND [ARG...]\n";
  }
};

// An empty name is a variable of a script that is not set: a default in its place would be another run than was meant.
std::string checkNamed(const std::string& text) { return text.empty() ? "the value is empty" : ""; }

void addRun(CLI::App& app, cli::RunOptions& options) {
  CLI::App* run = app.add_subcommand("run", "Snapshot volumes, run a command on the snapshots, clean up");
  run->formatter(std::make_shared<RunFormatter>());
  run->footer(std::string("COMMAND finds the snapshots below $MIRELSNAP_BASE, each volume's first mount point in\n"
                          "$MIRELSNAP_VOLUME_1, _2, ... in the order named, and the set's identifier in\n"
                          "$MIRELSNAP_SET_ID.\n\n") +
              kExitCodes);
  run->add_option("--volume", options.volumes,
                  "A volume to snapshot: its device, its mount point, or DEVICE:MOUNTPOINT; may be repeated\n"
                  "(default: every mounted volume that can be snapped)")
      ->type_name("DEVICE[:MOUNTPOINT]")
      ->check(checkNamed)
      ->allow_extra_args(false);
  run->add_option("--base", options.base,
                  "Where the snapshots are mounted: a new or an empty directory\n(default: /run/mirelsnap/PID)")
      ->type_name("DIR")
      ->check(checkNamed);
  run->add_option("--bind", options.binds, "A live mount point to show below the base as well; may be repeated")
      ->type_name("MOUNTPOINT")
      ->check(checkNamed)
      ->allow_extra_args(false);
  CLI::Option* mount =
      run->add_option("--reloc-mount", options.relocation.mountPoint, "Mount point for the relocation files")
          ->type_name("DIR")
          ->check(checkNamed);
  CLI::Option* size = run->add_option("--reloc-size", options.relocation.blocks,
                                      "Size of each relocation file, in blocks of its volume")
                          ->type_name("BLOCKS")
                          ->check(checkBlocks);
  mount->needs(size);
  size->needs(mount);
  run->add_flag("--json", options.json, "Print the result as one JSON document to standard output");
  run->add_flag("--verbose", options.verbose, "Show each phase and the library's own messages");
}

int usageError(const std::string& cause) {
  std::fprintf(stderr, "mirelsnap: %s; see mirelsnap --help\n", cli::onOneLine(cause).c_str());
  return cli::kUsage;
}

bool hasVerb(CLI::App& app, const std::string& name) {
  return !app.get_subcommands([&](CLI::App* verb) { return verb->get_name() == name; }).empty();
}

int runMain(int argc, char** argv) {
  CLI::App app("mirelsnap: point-in-time snapshots of mounted volumes", "mirelsnap");
  app.set_version_flag("--version", std::string("mirelsnap ") + MIRELSNAP_VERSION);
  app.require_subcommand(1);
  cli::RunOptions runOptions;
  addRun(app, runOptions);

  SplitArguments arguments = split(argc, argv);
  const std::string verb = arguments.own.empty() ? "" : arguments.own.front();
  if (!verb.empty() && verb.front() != '-' && !hasVerb(app, verb))
    return usageError(verb + " is nothing that mirelsnap can do");
  std::vector<std::string> reversed(arguments.own.rbegin(), arguments.own.rend());
  try {
    app.parse(reversed);
  } catch (const CLI::Success& asked) {
    return app.exit(asked);
  } catch (const CLI::ParseError& error) {
    return usageError(error.what());
  }
  if (arguments.command.empty())
    return usageError("run: what is to be run? Put it behind --, as in: mirelsnap run -- COMMAND");
  runOptions.command = arguments.command;
  return cli::run(runOptions);
}

}  // namespace

int main(int argc, char** argv) {
  if (!openClosedStreams()) return cli::kOutputLost;
  chooseLocale();
  try {
    return checkOutput(runMain(argc, argv));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "mirelsnap: unexpected failure: %s\n", error.what());
    return cli::kSnapshotFailed;
  }
}
