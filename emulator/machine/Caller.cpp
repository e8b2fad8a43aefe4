// SPDX-License-Identifier: Apache-2.0
#include "emulator/machine/Caller.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string_view>

namespace emulator {
namespace {

constexpr std::uint64_t kPage = 4096;

iovec localPiece(const std::byte* start, std::size_t length) { return {const_cast<std::byte*>(start), length}; }
iovec remotePiece(std::uint64_t start, std::size_t length) { return {reinterpret_cast<void*>(start), length}; }

}  // namespace

Caller::Caller(const Kernel& kernel, pid_t task)
    : CallerMemory(task),
      mFolder(openat(kernel.proc(), std::to_string(task).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}

pid_t Caller::process() const {
  const std::string status = Kernel::readText(mFolder.get(), "status");
  const std::string_view label = "\nTgid:";
  const std::size_t at = status.find(label);
  return at == std::string::npos ? task() : static_cast<pid_t>(std::atol(status.c_str() + at + label.size()));
}

bool CallerMemory::readMemory(std::uint64_t address, std::span<std::byte> to) const {
  const iovec local = localPiece(to.data(), to.size());
  const iovec remote = remotePiece(address, to.size());
  return process_vm_readv(mTask, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(to.size());
}

bool CallerMemory::writeMemory(std::uint64_t address, std::span<const std::byte> from) const {
  const iovec local = localPiece(from.data(), from.size());
  const iovec remote = remotePiece(address, from.size());
  return process_vm_writev(mTask, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(from.size());
}

std::string CallerMemory::readText(std::uint64_t address, std::size_t limit) const {
  std::string text(limit, '\0');
  // Cut at the page ends: a piece is copied whole or not at all, and the text may end just before a missing page.
  std::vector<iovec> remote;
  for (std::uint64_t at = address, end = address + limit; at < end;) {
    const std::uint64_t pieceEnd = std::min(end, (at / kPage + 1) * kPage);
    remote.push_back(remotePiece(at, pieceEnd - at));
    at = pieceEnd;
  }
  const iovec local{text.data(), text.size()};
  const ssize_t got = process_vm_readv(mTask, &local, 1, remote.data(), remote.size(), 0);
  text.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
  text.resize(std::min(text.find('\0'), text.size()));
  return text;
}

std::optional<struct stat> Caller::descriptor(int number) const {
  struct stat found;
  const std::string path = "fd/" + std::to_string(number);
  if (fstatat(mFolder.get(), path.c_str(), &found, 0) != 0) return std::nullopt;
  return found;
}

UniqueFd Caller::open(const std::string& path, int flags, mode_t mode) const {
  return openAsSeen(path, flags, mode, 0);
}

UniqueFd Caller::openWithoutLinks(const std::string& path, int flags) const {
  return openAsSeen(path, flags, 0, RESOLVE_NO_SYMLINKS);
}

UniqueFd Caller::openAsSeen(const std::string& path, int flags, mode_t mode, std::uint64_t resolve) const {
  const UniqueFd root(openat(mFolder.get(), "root", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!root) return UniqueFd();
  open_how how{};
  how.flags = static_cast<unsigned int>(flags | O_CLOEXEC);
  how.mode = mode;
  how.resolve = resolve | RESOLVE_IN_ROOT;  // links that begin at the root begin at the caller's
  return UniqueFd(static_cast<int>(syscall(SYS_openat2, root.get(), path.c_str(), &how, sizeof how)));
}

bool Caller::findsProgram(const std::string& path) const {
  if (path.starts_with('/')) return open(path, O_PATH).valid();
  return faccessat(mFolder.get(), ("cwd/" + path).c_str(), F_OK, 0) == 0;
}

std::optional<DeviceNumber> Caller::blockDevice(const std::string& path) const {
  const UniqueFd node = open(path, O_PATH);
  struct stat found;
  if (!node || fstat(node.get(), &found) != 0 || !S_ISBLK(found.st_mode)) return std::nullopt;
  return numberOf(found.st_rdev);
}

std::vector<MountLine> Caller::mounts() const {
  return readMountInfo(UniqueFd(openat(mFolder.get(), "mountinfo", O_RDONLY | O_CLOEXEC)))
      .value_or(std::vector<MountLine>());
}

}  // namespace emulator
