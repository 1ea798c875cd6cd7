#include "platform/Text.h"

#include <array>

namespace platform {

std::string toQuoted(std::string_view text) {
  static constexpr char hex[] = "0123456789abcdef";
  std::string out = "'";
  for (const unsigned char c : text) {
    if (c == '\\' || c == '\'') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20 || c == 0x7f) {
      out += "\\x";
      out += hex[c >> 4];
      out += hex[c & 15];
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "'";
}

std::optional<std::string> fromQuoted(std::string_view text) {
  if (text.size() < 2 || text.front() != '\'' || text.back() != '\'') return std::nullopt;
  text = text.substr(1, text.size() - 2);
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\'') return std::nullopt;
    if (text[i] != '\\') {
      out += text[i];
      continue;
    }
    if (++i == text.size()) return std::nullopt;
    switch (text[i]) {
      case 'n':
        out += '\n';
        break;
      case 't':
        out += '\t';
        break;
      case '\\':
      case '\'':
        out += text[i];
        break;
      case 'x': {
        unsigned value = 0;
        if (i + 2 >= text.size()) return std::nullopt;
        const char* digits = text.data() + i + 1;
        auto [end, err] = std::from_chars(digits, digits + 2, value, 16);
        if (err != std::errc{} || end != digits + 2) return std::nullopt;
        out += static_cast<char>(value);
        i += 2;
        break;
      }
      default:
        return std::nullopt;
    }
  }
  return out;
}

std::string toText(double v) {
  std::array<char, 32> buf{};  // the shortest text that reads back to the same double
  auto [end, err] = std::to_chars(buf.data(), buf.data() + buf.size(), v);
  return err == std::errc{} ? std::string(buf.data(), end) : std::string("0");
}

ValueWriter::ValueWriter(std::string_view type) {
  out_ = "Value('";
  out_ += type;
  out_ += "', ** {";
}
ValueWriter& ValueWriter::raw(std::string_view name, std::string_view text) {
  if (!first_) out_ += ", ";
  first_ = false;
  out_ += '\'';
  out_ += name;
  out_ += "': ";
  out_ += text;
  return *this;
}

namespace {
/// The length of the text up to the comma that ends it at this nesting level, quotes respected.
size_t lengthOfItem(std::string_view s) {
  int depth = 0;
  bool inQuotes = false;
  for (size_t i = 0; i < s.size(); ++i) {
    const char c = s[i];
    if (inQuotes) {
      if (c == '\\') {
        ++i;
      } else if (c == '\'') {
        inQuotes = false;
      }
    } else if (c == '\'') {
      inQuotes = true;
    } else if (c == '{' || c == '[' || c == '(') {
      ++depth;
    } else if (c == '}' || c == ']' || c == ')') {
      --depth;
    } else if (c == ',' && depth == 0) {
      return i;
    }
  }
  return s.size();
}
std::string_view trimmed(std::string_view s) {
  while (!s.empty() && s.front() == ' ') s.remove_prefix(1);
  while (!s.empty() && s.back() == ' ') s.remove_suffix(1);
  return s;
}
}  // namespace

ValueReader::ValueReader(std::string_view type, std::string_view text) {
  text = trimmed(text);
  const std::string head = "Value('" + std::string(type) + "', ** {";
  if (!text.starts_with(head) || !text.ends_with("})")) return;
  text = text.substr(head.size(), text.size() - head.size() - 2);
  while (!text.empty()) {
    const size_t len = lengthOfItem(text);
    const std::string_view item = trimmed(text.substr(0, len));
    text = trimmed(text.substr(len < text.size() ? len + 1 : len));
    const size_t colon = item.find("':");
    if (colon == std::string_view::npos) return;
    auto name = fromQuoted(item.substr(0, colon + 1));
    if (!name) return;
    attrs_.emplace_back(std::move(*name), trimmed(item.substr(colon + 2)));
  }
  ok_ = true;
}
std::string_view ValueReader::rawAttr(std::string_view name) const {
  for (const auto& [n, v] : attrs_)
    if (n == name) return v;
  return {};
}

}  // namespace platform
