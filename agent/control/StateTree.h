#pragma once
#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Entity.h"

namespace agent {
using namespace platform;

/// One line of the live entity tree. The path names it from the root, its parts joined by '/':
/// attributes by their names, members of collections as "=" and the key's text. In each part '%',
/// '/', control octets and those above 0x7e stand as %XX, so that a path is plain text whatever the
/// names are, and parts can be told apart.
struct StateRow {
  std::string path;
  std::optional<std::string> text;  ///< none: an empty collection, or an entity without attributes
};

/// The live entities by name, read a page at a time: a page costs what is in it, however much there
/// is.
///
///   StateTree tree({{"config", config}, {"info", info}});
///   StateTree::Page page = tree.page("config");
///   while (!page.done) page = tree.page("config", page.rows.back().path);
///
/// What changes meanwhile may be missed or be of two moments; nothing is shown twice but what was
/// taken away and came back.
class StateTree {
 public:
  struct Root {
    std::string name;
    Ptr<const Entity> entity;
  };
  /// How much one page may be: whichever is reached first ends it.
  struct Limits {
    size_t rows = 1000;
    size_t octets = 128 << 10;
    std::chrono::microseconds time{2000};
  };
  struct Page {
    std::vector<StateRow> rows;
    bool done = false;    ///< nothing follows
    std::string problem;  ///< the path leads nowhere: what is wrong with it; else empty
  };

  explicit StateTree(std::vector<Root> roots) : roots_(std::move(roots)) {}

  /// What is at `path` and below, or the part of it that follows all of `after`, which is the path
  /// of a row, member or collection. In `path` the "=" of a key may be left out, and the quotes of
  /// its text.
  Page page(std::string_view path, std::string_view after, const Limits& limits) const;
  Page page(std::string_view path, std::string_view after = {}) const {
    return page(path, after, Limits());
  }

 private:
  std::vector<Root> roots_;
};

}  // namespace agent
