// SPDX-License-Identifier: Apache-2.0
#include <dirent.h>
#include <mntent.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Rows.h"
#include "World.h"
#include "base/Handle.h"
#include "sysinfo/LinuxSystemInfo.h"

namespace bench {
namespace {

using mirelsnapsdk_linuxcomputer::FindDev;
using mirelsnapsdk_linuxcomputer::LinuxSystemInfo;

// Short ones are measured so often in a row.
constexpr int kTimes = 20;

double timeOf(const std::function<void()>& action) {
  const Stopwatch watch;
  for (int i = 0; i < kTimes; ++i) action();
  return watch.seconds() / kTimes;
}

std::string tableOf(unsigned int entries) {
  std::string table;
  for (unsigned int i = 0; i < entries; ++i) {
    const std::string number = std::to_string(i);
    table += "/dev/vd" + number + " /srv/volumes/" + number + " ext4 rw,relatime 0 0\n";
  }
  return table;
}

std::size_t readTable() {
  const UniqueMountTable table(setmntent("/proc/mounts", "re"));
  std::vector<char> line(65536);
  mntent record;
  std::size_t count = 0;
  while (getmntent_r(table.get(), &record, line.data(), static_cast<int>(line.size())) != nullptr) ++count;
  return count;
}

void addMountTable(Suite& suite, unsigned int entries) {
  suite.pair(
      "read a mount table of " + std::to_string(entries) + " entries", Suite::kNoBound,
      [entries] {
        const test::ProcFile mounts("mounts", tableOf(entries));
        LinuxSystemInfo system;
        return timeOf([&system, entries] {
          if (system.GetProcMounts().size() != entries) throw std::runtime_error("the table is not what it should be");
        });
      },
      [entries] {
        const test::ProcFile mounts("mounts", tableOf(entries));
        return timeOf([entries] {
          if (readTable() != entries) throw std::runtime_error("the table is not what it should be");
        });
      });
}

// Nodes in a directory of their own below /dev.
class Nodes {
 public:
  explicit Nodes(unsigned int count) {
    mkdir("/dev/bench", 0755);
    for (unsigned int i = 0; i < count; ++i) {
      if (mknod(path(i).c_str(), S_IFBLK | 0600, makedev(240, i)) != 0) throw std::runtime_error("no node can be made");
      mCount = i + 1;
    }
  }
  ~Nodes() {
    for (unsigned int i = 0; i < mCount; ++i) unlink(path(i).c_str());
    rmdir("/dev/bench");
  }
  Nodes(const Nodes&) = delete;
  Nodes& operator=(const Nodes&) = delete;

 private:
  static std::string path(unsigned int i) { return "/dev/bench/" + std::to_string(i); }
  unsigned int mCount = 0;
};

void walk(const std::string& folder) {
  const UniqueDirectory directory(opendir(folder.c_str()));
  while (const dirent* entry = readdir(directory.get())) {
    if (entry->d_name[0] == '.') continue;
    const std::string path = folder + "/" + entry->d_name;
    struct stat node {};
    if (lstat(path.c_str(), &node) == 0 && S_ISDIR(node.st_mode)) walk(path);
  }
}

}  // namespace

Kept addMountTables(Suite& suite) {
  for (const unsigned int entries : {10U, 1000U, 10000U}) addMountTable(suite, entries);
  suite.growth("read a mount table of 1000 entries", "read a mount table of 10000 entries", 14);
  return nullptr;
}

Kept addNodes(Suite& suite) {
  const auto nodes = std::make_shared<Nodes>(10000);
  constexpr unsigned long kNobodys = 0xFFFFF;
  suite.pair(
      "walk /dev with 10000 nodes", 1.1, [] { return timeOf([] { static_cast<void>(FindDev(kNobodys)); }); },
      [] { return timeOf([] { walk("/dev"); }); });
  return nodes;
}

}  // namespace bench
