// SPDX-License-Identifier: Apache-2.0
#include "Text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cwchar>

namespace cli {

std::string onOneLine(const std::string& text) {
  std::string result;
  for (const char character : text) {
    const auto code = static_cast<unsigned char>(character);
    if (code >= 0x20 && code != 0x7F) {
      result += character;
    } else if (character == '\n') {
      result += "\\n";
    } else {
      std::array<char, 8> escape{};
      std::snprintf(escape.data(), escape.size(), "\\x%02x", code);
      result += escape.data();
    }
  }
  return result;
}

std::size_t cellsOf(const std::string& text) {
  std::size_t cells = 0;
  std::mbstate_t state{};
  for (std::size_t i = 0; i < text.size();) {
    wchar_t character = 0;
    const std::size_t length = std::mbrtowc(&character, text.data() + i, text.size() - i, &state);
    if (length == 0 || length > text.size() - i) {  // undecodable: a byte a cell
      state = {};
      ++i;
      ++cells;
      continue;
    }
    i += length;
    cells += static_cast<std::size_t>(std::max(0, wcwidth(character)));
  }
  return cells;
}

std::string listed(const std::vector<std::string>& texts) {
  std::string result;
  for (std::size_t i = 0; i < texts.size(); ++i) {
    if (i != 0) result += i + 1 == texts.size() ? " and " : ", ";
    result += texts[i];
  }
  return result;
}

std::string counted(std::size_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

Table::Table(std::vector<std::string> head) {
  for (std::string& cell : head) {
    mRight.push_back(cell.starts_with('>'));
    if (mRight.back()) cell.erase(0, 1);
  }
  mRows.push_back(std::move(head));
}

void Table::add(std::vector<std::string> row) {
  for (std::string& cell : row) cell = onOneLine(cell);
  mRows.push_back(std::move(row));
}

std::string Table::text() const {
  std::vector<std::size_t> widths(mRight.size());
  for (const auto& row : mRows) {
    for (std::size_t column = 0; column < row.size(); ++column)
      widths[column] = std::max(widths[column], cellsOf(row[column]));
  }
  std::string result;
  for (const auto& row : mRows) {
    std::string line;
    for (std::size_t column = 0; column < row.size(); ++column) {
      const std::string blanks(widths[column] - cellsOf(row[column]), ' ');
      line += "  " + (mRight[column] ? blanks + row[column] : row[column] + blanks);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    result += line + "\n";
  }
  return result;
}

}  // namespace cli
