#pragma once
#include <string>
#include <string_view>

namespace cli {

/// Colours for a terminal; text as it is for anything else, and where NO_COLOR is set
/// (https://no-color.org).
class Style {
 public:
  explicit Style(bool colour) : colour_(colour) {}
  /// With colours when standard output is a terminal and NO_COLOR is not set.
  static Style ofOutput();

  bool colour() const { return colour_; }
  std::string bad(std::string_view text) const { return in("1;31", text); }
  std::string waits(std::string_view text) const { return in("33", text); }
  std::string strong(std::string_view text) const { return in("1", text); }

 private:
  std::string in(std::string_view code, std::string_view text) const;
  bool colour_;
};

}  // namespace cli
