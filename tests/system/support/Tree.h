// SPDX-License-Identifier: Apache-2.0
//
// A file tree as it stands at a moment: every name with its kind, owner, rights, extended attributes, times, content,
// and the other names of the same file.
#pragma once

#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <utility>

namespace test {

class Tree {
 public:
  // Everything below `folder` on its own file system and on those mounted in it, the relocation area and lost+found
  // left out.
  explicit Tree(const std::string& folder);

  bool contains(const std::string& path) const { return mEntries.contains(path); }
  std::size_t size() const { return mEntries.size(); }
  bool operator==(const Tree& other) const { return mEntries == other.mEntries; }
  // Where the two differ, a line a name; empty when they do not.
  std::string difference(const Tree& other) const;

 private:
  // The names of each file that has several, by its device and number.
  using Names = std::map<std::pair<dev_t, ino_t>, std::set<std::string>>;
  void read(const std::string& folder, const std::string& prefix, Names& names);

  std::map<std::string, std::string> mEntries;  // by path below the folder
};

// Makes files of every kind below `folder`: small, large, sparse, empty, linked, with odd names and rights.
void plantTree(const std::string& folder);
// Changes what plantTree made, in every way: overwrites, cuts, appends, deletes, renames, adds.
void disturbTree(const std::string& folder);

}  // namespace test
