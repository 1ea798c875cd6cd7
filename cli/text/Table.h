#pragma once
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
  std::string text(size_t indent) const;

 private:
  std::vector<size_t> widths_p() const;
  std::vector<bool> right_;
  std::vector<Row> rows_;
};

}  // namespace cli
