// SPDX-License-Identifier: Apache-2.0
#include "DevTree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "base/Handle.h"

namespace test {

DevTree::~DevTree() {
  for (auto path = mMade.rbegin(); path != mMade.rend(); ++path) std::remove(path->c_str());
}

void DevTree::made(const std::string& path, int result) {
  if (result != 0) throw std::runtime_error("cannot make " + path + ": " + std::strerror(errno));
  mMade.push_back(path);
}

void DevTree::directory(const std::string& path) {
  const std::string parent = std::filesystem::path(path).parent_path();
  if (!std::filesystem::exists(parent)) directory(parent);
  made(path, mkdir(path.c_str(), 0755));
}

void DevTree::file(const std::string& path) { made(path, mknod(path.c_str(), S_IFREG | 0600, 0)); }

void DevTree::link(const std::string& path, const std::string& text) {
  made(path, symlink(text.c_str(), path.c_str()));
}

void DevTree::block(const std::string& path, unsigned int major, unsigned int minor) {
  made(path, mknod(path.c_str(), S_IFBLK | 0600, makedev(major, minor)));
}

void DevTree::character(const std::string& path, unsigned int major, unsigned int minor) {
  made(path, mknod(path.c_str(), S_IFCHR | 0600, makedev(major, minor)));
}

namespace {

// Walks down to `directory` in steps that the kernel takes.
UniqueFd openInSteps(const std::string& directory) {
  UniqueFd at(open("/", O_DIRECTORY | O_RDONLY | O_CLOEXEC));
  for (const auto& step : std::filesystem::path(directory).relative_path()) {
    at = UniqueFd(openat(at.get(), step.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC));
    if (!at) throw std::runtime_error("cannot open a directory on the way down");
  }
  return at;
}

}  // namespace

std::string makeDeepDirectory(const std::string& top, std::size_t length) {
  UniqueFd at = openInSteps(top);
  std::string path = top;
  while (path.size() < length) {
    std::size_t name = std::min<std::size_t>(length - path.size() - 1, 200);
    if (length - path.size() - 1 - name == 1) --name;  // the next level needs a separator and a byte
    const std::string level(name, 'd');
    if (mkdirat(at.get(), level.c_str(), 0755) != 0) throw std::runtime_error("cannot make a deep directory");
    at = UniqueFd(openat(at.get(), level.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC));
    path += "/" + level;
  }
  return path;
}

void makeBlockAt(const std::string& directory, const std::string& name, unsigned int major, unsigned int minor) {
  const UniqueFd at = openInSteps(directory);
  if (mknodat(at.get(), name.c_str(), S_IFBLK | 0600, makedev(major, minor)) != 0) {
    throw std::runtime_error("cannot make a deep node");
  }
}

std::vector<std::string> namesInOrder(const std::string& directory) {
  std::vector<std::string> names;
  const UniqueDirectory stream(opendir(directory.c_str()));
  while (const dirent* entry = readdir(stream.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  return names;
}

}  // namespace test
