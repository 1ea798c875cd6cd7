#pragma once
#include <string>
#include <string_view>

namespace platform {

/// `text` fit for a terminal and one line of a log: control characters (C0, DEL, C1), characters
/// that turn the direction of writing or are not seen, and octets that are not UTF-8 as \xNN for
/// each octet, newline and tab as \n and \t. A backslash stays, so that text made
/// printable twice is the same.
std::string printable(std::string_view text);
/// The same, of at most `max` octets (3 or more): a longer text ends in "...", cut between two
/// characters.
std::string printable(std::string_view text, size_t max);

}  // namespace platform
