#pragma once
#include <functional>
#include <string>
#include <vector>

namespace cli {

/// Lines of cells under each other, as wide as their widest.
class Table {
 public:
  using Row = std::vector<std::string>;
  /// `rightAligned` per column; columns beyond it are left-aligned.
  explicit Table(std::vector<bool> rightAligned = {}) : right_(std::move(rightAligned)) {}

  void add(Row row) { rows_.push_back(std::move(row)); }
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
