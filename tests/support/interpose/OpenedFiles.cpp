// SPDX-License-Identifier: Apache-2.0
#include "interpose/OpenedFiles.h"

#include <dlfcn.h>

#include <stdexcept>

namespace {

bool recording = false;
std::vector<test::OpenedFile> opened;

}  // namespace

namespace test {

OpenedFiles::OpenedFiles() {
  if (recording) throw std::logic_error("one recording of opened files at a time");
  opened.reserve(64);  // recording allocates nothing, so that it disturbs no count of what is held
  recording = true;
}

OpenedFiles::~OpenedFiles() {
  recording = false;
  opened.clear();
}

const std::vector<OpenedFile>& OpenedFiles::all() const { return opened; }

}  // namespace test

// Takes the place of the C library's function.
extern "C" std::FILE* fopen(const char* path, const char* mode) {
  static const auto next = reinterpret_cast<std::FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen"));
  std::FILE* stream = next(path, mode);
  if (recording) opened.push_back({path, mode, stream});
  return stream;
}
