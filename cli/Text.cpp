// SPDX-License-Identifier: Apache-2.0
#include "Text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cwchar>
#include <cwctype>
#include <numeric>

namespace cli {

namespace {

const std::string kGap = "  ";  // before each line and between columns

// One character of a text, or a byte that the locale cannot decode.
struct Character {
  std::size_t bytes;
  std::size_t cells;
  bool shown;  // false for what a terminal would obey, or cannot show
};

Character characterAt(const std::string& text, std::size_t position) {
  wchar_t character = 0;
  std::mbstate_t state{};
  const std::size_t length = std::mbrtowc(&character, text.data() + position, text.size() - position, &state);
  if (length == 0 || length > text.size() - position) return {1, 1, false};
  // Control characters are more than ASCII's: U+009B begins what a terminal obeys just as ESC [ does.
  const bool shown = std::iswcntrl(static_cast<wint_t>(character)) == 0;
  return {length, static_cast<std::size_t>(std::max(0, wcwidth(character))), shown};
}

std::string escaped(const std::string& bytes) {
  if (bytes == "\n") return "\\n";
  std::string result;
  for (const char byte : bytes) {
    std::array<char, 8> escape{};
    std::snprintf(escape.data(), escape.size(), "\\x%02x", static_cast<unsigned char>(byte));
    result += escape.data();
  }
  return result;
}

}  // namespace

std::string onOneLine(const std::string& text) {
  std::string result;
  for (std::size_t i = 0; i < text.size();) {
    const Character character = characterAt(text, i);
    const std::string bytes = text.substr(i, character.bytes);
    result += character.shown ? bytes : escaped(bytes);
    i += character.bytes;
  }
  return result;
}

std::size_t cellsOf(const std::string& text) {
  std::size_t cells = 0;
  for (std::size_t i = 0; i < text.size();) {
    const Character character = characterAt(text, i);
    cells += character.cells;
    i += character.bytes;
  }
  return cells;
}

std::string fitted(const std::string& text, std::size_t cells) {
  std::size_t end = 0;
  for (std::size_t left = cells; end < text.size();) {
    const Character character = characterAt(text, end);
    if (character.cells > left) break;
    left -= character.cells;
    end += character.bytes;
  }
  return text.substr(0, end);
}

std::string listed(const std::vector<std::string>& texts) {
  std::string result;
  for (std::size_t i = 0; i < texts.size(); ++i) {
    if (i != 0) result += i + 1 == texts.size() ? " and " : ", ";
    result += texts[i];
  }
  return result;
}

std::string sizeText(std::uint64_t bytes) {
  constexpr std::array units = {"bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  double value = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (value >= 1024 && unit + 1 < units.size()) {
    value /= 1024;
    ++unit;
  }
  std::array<char, 40> text{};
  std::snprintf(text.data(), text.size(), unit == 0 || value >= 100 ? "%.0f %s" : "%.1f %s", value, units.at(unit));
  return text.data();
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

std::string Table::text(std::size_t columns) const {
  std::vector<std::size_t> widths(mRight.size());
  for (const auto& row : mRows) {
    for (std::size_t column = 0; column < row.size(); ++column)
      widths[column] = std::max(widths[column], cellsOf(row[column]));
  }
  const std::size_t width = std::accumulate(widths.begin(), widths.end(), kGap.size() * widths.size());
  return columns != 0 && width > columns ? asRecords() : inColumns(widths);
}

std::string Table::inColumns(const std::vector<std::size_t>& widths) const {
  std::string result;
  for (const auto& row : mRows) {
    std::string line;
    for (std::size_t column = 0; column < row.size(); ++column) {
      const std::string blanks(widths[column] - cellsOf(row[column]), ' ');
      line += kGap + (mRight[column] ? blanks + row[column] : row[column] + blanks);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    result += line + "\n";
  }
  return result;
}

std::string Table::asRecords() const {
  const auto& head = mRows.front();
  std::size_t width = 0;
  for (const std::string& cell : head) width = std::max(width, cellsOf(cell));
  std::string result;
  for (std::size_t row = 1; row < mRows.size(); ++row) {
    if (row != 1) result += "\n";
    for (std::size_t column = 0; column < head.size(); ++column) {
      if (mRows[row][column].empty()) continue;
      result +=
          kGap + head[column] + std::string(width - cellsOf(head[column]), ' ') + kGap + mRows[row][column] + "\n";
    }
  }
  return result;
}

}  // namespace cli
