#include "cli/text/Table.h"

#include <algorithm>
#include <numeric>

namespace cli {
namespace {
constexpr size_t gap = 2;
// The code points of `s`, each taken for one column of a terminal: wide and combining characters
// are rare in names and only move the rest of their line.
size_t columns(const std::string& s) {
  return static_cast<size_t>(
      std::count_if(s.begin(), s.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}
}  // namespace

std::vector<size_t> Table::widths_p() const {
  std::vector<size_t> widths;
  for (const Row& row : rows_) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], columns(row[i]));
  }
  return widths;
}

size_t Table::width(size_t indent) const {
  const auto widths = widths_p();
  return std::accumulate(widths.begin(), widths.end(), indent) +
         gap * (widths.empty() ? 0 : widths.size() - 1);
}

std::string Table::text(
    size_t indent, const std::function<std::string(size_t row, std::string line)>& styled) const {
  const auto widths = widths_p();
  std::string out;
  for (size_t r = 0; r < rows_.size(); ++r) {
    const Row& row = rows_[r];
    std::string line(indent, ' ');
    for (size_t i = 0; i < row.size(); ++i) {
      if (i > 0) line.append(gap, ' ');
      const std::string fill(widths[i] - columns(row[i]), ' ');
      const bool right = i < right_.size() && right_[i];
      line += right ? fill + row[i] : row[i] + fill;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out += (styled ? styled(r, std::move(line)) : line) + '\n';
  }
  return out;
}

}  // namespace cli
