#include "agent/control/StateTree.h"

#include <algorithm>
#include <charconv>
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
        // Such a collection is shown whole: a page that begins inside it could not be continued.
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

struct Member {
  std::string key;      // its text
  const Entity* child;  // null: the member is a value
  std::string text;
};
/// Finds the member that `part` means, as its key's text is or without the quotes of that.
std::optional<Member> findMember(const Entity& e, const AttrRow& r, const std::string& part) {
  const std::string bare(withoutMark(part));
  std::optional<Member> found;
  for (const std::string& wanted : {bare, toQuoted(bare), part}) {
    // False: of a map that lists its members from `wanted` on, the first decides.
    const auto visit = [&](const std::string& key, const Entity* child, const std::string& text) {
      if (!found && key == wanted) found = Member{key, child, text};
      return false;
    };
    if (r.from) {
      r.from(e, &wanted, false, visit);
    } else {
      r.each(e, visit);
    }
    if (found) break;
  }
  return found;
}

/// Where a path leads: to an entity, to a collection of one, or to a value.
class PathTarget {
 public:
  explicit PathTarget(const StateTree::Root& root) : entity_(root.entity.get()), full_(root.name) {}

  /// Goes one part of the path further. Returns why it cannot, or nothing.
  std::string partIs(const std::string& part) {
    if (text_) return nothing(part, ", which is a value");
    return collection_ ? memberIs(part) : attrIs(part);
  }
  /// The whole form of the path.
  const std::string& full() const { return full_; }
  /// False: the page is full.
  bool show(Walk& walk, PartsLeft after) const {
    if (text_) walk.add(full_, text_);
    if (text_) return true;
    return collection_ ? walk.row(*entity_, *collection_, above_, after, 0)
                       : walk.entity(*entity_, full_, after, 0);
  }

 private:
  std::string nothing(const std::string& part, const std::string& rest) const {
    return "there is no " + inQuotes(part) + " in " + printable(full_) + rest;
  }

  std::string memberIs(const std::string& part) {
    const auto member = findMember(*entity_, *collection_, part);
    if (!member) return nothing(part, "");
    full_ += '/';
    full_ += keyMark;
    full_ += encoded(member->key);
    if (member->child) {
      entity_ = member->child;
    } else {
      text_ = member->text;
    }
    collection_ = nullptr;
    return {};
  }

  std::string attrIs(const std::string& part) {
    const AttrRows rows = entity_->attrRows();
    const auto found =
        std::find_if(rows.begin(), rows.end(), [&](const AttrRow& r) { return r.name == part; });
    if (found == rows.end() || found->run)
      return nothing(part, rows.empty() ? "" : ": there are " + names(rows));
    above_ = full_;
    full_ += '/' + part;
    if (found->get) {
      text_ = found->get(*entity_);
      return {};
    }
    // Another entity, which may be absent, or a collection.
    const Entity* child = nullptr;
    bool isChild = !found->from;
    if (isChild)
      found->each(*entity_, [&](const std::string& key, const Entity* c, const std::string&) {
        isChild = isChild && key.empty();
        child = c;
      });
    if (child && isChild) {
      entity_ = child;
    } else {
      collection_ = &*found;
    }
    return {};
  }

  const Entity* entity_;
  const AttrRow* collection_ = nullptr;
  std::string full_;
  std::string above_;  // of the entity that has the collection
  std::optional<std::string> text_;
};

/// What of `after` lies behind `path`; nothing where it is not below it.
std::optional<PartsLeft> behind(const Parts& path, const Parts& after) {
  if (after.size() < path.size() || !std::equal(path.begin(), path.end(), after.begin()))
    return std::nullopt;
  return PartsLeft(after).subspan(path.size());
}

/// All roots, or those from the one that `after` is in. False: the page is full.
bool showAll(const std::vector<StateTree::Root>& roots, Walk& walk, const Parts& after) {
  auto root = roots.begin();
  if (!after.empty()) {
    root = std::find_if(root, roots.end(),
                        [&](const StateTree::Root& r) { return r.name == after.front(); });
    if (root == roots.end()) return true;
    if (after.size() > 1 && !walk.entity(*root->entity, root->name, PartsLeft(after).subspan(1), 0))
      return false;
    ++root;
  }
  return std::all_of(root, roots.end(), [&](const StateTree::Root& r) {
    return walk.entity(*r.entity, r.name, {}, 0);
  });
}

}  // namespace

StateTree::Page StateTree::page(std::string_view path, std::string_view after,
                                const Limits& limits) const {
  Page page;
  const Parts parts = partsOf(path);
  const Parts afterParts = partsOf(after);
  Walk walk(page, limits);
  if (parts.empty()) {
    page.done = showAll(roots_, walk, afterParts);
    return page;
  }
  const auto root = std::find_if(roots_.begin(), roots_.end(),
                                 [&](const Root& r) { return r.name == parts.front(); });
  if (root == roots_.end()) {
    page.problem =
        "there is no " + inQuotes(parts.front()) + ": there are " + joined(roots_, &Root::name);
    return page;
  }
  PathTarget target(*root);
  for (size_t i = 1; i < parts.size() && page.problem.empty(); ++i)
    page.problem = target.partIs(parts[i]);
  if (!page.problem.empty()) return page;
  PartsLeft left;
  if (!afterParts.empty()) {
    const auto found = behind(partsOf(target.full()), afterParts);
    if (!found) page.problem = inQuotes(after) + " is not in " + printable(target.full());
    page.done = found && found->empty();
    if (!found || page.done) return page;
    left = *found;
  }
  page.done = target.show(walk, left);
  return page;
}

}  // namespace agent
