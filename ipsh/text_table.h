// SPDX-License-Identifier: Apache-2.0
// A table for people: a header line, then rows; columns as wide as their widest cell, two blanks between columns,
// numbers flush right.
#ifndef IPSH_TEXT_TABLE_H
#define IPSH_TEXT_TABLE_H

#include <string>
#include <string_view>
#include <vector>

namespace ipsh {

enum class Align { left, right };

struct Column {
  std::string_view title;
  Align align = Align::left;
};

class TextTable {
 public:
  explicit TextTable(std::vector<Column> columns) : columns_(std::move(columns)) {}
  // As many cells as there are columns.
  void add(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
  // Lines end without blanks.
  [[nodiscard]] std::string text() const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace ipsh

#endif
