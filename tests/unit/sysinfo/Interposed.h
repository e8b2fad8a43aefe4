// SPDX-License-Identifier: Apache-2.0
//
// C library calls that answer as a test says, for what the kernel can't be made to do. A call without a hook goes on to
// the C library.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <sys/vfs.h>

#include <functional>
#include <optional>
#include <string>

namespace test {

// An answer: nothing to leave the call to the C library, else 0 or the errno that it fails with.
using Answer = std::optional<int>;

// The hooks, taken away again with their scope; one at a time exists.
class Interposed {
 public:
  Interposed();
  ~Interposed();
  Interposed(const Interposed&) = delete;
  Interposed& operator=(const Interposed&) = delete;

  std::function<Answer(const std::string& path, struct stat* result)> onStat;
  std::function<Answer(const std::string& path, struct stat* result)> onLstat;
  std::function<Answer(const std::string& path, struct statfs* result)> onStatfs;
  // Called as realpath begins; errno is what realpath finds there.
  std::function<Answer(const std::string& path, char* resolved)> onRealpath;
  // Called as readdir begins, each time.
  std::function<void()> onReaddir;
  // Called behind each syslog; errno is what syslog leaves.
  std::function<void()> afterSyslog;
  // Answers the bytes that readlink claims to have read, or -1 with errno set.
  std::function<std::optional<ssize_t>(const std::string& path, char* buffer, std::size_t size)> onReadlink;
};

}  // namespace test
