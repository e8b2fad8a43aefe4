// SPDX-License-Identifier: Apache-2.0
#include "base/Resolve.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

constexpr int kThrough = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

UniqueFd openOnce(int root, const char* path, int flags, std::uint64_t resolve) noexcept {
  open_how how{};
  how.flags = static_cast<unsigned int>(flags | O_CLOEXEC);
  how.resolve = resolve;
  return UniqueFd(static_cast<int>(syscall(SYS_openat2, root, path, &how, sizeof how)));
}

// Whether openat2 failed because there is none: the kernel is older, or a filter of system calls does not know it.
bool isMissing(const UniqueFd& opened) noexcept { return !opened && (errno == ENOSYS || errno == EPERM); }

// Opens the last component. O_PATH alone would open a link itself.
UniqueFd openLast(int directory, const char* name, int flags) noexcept {
  UniqueFd opened(openat(directory, name, flags | O_NOFOLLOW | O_CLOEXEC));
  if (opened && (flags & O_PATH) != 0) {
    char target = 0;
    if (readlinkat(opened.get(), "", &target, sizeof target) >= 0) {
      opened.reset();
      errno = ELOOP;
    }
  }
  return opened;
}

// For kernels before 5.6: the same, a component after the other. O_NOFOLLOW meets a link among them as "not a
// directory".
UniqueFd openStepwise(int root, const char* path, int flags) noexcept {
  UniqueFd directory;
  int current = root;
  for (const char* name = path;;) {
    name += std::strspn(name, "/");
    const std::size_t length = std::strcspn(name, "/");
    std::array<char, NAME_MAX + 1> component{};
    if (length >= component.size()) {
      errno = ENAMETOOLONG;
      return UniqueFd();
    }
    std::memcpy(component.data(), name, length);
    if (length == 0) component[0] = '.';
    name += length + std::strspn(name + length, "/");
    if (*name == '\0') return openLast(current, component.data(), flags);
    UniqueFd next(openat(current, component.data(), kThrough));
    if (!next) return next;
    directory = std::move(next);
    current = directory.get();
  }
}

UniqueFd openFrom(int root, const char* path, int flags) noexcept {
  UniqueFd opened = openOnce(root, path, flags, RESOLVE_NO_SYMLINKS);
  if (!isMissing(opened)) return opened;
  if (root != AT_FDCWD) return openStepwise(root, path, flags);
  const UniqueFd top(open("/", kThrough));
  return top ? openStepwise(top.get(), path, flags) : UniqueFd();
}

// A mount of another file system shows by its device number; a bind mount of the same one does not.
bool onSameDevice(int directory, int entry) noexcept {
  struct stat there {};
  struct stat here {};
  return fstat(directory, &there) == 0 && fstat(entry, &here) == 0 && there.st_dev == here.st_dev;
}

bool leadsUp(const char* path) noexcept {
  for (const char* name = path; *name != '\0';) {
    const std::size_t length = std::strcspn(name, "/");
    if (length == 2 && name[0] == '.' && name[1] == '.') return true;
    name += length + std::strspn(name + length, "/");
  }
  return false;
}

}  // namespace

UniqueFd openWithoutLinks(const char* path, int flags) noexcept {
  if (path[0] != '/') {
    errno = EINVAL;
    return UniqueFd();
  }
  return openFrom(AT_FDCWD, path, flags);
}

UniqueFd openBeneath(int root, const char* relative, int flags) noexcept {
  relative += std::strspn(relative, "/");
  if (leadsUp(relative)) {
    errno = EXDEV;
    return UniqueFd();
  }
  return openFrom(root, *relative == '\0' ? "." : relative, flags);
}

UniqueFd openEntry(int directory, const char* name, int flags) noexcept {
  UniqueFd opened = openOnce(directory, name, flags, RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV | RESOLVE_BENEATH);
  if (!isMissing(opened)) return opened;
  if (std::strchr(name, '/') != nullptr || leadsUp(name)) {
    errno = EXDEV;
    return UniqueFd();
  }
  opened = openLast(directory, name, flags);
  if (opened && !onSameDevice(directory, opened.get())) {
    opened.reset();
    errno = EXDEV;
  }
  return opened;
}

DescriptorPath::DescriptorPath(int descriptor) noexcept {
  std::snprintf(mText.data(), mText.size(), "/proc/self/fd/%d", descriptor);
}
