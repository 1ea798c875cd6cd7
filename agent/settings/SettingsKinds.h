#pragma once
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/host/Names.h"
#include "agent/settings/PacketExpression.h"
#include "agent/settings/Settings.h"
#include "agent/settings/Toml.h"
#include "agent/settings/TomlText.h"

// The kinds of values that keys have: what each is in words and in a JSON schema, how it is read
// and written. `read` sets the value, or returns what would be right.

namespace agent::kinds {
using std::chrono::milliseconds;

inline std::string member(const char* name, const std::string& json) {
  return std::string("\"") + name + "\": " + json;
}
/// A text as JSON writes it: of what stands in the tables, which has no control characters.
inline std::string jsonText(std::string_view text) { return tomlText(text); }

template <class T>
struct Integer {
  const char* noun;
  int64_t min;
  int64_t max;
  const char* more = "";  // for the documents

  std::string range() const { return std::to_string(min) + " to " + std::to_string(max); }
  std::string values() const { return "integer, " + range() + more; }
  std::string schema() const {
    return member("type", "\"integer\"") + ", " + member("minimum", std::to_string(min)) + ", " +
           member("maximum", std::to_string(max));
  }
  std::string read(const toml::node& node, T& out) const {
    const auto* value = node.as_integer();
    if (!value || value->get() < min || value->get() > max)
      return std::string(noun) + " is an integer from " + range();
    out = static_cast<T>(value->get());
    return {};
  }
  std::string write(const T& v) const { return std::to_string(v); }
};

struct Dscp {
  static constexpr Integer<uint32_t> number{"a DSCP", 0, DscpValue::max};
  std::string values() const { return number.values(); }
  std::string schema() const { return number.schema(); }
  std::string read(const toml::node& node, DscpValue& out) const {
    uint32_t v = 0;
    std::string expected = number.read(node, v);
    if (expected.empty()) out = DscpValue(v);
    return expected;
  }
  std::string write(const DscpValue& v) const { return v.stringValue(); }
};

inline std::optional<milliseconds> parseTime(std::string_view text) {
  int64_t value = 0;
  auto [end, err] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (err != std::errc{} || text.empty() || text[0] == '-') return std::nullopt;
  const std::string_view unit(end, static_cast<size_t>(text.data() + text.size() - end));
  const int64_t factor = unit == "ms"  ? 1
                         : unit == "s" ? 1000
                         : unit == "m" ? 60000
                         : unit == "h" ? 3600000
                                       : 0;
  if (factor == 0 || value > INT64_MAX / factor) return std::nullopt;
  return milliseconds(value * factor);
}
/// A time from one second on.
struct Duration {
  const char* noun;
  int maxSeconds;

  std::string max() const { return timeText(std::chrono::seconds(maxSeconds)); }
  std::string values() const { return "time, `1s` to `" + max() + '`'; }
  std::string schema() const { return R"("type": "string", "pattern": "^[0-9]+(ms|s|m|h)$")"; }
  std::string read(const toml::node& node, milliseconds& out) const {
    const auto* value = node.as_string();
    const auto parsed = value ? parseTime(value->get()) : std::nullopt;
    if (!parsed || *parsed < std::chrono::seconds(1) || *parsed > std::chrono::seconds(maxSeconds))
      return std::string(noun) + " is a time from 1s to " + max() +
             R"(, in quotes, like "1500ms", "30s", "5m" or "1h")";
    out = *parsed;
    return {};
  }
  std::string write(milliseconds v) const { return tomlText(timeText(v)); }
};

struct Text {
  const char* words;
  std::string members;
  std::string expected;
  bool (*good)(const std::string&);

  std::string values() const { return words; }
  std::string schema() const { return R"("type": "string", )" + members; }
  std::string read(const toml::node& node, std::string& out) const {
    const auto* value = node.as_string();
    if (!value || !good(value->get())) return expected;
    out = value->get();
    return {};
  }
  std::string write(const std::string& v) const { return tomlText(v); }
};
inline std::string lengths(size_t min, size_t max) {
  return member("minLength", std::to_string(min)) + ", " + member("maxLength", std::to_string(max));
}

struct Vrf {
  std::string values() const { return "name of a VRF"; }
  std::string schema() const {
    return R"("type": "string", )" + lengths(1, VrfName::maxLength) +
           R"(, "pattern": "^[^/ \\u0000-\\u001f\\u007f]*$")";
  }
  std::string read(const toml::node& node, VrfName& out) const {
    const auto* value = node.as_string();
    const std::string name = value ? value->get() : std::string();
    std::string problem = vrfNameProblem(name);
    if (problem.empty()) out = VrfName(name);
    return problem;
  }
  std::string write(const VrfName& v) const { return tomlText(v.stringValue()); }
};

/// One of several words.
template <class T>
struct Choice {
  const char* noun;
  std::vector<T> all;

  std::string values() const { return joined("`"); }
  std::string schema() const {
    std::string texts;
    for (const T v : all) texts += (texts.empty() ? "" : ", ") + jsonText(toText(v));
    return "\"enum\": [" + texts + ']';
  }
  std::string read(const toml::node& node, T& out) const {
    const auto* value = node.as_string();
    for (const T v : all)
      if (value && value->get() == toText(v)) {
        out = v;
        return {};
      }
    return std::string(noun) + " is " + joined("");
  }
  std::string write(T v) const { return tomlText(toText(v)); }

 private:
  std::string joined(const char* quote) const {
    std::string text;
    for (size_t i = 0; i < all.size(); ++i) {
      if (i > 0) text += i + 1 < all.size() ? ", " : " or ";
      text += quote + tomlText(toText(all[i])) + quote;
    }
    return text;
  }
};
template <class T, size_t n>
Choice<T> choice(const char* noun, const T (&all)[n]) {
  return {noun, {all, all + n}};
}

struct YesNo {
  const char* noun;

  std::string values() const { return "`true` or `false`"; }
  std::string schema() const { return member("type", "\"boolean\""); }
  std::string read(const toml::node& node, bool& out) const {
    const auto* value = node.as_boolean();
    if (!value) return std::string(noun) + " is true or false, without quotes";
    out = value->get();
    return {};
  }
  std::string write(bool v) const { return v ? "true" : "false"; }
};

struct Patterns {
  static constexpr size_t longest = VrfName::maxLength + 1 + settingsNameMax;
  std::string values() const { return "list of names and patterns"; }
  std::string schema() const {
    return R"("type": "array", "items": {"type": "string", )" + lengths(1, longest) +
           R"(, "pattern": "^!?[^! \\u0000-\\u001f\\u007f][^ \\u0000-\\u001f\\u007f]*$"}, )" +
           R"("anyOf": [{"maxItems": 0}, {"contains": {"pattern": "^[^!]"}}])";
  }
  std::string read(const toml::node& node, std::vector<std::string>& out) const {
    const auto* all = node.as_array();
    const auto good = [](const toml::node& n) {
      const auto* s = n.as_string();
      if (!s) return false;
      const std::string& p = s->get();
      return p.size() <= longest && !hasControlOrBlank(p) && p != "!" && !p.empty() &&
             !p.starts_with("!!");
    };
    if (!all || !std::all_of(all->begin(), all->end(), good))
      return R"(interfaces is a list of names or patterns without blanks, like ["eth*", "!eth7", )"
             R"("red/eth0"])";
    for (const auto& n : *all) out.push_back(n.as_string()->get());
    if (!out.empty() && std::all_of(out.begin(), out.end(), excludes))
      return "a list of exclusions takes no interface: one pattern at least says what is tracked, "
             R"(like ["*", )" +
             tomlText(out.front()) + ']';
    return {};
  }
  std::string write(const std::vector<std::string>& v) const {
    std::string out;
    for (const std::string& p : v) out += (out.empty() ? "" : ", ") + tomlText(p);
    return '[' + out + ']';
  }
};

/// An expression that chooses packets; an empty one chooses all.
struct Expression {
  std::string values() const {
    return "text, at most " + std::to_string(packetExpressionMax) + " octets";
  }
  std::string schema() const {
    return R"("type": "string", )" + member("maxLength", std::to_string(packetExpressionMax));
  }
  std::string read(const toml::node& node, std::string& out) const {
    const auto* value = node.as_string();
    if (!value) return R"(a filter is a text like "not port 4739")";
    const std::string problem =
        value->get().empty() ? std::string()
                             : compilePacketExpression(value->get(), LinkLayer::ethernet).problem;
    if (!problem.empty()) return "a filter is an expression like \"not port 4739\": " + problem;
    out = value->get();
    return {};
  }
  std::string write(const std::string& v) const { return tomlText(v); }
};

struct FieldNames {
  std::string values() const { return "list of names"; }
  std::string schema() const {
    std::string names;
    for (const RecordField& f : recordFields())
      names += (names.empty() ? "" : ", ") + jsonText(f.name);
    return R"("type": "array", "minItems": 1, "uniqueItems": true, "items": {"enum": [)" + names +
           "]}";
  }
  std::string read(const toml::node& node, std::vector<std::string>& out) const {
    const auto* all = node.as_array();
    if (!all || all->empty() || !all->is_homogeneous<std::string>())
      return R"(it is a list of names, like ["sourceIPv4Address", "packetDeltaCount"])";
    for (const auto& n : *all) out.push_back(n.as_string()->get());
    return {};
  }
  std::string write(const std::vector<std::string>& v) const { return Patterns{}.write(v); }
};

struct Rate {
  std::string values() const { return "text"; }
  std::string schema() const { return R"("type": "string", "minLength": 1)"; }
  std::string read(const toml::node& node, RateLimit& out) const {
    const auto* value = node.as_string();
    const auto limit = value ? RateLimit::fromString(value->get()) : std::nullopt;
    if (limit) out = *limit;
    return limit ? std::string()
                 : "a rate limit is \"default\", \"none\" or a number with a unit: "
                   "\"100 Mbit/s\", \"12 MB/s\", \"8000 messages/s\"";
  }
  std::string write(const RateLimit& v) const { return tomlText(v.stringValue()); }
};

/// A collector's place: an address, or the name of a host.
struct AddressOrHost {
  std::string values() const { return "IPv4 or IPv6 address, or host name"; }
  std::string schema() const { return R"("type": "string", "minLength": 1)"; }
  std::string read(const toml::node& node, CollectorSettings& out) const {
    const auto* value = node.as_string();
    const auto parsed = value ? IpGenAddr::fromString(value->get()) : std::nullopt;
    if (parsed && parsed->family() != IpGenAddr::Family::none) {
      if (const std::string what = collectorAddressProblem(*parsed); !what.empty())
        return "a collector has an address of its own, and this is " + what;
      out.address = *parsed;
    } else if (value && isHostName(value->get())) {
      out.host = value->get();
    } else {
      return "a collector's address is one IPv4 or IPv6 address, or the name of a host, in quotes";
    }
    return {};
  }
  std::string write(const CollectorSettings& c) const {
    return tomlText(c.host.empty() ? c.address.stringValue() : c.host);
  }
};

}  // namespace agent::kinds
