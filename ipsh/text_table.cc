// SPDX-License-Identifier: Apache-2.0
// Names of interfaces and contexts may hold any byte but NUL; a control character in a cell is written as '?', so that
// no name can play with the reader's terminal.
#include "text_table.h"

#include <algorithm>

namespace ipsh {
namespace {

bool is_control(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

}  // namespace

TableLayout::TableLayout(std::vector<Column> columns) : columns_(std::move(columns)) {
  for (const Column &column : columns_) widths_.push_back(column.title.size());
}

void TableLayout::measure(std::span<const std::string> cells) {
  for (size_t i = 0; i < columns_.size(); ++i) widths_[i] = std::max(widths_[i], cells[i].size());
}

std::string TableLayout::titles() const {
  std::vector<std::string> cells;
  for (const Column &column : columns_) cells.emplace_back(column.title);
  std::string text = line(cells);
  text.pop_back();
  return painted(Style::heading, text) + '\n';
}

std::string TableLayout::line(std::span<const std::string> cells, std::span<const Style> styles) const {
  std::string line;
  size_t blanks = 0;  // that are due before the next cell
  for (size_t i = 0; i < columns_.size(); ++i) {
    if (i != 0) blanks += 2;
    const size_t padding = widths_[i] - std::min(widths_[i], cells[i].size());
    if (columns_[i].align == Align::right) blanks += padding;
    std::string cell = cells[i];
    std::ranges::replace_if(cell, is_control, '?');
    const size_t letters = cell.find_last_not_of(' ') + 1;
    if (letters != 0) {
      line.append(blanks, ' ') += painted(i < styles.size() ? styles[i] : Style::plain, cell.substr(0, letters));
      blanks = cell.size() - letters;
    } else {
      blanks += cell.size();
    }
    if (columns_[i].align == Align::left) blanks += padding;
  }
  line += '\n';
  return line;
}

void TextTable::add(std::vector<std::string> cells) {
  layout_.measure(cells);
  rows_.push_back(std::move(cells));
}

std::string TextTable::text() const {
  std::string text = layout_.titles();
  for (const std::vector<std::string> &cells : rows_) text += layout_.line(cells);
  return text;
}

}  // namespace ipsh
