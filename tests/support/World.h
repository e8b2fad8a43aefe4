// SPDX-License-Identifier: Apache-2.0
//
// A test program's private world: its own mount namespace, in which the machine but for its /tmp is read-only, with
//   /dev   a tmpfs with the plain character devices, loop-control, and whatever the tests make; where they have the
//          kernel's driver the machine's own, in which its snapshots appear
//   /proc  a tmpfs whose files lead to the real one, so that a test can lay its own meminfo, mounts, mirelsnap/dev
//   /mnt   an empty tmpfs: images, mount points, scratch
// All of it is gone with the process.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace test {

inline constexpr char kScratch[] = "/mnt";
// The real procfs.
inline constexpr char kRealProc[] = "/mnt/.proc";

// What the world has for /proc: a directory over which tests lay files, or the real one, where processes find each
// other.
enum class Proc { kOverlaid, kReal };

// Lays the world; ends the program with a message when it cannot (not root, no mount namespaces).
void layPrivateWorld(Proc proc = Proc::kOverlaid);

void writeFile(const std::filesystem::path& path, const std::string& content);
std::string readFile(const std::filesystem::path& path);

// A directory of its own under /mnt, removed with all that it holds. Its name begins with TempDir::prefix(), which no
// other process of the machine uses. While something is still mounted in it nothing of it is removed (OwnWorld.h):
// behind a bind mount that a test could not undo lie the machine's own files.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return mPath; }
  std::string operator/(const std::string& name) const { return mPath + "/" + name; }
  // "/mnt/t-PID-"
  static std::string prefix();

 private:
  std::string mPath;
};

// Lays a file over /proc/NAME ("meminfo", "mounts", "mirelsnap/dev") for a scope; without content the name is missing.
class ProcFile {
 public:
  ProcFile(const std::string& name, const std::string& content);
  explicit ProcFile(const std::string& name);
  ~ProcFile();
  ProcFile(const ProcFile&) = delete;
  ProcFile& operator=(const ProcFile&) = delete;

 private:
  std::string mPath;
  std::string mLink;  // what the name led to before
};

// Shows a process in the overlaid /proc for a scope; it need not live as long.
class ShownProcess {
 public:
  explicit ShownProcess(pid_t process);
  ~ShownProcess();
  ShownProcess(const ShownProcess&) = delete;
  ShownProcess& operator=(const ShownProcess&) = delete;

 private:
  std::string mPath;
};

// A device node for a scope.
class Node {
 public:
  Node(std::string path, mode_t type, unsigned int major, unsigned int minor);
  ~Node();
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;
  const std::string& path() const { return mPath; }

 private:
  std::string mPath;
};

}  // namespace test
