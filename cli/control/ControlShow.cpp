#include "cli/control/ControlShow.h"

#include <fmt/format.h>

#include <algorithm>

#include "cli/text/Quoted.h"
#include "cli/text/Table.h"
#include "cli/text/Text.h"
#include "platform/IpfixTypes.h"
#include "platform/Text.h"

namespace cli {
namespace {
using Json = nlohmann::ordered_json;

std::vector<std::string> partsOf(std::string_view path) {
  std::vector<std::string> parts;
  for (;;) {
    const size_t end = path.find('/');
    parts.emplace_back(path.substr(0, end));
    if (end == std::string_view::npos) return parts;
    path.remove_prefix(end + 1);
  }
}
/// The path of the first `n` parts.
std::string joined(const std::vector<std::string>& parts, size_t n) {
  std::string path;
  for (size_t i = 0; i < n; ++i) path += (i ? "/" : "") + parts[i];
  return path;
}
/// A member of a collection is "=" and its key; an attribute is its name.
bool isMember(std::string_view part) { return part.starts_with('='); }

/// "%2F" as '/', and so on.
std::string decoded(std::string_view part) {
  std::string out;
  for (size_t i = 0; i < part.size(); ++i) {
    unsigned octet = 0;
    if (part[i] == '%' && i + 2 < part.size() &&
        std::from_chars(&part[i + 1], &part[i] + 3, octet, 16).ptr == &part[i] + 3) {
      out += static_cast<char>(octet);
      i += 2;
    } else {
      out += part[i];
    }
  }
  return out;
}
/// An attribute's text (platform/Text.h), without the quotes that texts of strings have.
std::string plain(const std::string& text) { return platform::fromQuoted(text).value_or(text); }
std::string nameOf(std::string_view part) {
  return isMember(part) ? plain(decoded(part.substr(1))) : decoded(part);
}
}  // namespace

/// Counts the members of the collections that the row with this path is in. True: one of them has
/// had as many members shown as it may, so the row is left out.
bool StateView::cut_p(const std::vector<std::string>& parts) {
  size_t level = 0;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (!isMember(parts[i])) continue;
    std::string path = joined(parts, i);
    if (level >= open_.size() || open_[level].path != path) {
      open_.resize(level);
      open_.push_back({std::move(path), {}, 0, false});
    }
    if (open_[level].member != parts[i] || open_[level].members == 0) {
      open_.resize(level + 1);
      Open& open = open_[level];
      open.member = parts[i];
      if (++open.members > membersMax_ && membersMax_ > 0 && !open.cut) {
        open.cut = true;
        std::vector<std::string> more(parts.begin(), parts.begin() + static_cast<ptrdiff_t>(i));
        more.emplace_back("...");
        add_p(more, "more");
      }
    }
    if (open_[level].cut) return true;
    ++level;
  }
  open_.resize(level);
  return false;
}

Json StateView::take(const Json& rows) {
  bool cut = false;
  for (const Json& row : rows) {
    const auto parts = partsOf(row.at(0).get<std::string>());
    cut = cut_p(parts);
    if (!cut) add_p(parts, row.at(1));
  }
  if (!cut) return nullptr;
  for (const Open& open : open_)
    if (open.cut) return open.path;
  return nullptr;
}

void StateView::add_p(const std::vector<std::string>& parts, const Json& text) {
  const std::string value = text.is_null() ? std::string() : plain(text.get<std::string>());
  if (form_ == Form::json) {
    Json* at = &json_;
    for (size_t i = 0; i + 1 < parts.size(); ++i) at = &(*at)[nameOf(parts[i])];
    (*at)[nameOf(parts.back())] = text.is_null() ? Json(nullptr) : Json(value);
    return;
  }
  const auto differs = std::mismatch(parts.begin(), parts.end(), last_.begin(), last_.end());
  const auto first = static_cast<size_t>(differs.first - parts.begin());
  for (size_t i = std::min(first, parts.size() - 1); i < parts.size(); ++i) {
    const bool leaf = i + 1 == parts.size();
    std::string shownText;
    if (leaf) shownText = text.is_null() ? "-" : value.empty() ? "\"\"" : shown(value);
    lines_.push_back({i, shown(nameOf(parts[i])), isMember(parts[i]), std::move(shownText)});
  }
  last_ = parts;
}

std::string StateView::takeText(const Style& style) {
  std::string out;
  for (const Line& line : lines_) {
    out.append(2 * line.depth, ' ');
    const std::string name = line.member ? '[' + line.name + ']' : line.name;
    out += line.text.empty() ? style.strong(name) : name + ' ' + line.text;
    out += '\n';
  }
  lines_.clear();
  return out;
}

namespace {
std::string cell(const Json& value) {
  if (value.is_string()) return nameText(value.get<std::string>());
  if (value.is_null()) return "-";
  if (!value.is_array()) return value.dump();
  std::string all;
  for (const Json& v : value) all += (all.empty() ? "" : " ") + cell(v);
  return all;
}
}  // namespace

std::string collectorsText(const Json& collectors, double now, const Style& style) {
  Table table({false, false, false, false, false, true});
  table.add({"tracker", "exporter", "collector", "address", "state", "since", "detail"});
  for (const Json& c : collectors) {
    auto address = c.at("address").get<std::string>();
    if (address.empty()) address = c.value("host", "");
    const bool ipv6 = address.find(':') != std::string::npos;
    table.add({cell(c.at("tracker")), cell(c.at("exporter")), cell(c.at("collector")),
               fmt::format("{}{}{}:{}", ipv6 ? "[" : "", address, ipv6 ? "]" : "",
                           c.at("port").get<unsigned>()),
               c.at("state").get<std::string>(), ageText(now, c.at("since").get<double>()),
               shown(c.at("detail").get<std::string>())});
  }
  return table.text(0, [&](size_t row, const std::string& line) {
    if (row == 0) return style.strong(line);
    const auto state = collectors.at(row - 1).at("state").get<std::string>();
    return state == "sending" ? line : state == "refused" ? style.bad(line) : style.waits(line);
  });
}

std::string templatesText(const Json& templates, double now, const Style& style) {
  std::string out;
  for (const Json& t : templates) {
    const Json& sent = t.at("lastSent");
    out += style.strong(fmt::format(
        "tracker {}, domain {}: {} template {}, {}, {}", cell(t.at("tracker")),
        t.at("domain").get<uint64_t>(), t.at("kind").get<std::string>(), t.at("id").get<unsigned>(),
        plural(t.at("fields").size(), "field"),
        sent.is_null() ? "never sent" : "last sent " + ageText(now, sent.get<double>()) + " ago"));
    out += '\n';
    Table table({true, false, true});
    table.add({"element", "name", "octets", ""});
    for (const Json& f : t.at("fields")) {
      const auto enterprise = f.at("enterprise").get<uint64_t>();
      const auto length = f.at("length").get<unsigned>();
      const std::string id = f.at("id").dump();
      table.add({enterprise ? fmt::format("{}/{}", enterprise, id) : id, cell(f.at("name")),
                 length == Ipfix::IpfixConst::variableLen() ? "variable" : fmt::to_string(length),
                 f.value("scope", false) ? "scope"
                 : f.value("key", false) ? "key"
                                         : ""});
    }
    out += table.text(2) + '\n';
  }
  return out;
}

std::string tableText(const std::string& name, uint64_t records, const Json& rows,
                      const Style& style) {
  std::string out = style.strong(fmt::format("{}: {}", name, plural(records, "record"))) + '\n';
  if (rows.empty()) return out;
  std::vector<bool> right;
  Table::Row head;
  for (const auto& [key, value] : rows.at(0).items()) {
    head.push_back(key);
    right.push_back(value.is_number());
  }
  Table table(right);
  table.add(head);
  for (const Json& row : rows) {
    Table::Row cells;
    for (const auto& [key, value] : row.items()) cells.push_back(cell(value));
    table.add(cells);
  }
  out += table.text(2);
  if (rows.size() < records)
    out += fmt::format("  ... {} more: --limit 0 shows all\n", records - rows.size());
  return out;
}

}  // namespace cli
