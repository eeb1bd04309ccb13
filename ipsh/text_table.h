// SPDX-License-Identifier: Apache-2.0
// A table for people: a header line, then rows; columns as wide as their widest cell, two blanks between columns,
// numbers flush right.
#ifndef IPSH_TEXT_TABLE_H
#define IPSH_TEXT_TABLE_H

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "style.h"

namespace ipsh {

enum class Align { left, right };

struct Column {
  std::string_view title;
  Align align = Align::left;
};

// Each row is shown twice, to measure() and then to line(), so that a long table need not be kept as text.
class TableLayout {
 public:
  explicit TableLayout(std::vector<Column> columns);
  // As many cells as there are columns.
  void measure(std::span<const std::string> cells);
  // Ends with a newline, which no blank stands before. A cell without a style is plain.
  [[nodiscard]] std::string titles() const;
  [[nodiscard]] std::string line(std::span<const std::string> cells, std::span<const Style> styles = {}) const;

 private:
  std::vector<Column> columns_;
  std::vector<size_t> widths_;
};

// A short table, kept as text.
class TextTable {
 public:
  explicit TextTable(std::vector<Column> columns) : layout_(std::move(columns)) {}
  void add(std::vector<std::string> cells);
  [[nodiscard]] std::string text() const;

 private:
  TableLayout layout_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace ipsh

#endif
