// SPDX-License-Identifier: Apache-2.0
#include "SystemWorld.h"

#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "MountList.h"
#include "OwnWorld.h"
#include "World.h"

namespace test {
namespace {

void must(bool done, const std::string& what) {
  if (done) return;
  std::fprintf(stderr, "cannot lay the system tests' world: %s: %s\n", what.c_str(), std::strerror(errno));
  std::exit(2);
}

void layTerminals() {
  // The kernel's own /dev has them.
  must(mkdir("/dev/pts", 0755) == 0 || errno == EEXIST, "/dev/pts");
  must(mount("tests", "/dev/pts", "devpts", 0, "newinstance,ptmxmode=0666,mode=0620") == 0, "mount /dev/pts");
  must(symlink("pts/ptmx", "/dev/ptmx") == 0 || errno == EEXIST, "/dev/ptmx");
}

bool isRealVolume(const MountLine& line) {
  // One of several devices has no number of its own.
  return line.deviceMajor != 0 || line.source.starts_with("/dev/");
}

// The mounts that hold programs, their libraries, or what these read.
std::set<int> neededMounts(const std::vector<MountLine>& mounts) {
  std::set<int> needed;
  const std::string programs = std::filesystem::canonical(EMULATOR_PROGRAM);
  for (const std::string path : {"/", "/usr", "/bin", "/lib", "/lib64", "/etc", "/var/tmp", programs.c_str()}) {
    const MountLine* holder = nullptr;
    for (const MountLine& mount : mounts) {
      const std::string inside = mount.folder == "/" ? "/" : mount.folder + "/";
      if (path != mount.folder && !path.starts_with(inside)) continue;
      if (holder == nullptr || mount.folder.size() >= holder->folder.size()) holder = &mount;
    }
    if (holder != nullptr) needed.insert(holder->id);
  }
  return needed;
}

// Of the machine's real volumes those that are needed become read-only, the others go: here, and nowhere else.
void holdRealVolumes() {
  const std::vector<MountLine> mounts = mountLines();
  const std::set<int> needed = neededMounts(mounts);
  for (auto mount = mounts.rbegin(); mount != mounts.rend(); ++mount) {
    if (!isRealVolume(*mount)) continue;
    const char* folder = mount->folder.c_str();
    const int result = needed.contains(mount->id)
                           ? ::mount(nullptr, folder, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr)
                           : ownWorld().hideMachines(mount->folder);
    // What another mount hides cannot be reached, neither here nor by a program.
    must(result == 0 || errno == ENOENT || errno == EINVAL, "hold " + mount->folder);
  }
}

}  // namespace

void laySystemWorld() {
  layPrivateWorld(Proc::kReal);
  holdRealVolumes();
  layTerminals();
  must(mount("tests", "/run", "tmpfs", 0, "mode=0755") == 0, "mount /run");
  ownWorld().addRoot("/run");
  // What a started program leaves running becomes this process's child, and is found.
  must(prctl(PR_SET_CHILD_SUBREAPER, 1) == 0, "subreaper");
  setenv("TMPDIR", kScratch, 1);
}

}  // namespace test
