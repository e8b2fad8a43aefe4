// SPDX-License-Identifier: Apache-2.0
//
// `mirelsnap dump-state`: the driver writes its state as text.
#include <cstring>
#include <filesystem>

#include "Driver.h"
#include "Report.h"
#include "Text.h"
#include "Verbs.h"
#include "driver/VolumeRecords.h"

namespace fs = std::filesystem;

namespace cli {
namespace {

struct DumpOptions {
  std::string file;
  bool json = false;
};

constexpr signed char kIntoFile = 1;
constexpr std::size_t kLongestName = 256;

// Full, as the driver knows no working directory of this process.
std::string fullPath(const std::string& file) {
  std::error_code error;
  const fs::path full = fs::absolute(file, error);
  return error ? file : full.lexically_normal().string();
}

Outcome checkFile(const std::string& file) {
  std::error_code error;
  if (file.size() > kLongestName) {
    return Failure{kUsage, file, "is too long for the driver, which takes 256 bytes at most", "name a shorter path"};
  }
  if (!fs::is_directory(fs::path(file).parent_path(), error))
    return Failure{kUsage, fs::path(file).parent_path(), "is not a directory", "name a file in one that is there"};
  if (fs::is_directory(file, error)) return Failure{kUsage, file, "is a directory", "name a file"};
  return std::nullopt;
}

void dumpState(const DumpOptions& options, Report& report) {
  const std::string file = fullPath(options.file);
  report.document() = {{"file", nullptr}, {"size", nullptr}};
  if (const Outcome failure = requireRoot("dump-state", "it talks to the kernel driver"))
    return report.failed(*failure);
  if (const Outcome failure = checkFile(file)) return report.failed(*failure);
  Driver driver;
  if (const Outcome failure = driver.check()) return report.failed(*failure);
  if (const unsigned int status = driver.get()->DumpState(0, kIntoFile, L"", StringToWString(file)); status != 0)
    return report.failed(refused(file, status));
  std::error_code error;
  const std::uintmax_t size = fs::file_size(file, error);
  if (error) {
    return report.failed({kRefused, file, "the driver answered, but the file is not there: " + error.message(),
                          "look for MIRELSNAP_SDK in the system log"});
  }
  report.document()["file"] = file;
  report.document()["size"] = size;
  report.print("The driver's state is in " + onOneLine(file) + " (" + sizeText(size) + ").\n");
}

}  // namespace

void addDumpState(CLI::App& program, CommandLine& line) {
  auto [verb, options] = addVerb<DumpOptions>(program, line, "dump-state",
                                              "Have the driver write its state into a file, as text", &dumpState);
  verb.argument("FILE", options->file, "The file, which is made or replaced; its full path has\n256 bytes at most");
  addJsonOption(verb, options->json);
  verb.footer("What stands in it is for the driver's developers and may change.\n\n" +
              exitCodeHelp({kSuccess, kNotRoot, kNoDriver, kRefused}));
}

}  // namespace cli
