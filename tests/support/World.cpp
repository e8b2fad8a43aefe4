// SPDX-License-Identifier: Apache-2.0
#include "World.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "KernelDriver.h"
#include "OwnWorld.h"

namespace fs = std::filesystem;

namespace test {
namespace {

[[noreturn]] void giveUp(const char* what) {
  std::fprintf(stderr, "cannot lay the tests' private world: %s: %s (the tests need root)\n", what,
               std::strerror(errno));
  std::exit(2);
}

void must(bool done, const char* what) {
  if (!done) giveUp(what);
}

// Whatever a test does wrong, nothing of the machine but its /tmp is lost by it: all that is mounted becomes read-only,
// here alone, and so is every bind mount of it that a test makes.
void holdMachine() {
  must(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "make / private");
  struct mount_attr readOnly {};
  readOnly.attr_set = MOUNT_ATTR_RDONLY;
  must(mount_setattr(AT_FDCWD, "/", AT_RECURSIVE, &readOnly, sizeof(readOnly)) == 0, "make / read-only");
  // GoogleTest catches standard output there.
  must(mount("/tmp", "/tmp", nullptr, MS_BIND, nullptr) == 0, "bind /tmp");
  must(mount(nullptr, "/tmp", nullptr, MS_REMOUNT | MS_BIND, nullptr) == 0, "make /tmp writable");
}

// An empty file system of the tests' own.
void layRoot(const char* folder, unsigned long flags = 0) {
  must(mount("tests", folder, "tmpfs", flags, "mode=0755") == 0, folder);
  ownWorld().addRoot(folder);
}

// The machine is the tests' own then, and its /dev is the kernel's.
void layKernelsDev() {
  must(mount(nullptr, "/dev", nullptr, MS_REMOUNT | MS_BIND, nullptr) == 0, "make /dev writable");
  must(access("/dev/fd", F_OK) == 0 && access("/dev/shm", F_OK) == 0, "/dev/fd, /dev/shm");
  ownWorld().addRoot("/dev");
}

void layDev() {
  if (hasKernelDriver()) return layKernelsDev();
  // Kept outside the new /dev, so that walks of /dev stay short.
  layRoot("/dev", MS_NOEXEC);
  const struct {
    const char* path;
    unsigned int major, minor;
  } nodes[] = {{"/dev/null", 1, 3},   {"/dev/zero", 1, 5},    {"/dev/full", 1, 7},
               {"/dev/random", 1, 8}, {"/dev/urandom", 1, 9}, {"/dev/loop-control", 10, 237}};
  for (const auto& node : nodes) {
    must(mknod(node.path, S_IFCHR | 0600, makedev(node.major, node.minor)) == 0, node.path);
    must(chmod(node.path, 0666) == 0, node.path);
  }
  must(symlink("/proc/self/fd", "/dev/fd") == 0, "/dev/fd");
  must(mkdir("/dev/shm", 01777) == 0, "/dev/shm");
}

void layRealProc() {
  must(mkdir(kRealProc, 0755) == 0, kRealProc);
  must(mount("proc", kRealProc, "proc", 0, nullptr) == 0, "mount proc");
}

void overlayProc() {
  layRoot("/proc");
  for (const auto& entry : fs::directory_iterator(kRealProc)) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") == std::string::npos) continue;
    fs::create_symlink(entry.path(), fs::path("/proc") / name);
  }
  // The leak sanitizer looks for the program's threads under its number.
  const std::string self = std::to_string(getpid());
  fs::create_symlink(fs::path(kRealProc) / self, fs::path("/proc") / self);
}

}  // namespace

void layPrivateWorld(Proc proc) {
  must(geteuid() == 0, "not root");
  must(unshare(CLONE_NEWNS) == 0, "unshare");
  holdMachine();
  layRoot(kScratch);
  layDev();
  layRealProc();
  if (proc == Proc::kOverlaid) overlayProc();
  umask(0022);
}

void writeFile(const fs::path& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  if (!out.flush()) throw std::runtime_error("cannot write " + path.string());
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path.string());
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string TempDir::prefix() { return std::string(kScratch) + "/t-" + std::to_string(getpid()) + "-"; }

TempDir::TempDir() {
  std::string pattern = prefix() + "XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  mPath = pattern;
}

TempDir::~TempDir() { removeTree(mPath); }

ProcFile::ProcFile(const std::string& name) : mPath("/proc/" + name) {
  if (fs::is_symlink(mPath)) {
    mLink = fs::read_symlink(mPath);
    fs::remove(mPath);
  }
}

ProcFile::ProcFile(const std::string& name, const std::string& content) : ProcFile(name) {
  fs::create_directories(fs::path(mPath).parent_path());
  writeFile(mPath, content);
}

ProcFile::~ProcFile() {
  std::error_code ignored;
  fs::remove(mPath, ignored);
  if (!mLink.empty()) fs::create_symlink(mLink, mPath, ignored);
  const fs::path parent = fs::path(mPath).parent_path();
  if (parent != "/proc") fs::remove(parent, ignored);
}

ShownProcess::ShownProcess(pid_t process) : mPath("/proc/" + std::to_string(process)) {
  fs::create_symlink(kRealProc + ("/" + std::to_string(process)), mPath);
}
ShownProcess::~ShownProcess() { unlink(mPath.c_str()); }

Node::Node(std::string path, mode_t type, unsigned int major, unsigned int minor) : mPath(std::move(path)) {
  if (mknod(mPath.c_str(), type | 0600, makedev(major, minor)) != 0) throw std::runtime_error("cannot make " + mPath);
}

Node::~Node() { unlink(mPath.c_str()); }

}  // namespace test
