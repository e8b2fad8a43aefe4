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
#include <fstream>
#include <sstream>
#include <string>

#include "MountList.h"
#include "World.h"

namespace test {
namespace {

void must(bool done, const std::string& what) {
  if (done) return;
  std::fprintf(stderr, "cannot lay the system tests' world: %s: %s\n", what.c_str(), std::strerror(errno));
  std::exit(2);
}

void layTerminals() {
  must(mkdir("/dev/pts", 0755) == 0, "/dev/pts");
  must(mount("tests", "/dev/pts", "devpts", 0, "newinstance,ptmxmode=0666,mode=0620") == 0, "mount /dev/pts");
  must(symlink("pts/ptmx", "/dev/ptmx") == 0, "/dev/ptmx");
}

// A mount of a block device (one of several, where the file system has no number of its own) becomes read-only here,
// and nowhere else.
void holdRealVolumes() {
  for (const MountLine& line : mountLines()) {
    if (line.deviceMajor == 0 && !line.source.starts_with("/dev/")) continue;
    // What another mount hides cannot be reached, neither here nor by a program.
    const bool held = mount(nullptr, line.folder.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
    must(held || errno == ENOENT || errno == EINVAL, "remount " + line.folder);
  }
}

}  // namespace

void laySystemWorld() {
  layPrivateWorld(Proc::kReal);
  layTerminals();
  must(mount("tests", "/run", "tmpfs", 0, "mode=0755") == 0, "mount /run");
  holdRealVolumes();
  // What a started program leaves running becomes this process's child, and is found.
  must(prctl(PR_SET_CHILD_SUBREAPER, 1) == 0, "subreaper");
  setenv("TMPDIR", kScratch, 1);
}

}  // namespace test
