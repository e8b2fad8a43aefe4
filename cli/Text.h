// SPDX-License-Identifier: Apache-2.0
//
// Text for a person to read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace cli {

// A name may hold line ends and worse: shown so, it stays on its line, and leaves the terminal as it is. Bytes that the
// locale cannot decode are shown as \xNN.
std::string onOneLine(const std::string& text);
// Columns that `text` takes on a terminal.
std::size_t cellsOf(const std::string& text);
// As much of `text` as `cells` columns hold; characters are kept whole.
std::string fitted(const std::string& text, std::size_t cells);
// "a, b and c"
std::string listed(const std::vector<std::string>& texts);
// "1.5 GiB"
std::string sizeText(std::uint64_t bytes);
// "1 volume", "2 volumes"
std::string counted(std::size_t count, const std::string& what);

// Rows in columns that are as wide as their widest cell.
class Table {
 public:
  // Numbers stand at the right of their column: those whose head begins with ">", which is not shown.
  explicit Table(std::vector<std::string> head);
  void add(std::vector<std::string> row);
  bool empty() const { return mRows.size() == 1; }
  // Two blanks before each line and between columns. A table that is wider than `columns` (0: as wide as it may get)
  // has a line a cell instead, behind its column's head, and an empty line between rows.
  std::string text(std::size_t columns = 0) const;

 private:
  std::string inColumns(const std::vector<std::size_t>& widths) const;
  std::string asRecords() const;

  std::vector<std::vector<std::string>> mRows;  // the head first
  std::vector<bool> mRight;
};

}  // namespace cli
