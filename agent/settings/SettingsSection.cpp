#include "agent/settings/SettingsSection.h"

#include <algorithm>
#include <sstream>

#include "agent/host/Printable.h"

namespace agent {
namespace {
/// Edits that turn one text into the other: insert, delete, replace, swap of two neighbours.
size_t editDistance(std::string_view a, std::string_view b) {
  std::vector<size_t> before(b.size() + 1);
  std::vector<size_t> last(b.size() + 1);
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) last[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      row[j] =
          std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
        row[j] = std::min(row[j], before[j - 2] + 1);
    }
    before.swap(last);
    last.swap(row);
  }
  return last[b.size()];
}

/// Case and the choice of - or _ are the likeliest slips.
std::string folded(std::string_view key) {
  std::string out(key.substr(0, 64));
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c == '_') c = '-';
  }
  return out;
}

/// The candidate that was probably meant, or none.
std::string_view nearest(std::string_view key, const std::vector<std::string_view>& candidates) {
  std::string_view best;
  size_t bestDistance = 4;
  for (const std::string_view c : candidates) {
    const size_t d = editDistance(folded(key), folded(c));
    if (d < bestDistance && d <= 1 + c.size() / 4) {
      best = c;
      bestDistance = d;
    }
  }
  return best;
}

/// A value as an error shows it.
std::string shown(const toml::node& node) {
  switch (node.type()) {
    case toml::node_type::string: {
      constexpr size_t valueMax = 80;
      return '"' + printable(node.as_string()->get(), valueMax) + '"';
    }
    case toml::node_type::integer:
      return std::to_string(node.as_integer()->get());
    case toml::node_type::floating_point: {
      std::ostringstream out;
      out << node.as_floating_point()->get();
      return out.str();
    }
    case toml::node_type::boolean:
      return node.as_boolean()->get() ? "true" : "false";
    case toml::node_type::table:
      return "a table";
    case toml::node_type::array:
      return "an array";
    default:
      return "a date or time";
  }
}
}  // namespace

std::string suggestion(std::string_view wrong, const std::vector<std::string_view>& candidates,
                       const std::string& otherwise) {
  const std::string_view meant = nearest(wrong, candidates);
  if (!meant.empty()) return "did you mean '" + std::string(meant) + "'?";
  return otherwise + ' ' + joined(candidates);
}

bool SettingsSection::value(std::string_view key, const char* missing,
                            const std::function<std::string(const toml::node& node)>& read) {
  known_.push_back(key);
  const toml::node* node = table_.get(key);
  if (!node) {
    if (missing) errors_.atKey(at_, pathOf(key), std::string("missing: ") + missing);
    return !missing;
  }
  const std::string expected = read(*node);
  if (!expected.empty()) refuse(key, *node, expected);
  return expected.empty();
}

void SettingsSection::elements(std::string_view key,
                               const std::function<std::string(size_t at)>& problem) {
  const toml::node* node = table_.get(key);
  const toml::array* all = node ? node->as_array() : nullptr;
  if (!all) return;
  for (size_t i = 0; i < all->size(); ++i)
    if (const std::string expected = problem(i); !expected.empty())
      refuse(key, *all->get(i), expected);
}

void SettingsSection::table(std::string_view key,
                            const std::function<void(SettingsSection& section)>& visit) {
  known_.push_back(key);
  const toml::node* node = table_.get(key);
  if (!node) return;
  if (const toml::table* table = node->as_table()) {
    SettingsSection section(errors_, *table, pathOf(key), node->source());
    visit(section);
  } else {
    refuse(key, *node, "it is a table, [" + pathOf(key) + "]");
  }
}

void SettingsSection::tables(
    std::string_view key, const std::string& what,
    const std::function<std::string(const std::string& name)>& nameRule,
    const std::function<void(const std::string& name, SettingsSection& section)>& visit) {
  known_.push_back(key);
  const toml::node* node = table_.get(key);
  if (!node) return;
  const std::string form = "each " + what + " is a table, [" + pathOf(key) + ".NAME]";
  const toml::table* all = node->as_table();
  if (!all) {
    refuse(key, *node, form);
    return;
  }
  std::vector<std::pair<const toml::key*, const toml::node*>> children;
  for (const auto& [nameKey, child] : *all) children.emplace_back(&nameKey, &child);
  std::sort(children.begin(), children.end(), [this](const auto& a, const auto& b) {
    return errors_.before(a.first->source(), b.first->source());
  });
  for (const auto& [nameKey, child] : children) {
    const std::string name(nameKey->str());
    const std::string path = pathOf(key) + '.' + keyText(name);
    const toml::table* table = child->as_table();
    if (!table) {
      errors_.atKey(child->source(), path, shown(*child) + " is not allowed: " + form);
      continue;
    }
    if (const std::string expected = nameRule(name); !expected.empty())
      errors_.atKey(nameKey->source(), path, "this name is not allowed: " + expected);
    SettingsSection section(errors_, *table, path, nameKey->source());
    visit(name, section);
  }
}

void SettingsSection::refuse(std::string_view key, const std::string& expected) {
  if (const toml::node* node = table_.get(key)) {
    refuse(key, *node, expected);
  } else {
    errors_.atKey(at_, pathOf(key), "missing: " + expected);
  }
}

void SettingsSection::refuse(std::string_view key, const toml::node& node,
                             const std::string& expected) {
  errors_.atKey(node.source(), pathOf(key), shown(node) + " is not allowed: " + expected);
}

void SettingsSection::refuseUnknown() {
  for (const auto& [key, node] : table_) {
    if (std::find(known_.begin(), known_.end(), key.str()) != known_.end() ||
        !errors_.wanted(key.source()))
      continue;
    const std::string text = "unknown; " + suggestion(key.str(), known_, "known here:");
    errors_.atKey(key.source(), pathOf(key.str()), text);
  }
}

}  // namespace agent
