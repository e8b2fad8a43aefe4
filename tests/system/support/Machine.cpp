// SPDX-License-Identifier: Apache-2.0
#include "Machine.h"

#include <sys/mount.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace test {
namespace {

// The libraries that a program needs, by their full paths, the loader among them.
std::vector<std::string> librariesOf(const std::string& program) {
  FILE* listing = popen(("ldd '" + program + "'").c_str(), "r");
  if (listing == nullptr) throw std::runtime_error("cannot run ldd");
  std::vector<std::string> found;
  char line[4096];
  while (std::fgets(line, sizeof line, listing) != nullptr) {
    std::istringstream words(line);
    for (std::string word; words >> word;) {
      if (word.front() == '/') found.push_back(word);
    }
  }
  pclose(listing);
  return found;
}

// The file of leaks that are the contract, which programs built with the leak sanitizer read; empty without it.
std::string suppressions() {
  const char* options = std::getenv("LSAN_OPTIONS");
  const std::string text = options == nullptr ? "" : options;
  const std::string key = "suppressions=";
  const std::size_t start = text.find(key);
  if (start == std::string::npos) return "";
  return text.substr(start + key.size(), text.find(':', start) - start - key.size());
}

}  // namespace

Machine::Machine() {
  for (const char* folder : {"/proc", "/dev", "/sys", "/run", "/tmp", "/etc", "/home"}) {
    fs::create_directory(*this / folder);
  }
  mMounts.push_back(std::make_unique<Mounted>("proc", *this / "/proc", "proc"));
  mMounts.push_back(std::make_unique<Mounted>("/dev", *this / "/dev", "", MS_BIND));
  mMounts.push_back(std::make_unique<Mounted>("tests", *this / "/run", "tmpfs"));
  for (const char* program : {"/bin/sh", "/bin/cat", "/bin/ls"}) install(program);
  for (const char* program : {MIRELSNAP_PROGRAM, AGENT_PROGRAM, MIRELSNAP_LIBRARY}) install(program);
  if (!suppressions().empty()) copy(suppressions());
}

void Machine::install(const std::string& program) {
  for (const std::string& library : librariesOf(program)) copy(library);
  copy(program);
}

void Machine::copy(const std::string& file) {
  fs::create_directories(*this / fs::path(file).parent_path().string());
  fs::copy_file(file, *this / file, fs::copy_options::skip_existing);
}

}  // namespace test
