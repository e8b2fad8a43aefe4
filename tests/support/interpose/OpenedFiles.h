// SPDX-License-Identifier: Apache-2.0
//
// What the program opens with fopen. For programs that list interpose/OpenedFiles.cpp among their sources.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace test {

struct OpenedFile {
  std::string path;
  std::string mode;
  std::FILE* stream;  // null when it could not be opened
};

// Records every fopen from construction to destruction; one at a time exists.
class OpenedFiles {
 public:
  OpenedFiles();
  ~OpenedFiles();
  OpenedFiles(const OpenedFiles&) = delete;
  OpenedFiles& operator=(const OpenedFiles&) = delete;
  const std::vector<OpenedFile>& all() const;
};

}  // namespace test
