// SPDX-License-Identifier: Apache-2.0
//
// Other processes, as far as a message names them.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace cli {

// The process whose number a file or folder is named by; nothing for another name.
std::optional<int> processNamedBy(const std::filesystem::path& path);
// The library's own answer: no process has this number any more, or a zombie has.
bool isGone(int process);
// Its program's name; empty when it is gone.
std::string processName(int process);
// "process 12 (tar)"
std::string processText(int process);

// The same; "process 12, which is gone" for one that is.
std::string ownerText(int process);

// Who keeps something from being unmounted, and by what.
struct User {
  std::string who;   // "process 12 (tar)", "/dev/loop3"
  std::string what;  // the path in use
};

// Processes whose working directory, root, program, a mapped or an open file lies in `folder`, each with the first such
// path, and loop devices over files there.
std::vector<User> usersOf(const std::string& folder);
// Processes that have the device node open, or mounted in a mount namespace of their own.
std::vector<User> holdersOf(const std::string& device);
// "process 12 (tar) uses /a/b", some of them named, the others counted; "something uses it" when there are none.
std::string usersText(const std::vector<User>& users);

}  // namespace cli
