#pragma once
#include <functional>
#include <string>
#include <string_view>

#include "platform/linux/Printable.h"

namespace agent {
using platform::printable;

/// A name from outside as messages quote it.
inline std::string inQuotes(std::string_view name) { return '\'' + printable(name) + '\''; }

/// "1 exporter", "2 exporters".
inline std::string counted(size_t n, const char* noun) {
  return std::to_string(n) + ' ' + noun + (n == 1 ? "" : "s");
}

/// "a, b, c"; `name` gives what is shown of each item.
template <class Items, class Name = std::identity>
std::string joined(const Items& items, Name name = {}) {
  std::string all;
  for (const auto& item : items)
    all += (all.empty() ? "" : ", ") + std::string(std::invoke(name, item));
  return all;
}

}  // namespace agent
