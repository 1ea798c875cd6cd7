#include "agent/control/StateTree.h"

#include <algorithm>
#include <cstdint>
#include <span>

#include "agent/host/Printable.h"

namespace agent {
namespace {
using Clock = std::chrono::steady_clock;

// Deeper than any tree of ours; an entity that leads back to itself ends here.
constexpr size_t depthMax = 24;
// The clock is asked once for so many rows.
constexpr size_t rowsPerLook = 16;
constexpr char keyMark = '=';

std::string encoded(std::string_view part) {
  static constexpr char hex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(part.size());
  for (const char c : part) {
    const auto octet = static_cast<uint8_t>(c);
    if (octet < 0x20 || octet > 0x7e || c == '%' || c == '/') {
      out += '%';
      out += hex[octet >> 4];
      out += hex[octet & 15];
    } else {
      out += c;
    }
  }
  return out;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

std::string decoded(std::string_view part) {
  std::string out;
  for (size_t i = 0; i < part.size(); ++i) {
    if (part[i] == '%' && i + 2 < part.size() && hexDigit(part[i + 1]) >= 0 &&
        hexDigit(part[i + 2]) >= 0) {
      out += static_cast<char>(hexDigit(part[i + 1]) << 4 | hexDigit(part[i + 2]));
      i += 2;
    } else {
      out += part[i];
    }
  }
  return out;
}

using Parts = std::vector<std::string>;
using PartsLeft = std::span<const std::string>;

Parts partsOf(std::string_view path) {
  Parts parts;
  while (!path.empty()) {
    const size_t end = std::min(path.find('/'), path.size());
    if (end > 0) parts.push_back(decoded(path.substr(0, end)));
    path.remove_prefix(std::min(end + 1, path.size()));
  }
  return parts;
}

std::string_view withoutMark(std::string_view part) {
  if (part.starts_with(keyMark)) part.remove_prefix(1);
  return part;
}

/// What is found at a path.
struct Place {
  const Entity* entity = nullptr;
  const AttrRow* row = nullptr;       // of an entity above; null: the entity itself
  std::optional<std::string> member;  // the text of a member that is no entity
  std::string problem;
};

/// Fills a page. Every walk returns false once the page is full.
class Walk {
 public:
  Walk(StateTree::Page& page, const StateTree::Limits& limits)
      : page_(page), limits_(limits), end_(Clock::now() + limits.time) {}

  bool add(std::string path, std::optional<std::string> text) {
    octets_ += path.size() + (text ? text->size() : 0) + 16;
    page_.rows.push_back({std::move(path), std::move(text)});
    const size_t n = page_.rows.size();
    return n < limits_.rows && octets_ < limits_.octets &&
           (n % rowsPerLook != 0 || Clock::now() < end_);
  }

  /// What follows `after`, which leads from this entity on; empty: all of it.
  bool entity(const Entity& e, const std::string& path, PartsLeft after, size_t depth) {
    const AttrRows rows = e.attrRows();
    auto at = rows.begin();
    if (!after.empty()) {
      at = std::find_if(rows.begin(), rows.end(),
                        [&](const AttrRow& r) { return r.name == after.front(); });
      if (at == rows.end()) return true;
      if (after.size() > 1 && !row(e, *at, path, after.subspan(1), depth)) return false;
      ++at;
    } else if (rows.empty() || depth >= depthMax) {
      return add(path, std::nullopt);
    }
    for (; at != rows.end(); ++at)
      if (!row(e, *at, path, {}, depth)) return false;
    return true;
  }

  bool row(const Entity& e, const AttrRow& r, const std::string& above, PartsLeft after,
           size_t depth) {
    const std::string path =
        above.empty() ? std::string(r.name) : above + '/' + std::string(r.name);
    if (r.get) return !after.empty() || add(path, r.get(e));
    if (r.from) return members(e, r, path, after, depth);
    if (!r.each) return true;  // an action has nothing to show
    bool more = true;
    bool any = false;
    r.each(e, [&](const std::string& key, const Entity* child, const std::string& text) {
      any = true;
      if (child && key.empty()) {
        more = more && entity(*child, path, after, depth + 1);
      } else if (after.empty()) {
        // Such a collection is shown whole: a page that begins inside it could not find its place.
        more = add(path + '/' + keyMark + encoded(key), text) && more;
      }
    });
    return any || !after.empty() ? more : add(path, std::nullopt);
  }

 private:
  bool members(const Entity& e, const AttrRow& r, const std::string& path, PartsLeft after,
               size_t depth) {
    std::string start;
    if (!after.empty()) start = withoutMark(after.front());
    const bool inside = after.size() > 1;
    bool more = true;
    bool any = false;
    r.from(e, after.empty() ? nullptr : &start, !inside,
           [&](const std::string& key, const Entity* child, const std::string& text) {
             const std::string member = path + '/' + keyMark + encoded(key);
             const bool same = inside && !any && key == start;
             any = true;
             if (child) {
               more = entity(*child, member, same ? after.subspan(1) : PartsLeft(), depth + 1);
             } else if (!same) {
               more = add(member, text);
             }
             return more;
           });
    return any || !after.empty() ? more : add(path, std::nullopt);
  }

  StateTree::Page& page_;
  const StateTree::Limits& limits_;
  const Clock::time_point end_;
  size_t octets_ = 0;
};

std::string names(AttrRows rows) {
  std::string all;
  for (const AttrRow& r : rows)
    if (!r.run) all += (all.empty() ? "" : ", ") + std::string(r.name);
  return all;
}

/// Finds the member that `part` means, as its key's text is or without the quotes of that.
bool findMember(const Entity& e, const AttrRow& r, const std::string& part, std::string& keyText,
                const Entity*& child, std::string& text) {
  const std::string bare(withoutMark(part));
  for (const std::string& wanted : {bare, toQuoted(bare), part}) {
    bool found = false;
    const auto visit = [&](const std::string& key, const Entity* c, const std::string& t) {
      if (key != wanted) return false;
      found = true;
      keyText = key;
      child = c;
      text = t;
      return false;
    };
    if (r.from) {
      r.from(e, &wanted, false, visit);
    } else {
      r.each(e, [&](const std::string& key, const Entity* c, const std::string& t) {
        if (!found) visit(key, c, t);
      });
    }
    if (found) return true;
  }
  return false;
}

}  // namespace

StateTree::Page StateTree::page(std::string_view path, std::string_view after,
                                const Limits& limits) const {
  Page page;
  const Parts parts = partsOf(path);
  const Parts afterParts = partsOf(after);
  Walk walk(page, limits);

  if (parts.empty()) {
    bool started = afterParts.empty();
    for (const Root& root : roots_) {
      PartsLeft left;
      if (!started) {
        if (root.name != afterParts.front()) continue;
        started = true;
        left = PartsLeft(afterParts).subspan(1);
        if (left.empty()) continue;
      }
      if (!walk.entity(*root.entity, root.name, left, 0)) return page;
    }
    page.done = true;
    return page;
  }

  const auto root = std::find_if(roots_.begin(), roots_.end(),
                                 [&](const Root& r) { return r.name == parts.front(); });
  if (root == roots_.end()) {
    std::string all;
    for (const Root& r : roots_) all += (all.empty() ? "" : ", ") + r.name;
    page.problem = "there is no " + inQuotes(parts.front()) + ": there are " + all;
    return page;
  }

  // Down the path; `full` is its whole form.
  const Entity* entity = root->entity.get();
  const AttrRow* row = nullptr;
  std::string full = root->name;
  std::string above;
  std::optional<std::string> text;
  const auto nothing = [&](const std::string& part, const std::string& rest) {
    page.problem = "there is no " + inQuotes(part) + " in " + printable(full) + rest;
    return page;
  };
  for (size_t i = 1; i < parts.size(); ++i) {
    const std::string& part = parts[i];
    if (text) return nothing(part, ", which is a value");
    if (row) {
      std::string key;
      const Entity* child = nullptr;
      std::string memberText;
      if (!findMember(*entity, *row, part, key, child, memberText)) return nothing(part, "");
      full += '/';
      full += keyMark;
      full += encoded(key);
      if (child) {
        entity = child;
      } else {
        text = memberText;
      }
      row = nullptr;
      continue;
    }
    const AttrRows rows = entity->attrRows();
    const auto found =
        std::find_if(rows.begin(), rows.end(), [&](const AttrRow& r) { return r.name == part; });
    if (found == rows.end() || found->run)
      return nothing(part, rows.empty() ? "" : ": there are " + names(rows));
    above = full;
    full += '/' + part;
    if (found->get) {
      text = found->get(*entity);
    } else if (found->from) {
      row = &*found;
    } else {
      // Another entity, which may be absent, or a collection that is read whole.
      const Entity* child = nullptr;
      bool isChild = true;
      found->each(*entity, [&](const std::string& key, const Entity* c, const std::string&) {
        isChild = isChild && key.empty();
        child = c;
      });
      if (child && isChild) {
        entity = child;
      } else {
        row = &*found;
      }
    }
  }

  PartsLeft left;
  Parts fullParts;
  if (!afterParts.empty()) {
    fullParts = partsOf(full);
    if (afterParts.size() < fullParts.size() ||
        !std::equal(fullParts.begin(), fullParts.end(), afterParts.begin())) {
      page.problem = inQuotes(after) + " is not in " + printable(full);
      return page;
    }
    left = PartsLeft(afterParts).subspan(fullParts.size());
    if (left.empty()) {
      page.done = true;
      return page;
    }
  }
  if (text) {
    walk.add(full, text);
    page.done = true;
  } else if (row) {
    page.done = walk.row(*entity, *row, above, left, 0);
  } else {
    page.done = walk.entity(*entity, full, left, 0);
  }
  return page;
}

}  // namespace agent
