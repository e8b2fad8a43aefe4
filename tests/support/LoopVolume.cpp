// SPDX-License-Identifier: Apache-2.0
#include "LoopVolume.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "OwnWorld.h"
#include "base/Handle.h"

namespace test {
namespace {

// The kernel itself, past any interposed ioctl.
long kernelIoctl(int fd, unsigned long request, unsigned long argument) {
  return syscall(SYS_ioctl, fd, request, argument);
}

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what + ": " + std::strerror(errno)); }

}  // namespace

LoopDevice::LoopDevice(std::uint64_t bytes) : LoopDevice(bytes, "") {}

LoopDevice::LoopDevice(std::uint64_t bytes, const std::string& folder)
    : mImage((folder.empty() ? mDir.path() : folder) + "/image") {
  const UniqueFd file(open(mImage.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!file || ftruncate(file.get(), static_cast<off_t>(bytes)) != 0) fail("cannot make " + mImage);
  const UniqueFd control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
  if (!control) fail("cannot open /dev/loop-control");
  loop_config config{};
  config.fd = static_cast<std::uint32_t>(file.get());
  config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
  // Another process may take the device first: the kernel says so, and names another.
  do {
    const long number = kernelIoctl(control.get(), LOOP_CTL_GET_FREE, 0);
    if (number < 0) fail("no free loop device");
    mMinor = static_cast<unsigned int>(number);
    mPath = "/dev/loop" + std::to_string(mMinor);
    unlink(mPath.c_str());
    if (mknod(mPath.c_str(), S_IFBLK | 0600, makedev(7, mMinor)) != 0) fail("cannot make " + mPath);
    mDevice = open(mPath.c_str(), O_RDWR | O_CLOEXEC);
    if (mDevice >= 0 && kernelIoctl(mDevice, LOOP_CONFIGURE, reinterpret_cast<unsigned long>(&config)) == 0) return;
    close(std::exchange(mDevice, -1));
    unlink(mPath.c_str());
  } while (errno == EBUSY || errno == ENXIO);
  fail("cannot set up a loop device");
}

LoopDevice::~LoopDevice() {
  close(mDevice);  // detaches: the device clears itself with its last user
  unlink(mPath.c_str());
  unlink(mImage.c_str());
}

void LoopDevice::mkfs(const std::string& type, const std::vector<std::string>& options) const {
  std::vector<std::string> arguments = {"mkfs." + type, "-q"};
  arguments.insert(arguments.end(), options.begin(), options.end());
  arguments.push_back(mPath);
  if (run(arguments) != 0) throw std::runtime_error("mkfs." + type + " failed on " + mPath);
}

Mounted::Mounted(const std::string& source, const std::string& folder, const std::string& type, unsigned long flags,
                 const std::string& data)
    : mFolder(folder) {
  if (mount(source.c_str(), folder.c_str(), type.c_str(), flags, data.c_str()) != 0) {
    fail("cannot mount " + source + " on " + folder);
  }
  ownWorld().addMount(folder);
}

Mounted::~Mounted() { unmount(mFolder); }

Volume::Volume(const std::string& type, std::uint64_t bytes, const std::vector<std::string>& mkfsOptions,
               const std::string& imageFolder)
    : mLoop(imageFolder.empty() ? LoopDevice(bytes) : LoopDevice(bytes, imageFolder)), mFolder(mDir / "volume") {
  mLoop.mkfs(type, mkfsOptions);
  if (mkdir(mFolder.c_str(), 0755) != 0) fail("cannot make " + mFolder);
  if (mount(mLoop.path().c_str(), mFolder.c_str(), type.c_str(), 0, nullptr) != 0) fail("cannot mount " + mLoop.path());
  ownWorld().addMount(mFolder);
  ownWorld().addFileSystem(mFolder);
}

Volume::~Volume() { unmount(mFolder); }

int run(const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) fail("cannot run " + arguments[0]);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace test
