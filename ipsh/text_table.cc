// SPDX-License-Identifier: Apache-2.0
// Two passes: measure, then write. Names of interfaces and contexts may hold any byte but NUL; a control character in a
// cell is written as '?', so that no name can play with the reader's terminal.
#include "text_table.h"

#include <fmt/format.h>

#include <algorithm>

namespace ipsh {
namespace {

std::string printable(std::string cell) {
  std::ranges::replace_if(
      cell, [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }, '?');
  return cell;
}

}  // namespace

std::string TextTable::text() const {
  std::vector<std::vector<std::string>> lines;
  std::vector<std::string> titles;
  for (const Column &column : columns_) titles.emplace_back(column.title);
  lines.push_back(std::move(titles));
  for (const std::vector<std::string> &row : rows_) {
    std::vector<std::string> cells;
    for (const std::string &cell : row) cells.push_back(printable(cell));
    lines.push_back(std::move(cells));
  }
  std::vector<size_t> widths(columns_.size(), 0);
  for (const std::vector<std::string> &cells : lines) {
    for (size_t i = 0; i < cells.size(); ++i) widths[i] = std::max(widths[i], cells[i].size());
  }
  std::string text;
  for (const std::vector<std::string> &cells : lines) {
    std::string line;
    for (size_t i = 0; i < cells.size(); ++i) {
      if (i != 0) line += "  ";
      line += columns_[i].align == Align::right ? fmt::format("{:>{}}", cells[i], widths[i])
                                                : fmt::format("{:<{}}", cells[i], widths[i]);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + '\n';
  }
  return text;
}

}  // namespace ipsh
