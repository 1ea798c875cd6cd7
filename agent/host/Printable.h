#pragma once
#include "platform/linux/Printable.h"

namespace agent {
using platform::printable;

/// A name from outside as messages quote it.
inline std::string inQuotes(std::string_view name) { return '\'' + printable(name) + '\''; }

}  // namespace agent
