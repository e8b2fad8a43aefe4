// SPDX-License-Identifier: Apache-2.0
#include "OwnRoot.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "World.h"

namespace test {
namespace {

void must(bool done, const std::string& what) {
  if (!done) throw std::runtime_error("no root of its own: " + what + ": " + std::strerror(errno));
}

}  // namespace

OwnRoot::OwnRoot()
    : mFolder(TempDir::prefix() + "XXXXXX"),
      mNamespace(open((std::string(kRealProc) + "/thread-self/ns/mnt").c_str(), O_RDONLY | O_CLOEXEC)),
      mRoot(open("/", O_PATH | O_CLOEXEC)),
      mWorkingFolder(open(".", O_PATH | O_CLOEXEC)) {
  must(mNamespace.valid() && mRoot.valid() && mWorkingFolder.valid(), "the way back");
  must(mkdtemp(mFolder.data()) != nullptr, "mkdtemp");
  must(unshare(CLONE_NEWNS) == 0, "unshare");
  must(mount("root", mFolder.c_str(), "tmpfs", 0, "mode=0755") == 0, "mount");
  must(chroot(mFolder.c_str()) == 0 && chdir("/") == 0, "chroot");
  must(mkdir(kScratch, 0755) == 0 && mount("scratch", kScratch, "tmpfs", 0, "mode=0755") == 0, kScratch);
  for (const char* proc : {"/proc", kRealProc}) {
    must(mkdir(proc, 0755) == 0 && mount("proc", proc, "proc", 0, nullptr) == 0, proc);
  }
}

OwnRoot::~OwnRoot() {
  // Otherwise the rest of the program would go on in the wrong root.
  const bool isBack = setns(mNamespace.get(), CLONE_NEWNS) == 0 && fchdir(mRoot.get()) == 0 && chroot(".") == 0 &&
                      fchdir(mWorkingFolder.get()) == 0;
  if (!isBack) {
    std::perror("cannot leave a root of its own");
    std::abort();
  }
  rmdir(mFolder.c_str());
}

}  // namespace test
