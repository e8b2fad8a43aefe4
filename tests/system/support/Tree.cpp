// SPDX-License-Identifier: Apache-2.0
#include "Tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "World.h"

namespace fs = std::filesystem;

namespace test {
namespace {

bool isLeftOut(const std::string& name) { return name == ".verrelocarea" || name == "lost+found"; }

std::string timeOf(const struct stat& status) {
  return std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec);
}

std::string contentOf(const std::string& path, const struct stat& status) {
  std::string content(static_cast<std::size_t>(status.st_size), '\0');
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const ssize_t got = read(file, content.data(), content.size());
  close(file);
  return got == status.st_size ? content : "(cannot be read)";
}

// " NAME=VALUE" for each, access control lists and capabilities among them, by name.
std::string attributesOf(const std::string& path) {
  char names[4096];
  const ssize_t length = llistxattr(path.c_str(), names, sizeof names);
  std::vector<std::string> found;
  for (ssize_t at = 0; at < length; at += static_cast<ssize_t>(std::strlen(names + at)) + 1) {
    char value[4096];
    const ssize_t size = lgetxattr(path.c_str(), names + at, value, sizeof value);
    found.push_back(std::string(names + at) + "=" +
                    std::string(value, static_cast<std::size_t>(std::max<ssize_t>(size, 0))));
  }
  std::sort(found.begin(), found.end());
  std::string text;
  for (const std::string& attribute : found) text += " " + attribute;
  return text;
}

std::string describe(const std::string& path, const struct stat& status) {
  std::ostringstream text;
  text << std::oct << status.st_mode << std::dec << ' ' << status.st_uid << ':' << status.st_gid << attributesOf(path);
  if (S_ISDIR(status.st_mode)) return text.str() + ' ' + timeOf(status);
  text << " links " << status.st_nlink << " size " << status.st_size << ' ' << timeOf(status) << ' ';
  if (S_ISLNK(status.st_mode)) return text.str() + "-> " + fs::read_symlink(path).string();
  if (S_ISREG(status.st_mode)) return text.str() + contentOf(path, status);
  if (S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode)) text << major(status.st_rdev) << ':' << minor(status.st_rdev);
  return text.str();
}

void must(bool done, const std::string& what) {
  if (!done) throw std::runtime_error(what + ": " + std::strerror(errno));
}

std::string bytes(std::size_t count, unsigned int seed) {
  std::string text(count, '\0');
  for (char& byte : text) byte = static_cast<char>((seed = seed * 1103515245 + 12345) >> 16);
  return text;
}

}  // namespace

Tree::Tree(const std::string& folder) {
  Names names;
  read(folder, "", names);
  for (const auto& [file, paths] : names) {
    for (const std::string& path : paths) mEntries[path] += " is " + *paths.begin();
  }
}

void Tree::read(const std::string& folder, const std::string& prefix, Names& names) {
  for (const auto& entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename();
    if (isLeftOut(name)) continue;
    struct stat status;
    must(lstat(entry.path().c_str(), &status) == 0, entry.path());
    mEntries[prefix + name] = describe(entry.path(), status);
    if (S_ISDIR(status.st_mode)) {
      read(entry.path(), prefix + name + "/", names);
    } else if (status.st_nlink > 1) {
      names[{status.st_dev, status.st_ino}].insert(prefix + name);
    }
  }
}

std::string Tree::difference(const Tree& other) const {
  const auto shown = [](const std::string& text) { return text.substr(0, 120); };
  std::string lines;
  for (const auto& [path, entry] : mEntries) {
    const auto found = other.mEntries.find(path);
    if (found == other.mEntries.end()) {
      lines += path + ": only in the first\n";
    } else if (found->second != entry) {
      lines += path + ": " + shown(entry) + " is not " + shown(found->second) + "\n";
    }
  }
  for (const auto& [path, entry] : other.mEntries) {
    if (!mEntries.contains(path)) lines += path + ": only in the second\n";
  }
  return lines;
}

void plantTree(const std::string& folder) {
  const std::string top = folder + "/";
  fs::create_directories(top + "some/deeper folder/with \"quotes\"");
  fs::create_directory(top + "private");
  must(chmod((top + "private").c_str(), 0700) == 0, "chmod");
  for (unsigned int i = 0; i < 20; ++i) writeFile(top + "some/" + std::to_string(i), bytes(100 + i * 977, i));
  writeFile(top + "large", bytes(1 << 20, 99));
  writeFile(top + "empty", "");
  writeFile(top +
                "some/deeper folder/gr\xc3\xbc\xc3\x9f"
                "e\nand a line",
            bytes(5000, 7));
  writeFile(top + "private/owned", bytes(10, 3));
  must(chown((top + "private/owned").c_str(), 1000, 1001) == 0, "chown");
  must(chmod((top + "private/owned").c_str(), 04711) == 0, "chmod");
  writeFile(top + "sparse", "begin");
  must(truncate((top + "sparse").c_str(), 500000) == 0, "truncate");
  fs::create_hard_link(top + "large", top + "large too");
  fs::create_symlink("some/deeper folder", top + "link");
  must(mkfifo((top + "pipe").c_str(), 0640) == 0, "mkfifo");
}

void disturbTree(const std::string& folder) {
  const std::string top = folder + "/";
  for (unsigned int i = 0; i < 20; i += 3) writeFile(top + "some/" + std::to_string(i), bytes(100 + i * 977, i + 1000));
  for (unsigned int i = 1; i < 20; i += 3) fs::remove(top + "some/" + std::to_string(i));
  writeFile(top + "large", bytes(500000, 5));
  writeFile(top + "empty", "not any more");
  fs::rename(top + "some/deeper folder", top + "moved");
  fs::remove(top + "link");
  fs::create_symlink("moved", top + "link");
  must(chmod((top + "private").c_str(), 0755) == 0, "chmod");
  fs::remove(top + "private/owned");
  writeFile(top + "sparse", bytes(500000, 6));
  fs::remove(top + "large too");
  for (unsigned int i = 0; i < 20; ++i) writeFile(top + "new " + std::to_string(i), bytes(20000, i));
  sync();
}

}  // namespace test
