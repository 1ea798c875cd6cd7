#pragma once
#include <functional>
#include <string>
#include <vector>

namespace cli {

/// Text in columns, each as wide as its widest cell, with two blanks between them.
class Table {
 public:
  using Row = std::vector<std::string>;
  /// `rightAligned` per column; columns beyond it are left-aligned.
  explicit Table(std::vector<bool> rightAligned = {}) : right_(std::move(rightAligned)) {}

  void add(Row row) { rows_.push_back(std::move(row)); }
  /// Columns of a terminal that the widest line takes behind `indent` blanks.
  size_t width(size_t indent) const;
  /// The lines, each behind `indent` blanks and without blanks at its end. `styled` gets each row's
  /// line, the first is row 0, and returns it with its colours: these have no width.
  std::string text(
      size_t indent,
      const std::function<std::string(size_t row, std::string line)>& styled = nullptr) const;

 private:
  std::vector<size_t> widths_p() const;
  std::vector<bool> right_;
  std::vector<Row> rows_;
};

}  // namespace cli
