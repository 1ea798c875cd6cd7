#pragma once
#include <charconv>
#include <chrono>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/Ptr.h"

/// Text forms: every attribute type has one (`toText`) and, unless it holds a collection, a parser
/// that reads it back (`fromText`). A type brings its own by a member `stringValue()` and a static
/// `fromString(std::string_view)` returning an optional.
namespace platform {

/// 'text' in single quotes; backslash, quote and control characters escaped (\n, \t, \xNN).
TARN_API std::string toQuoted(std::string_view text);
/// Reads back what `toQuoted` wrote; nothing when the text is not such a literal.
TARN_API std::optional<std::string> fromQuoted(std::string_view text);

template <class T>
concept HasStringValue = requires(const T& v) {
  { v.stringValue() } -> std::convertible_to<std::string>;
};
template <class T>
concept HasFromString = requires(std::string_view s) {
  { T::fromString(s) } -> std::convertible_to<std::optional<T>>;
};

inline std::string toText(bool v) { return v ? "True" : "False"; }
inline std::string toText(std::string_view v) { return toQuoted(v); }
inline std::string toText(const std::string& v) { return toQuoted(v); }
TARN_API std::string toText(double v);
template <std::integral T>
requires(!std::same_as<T, bool>) std::string toText(T v) { return std::to_string(v); }
template <class Rep, class Period>
std::string toText(std::chrono::duration<Rep, Period> v) {
  return toText(std::chrono::duration<double>(v).count());
}
template <HasStringValue T>
std::string toText(const T& v) {
  return v.stringValue();
}

inline bool fromText(std::string_view s, bool& v) {
  if (s != "True" && s != "False" && s != "true" && s != "false") return false;
  v = s == "True" || s == "true";
  return true;
}
inline bool fromText(std::string_view s, std::string& v) {
  auto r = fromQuoted(s);
  if (r) v = std::move(*r);
  return r.has_value();
}
template <class T>
requires((std::integral<T> && !std::same_as<T, bool>) ||
         std::floating_point<T>) bool fromText(std::string_view s, T& v) {
  T parsed{};
  auto [end, err] = std::from_chars(s.data(), s.data() + s.size(), parsed);
  if (err != std::errc{} || end != s.data() + s.size()) return false;
  v = parsed;
  return true;
}
template <class Rep, class Period>
bool fromText(std::string_view s, std::chrono::duration<Rep, Period>& v) {
  double seconds = 0;
  if (!fromText(s, seconds) || !std::isfinite(seconds)) return false;
  v = std::chrono::duration_cast<std::chrono::duration<Rep, Period>>(
      std::chrono::duration<double>(seconds));
  return true;
}
template <HasFromString T>
bool fromText(std::string_view s, T& v) {
  auto r = T::fromString(s);
  if (r) v = std::move(*r);
  return r.has_value();
}

/// Writes "Value('<type>', ** {'a': 1, 'b': 'x'})", attributes in the order given.
class TARN_API ValueWriter {
 public:
  explicit ValueWriter(std::string_view type);
  template <class T>
  ValueWriter& attr(std::string_view name, const T& value) {
    return raw(name, toText(value));
  }
  /// An attribute whose text is already made.
  ValueWriter& raw(std::string_view name, std::string_view text);
  std::string str() { return out_ + "})"; }

 private:
  std::string out_;
  bool first_ = true;
};

/// Reads that form back by attribute name, in any order; nested values and quoted strings may
/// contain commas, braces and brackets. Each attribute that is asked for must be there.
class TARN_API ValueReader {
 public:
  ValueReader(std::string_view type, std::string_view text);
  /// The whole text had the form and the type's name.
  bool ok() const { return ok_; }
  template <class T>
  ValueReader& attr(std::string_view name, T& value) {
    if (ok_) ok_ = fromText(rawAttr(name), value);
    return *this;
  }

 private:
  std::string_view rawAttr(std::string_view name) const;

  std::vector<std::pair<std::string, std::string_view>> attrs_;
  bool ok_ = false;
};

/// Reads a value type whose one attribute is `value`: the plain number, or the "Value(...)" form.
template <std::integral T>
bool fromValueText(std::string_view type, std::string_view text, T& value) {
  return fromText(text, value) || ValueReader(type, text).attr("value", value).ok();
}

}  // namespace platform
