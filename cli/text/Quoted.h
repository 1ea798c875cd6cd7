#pragma once
#include <string>
#include <string_view>

/// How text from outside is printed. It needs the standard library only: the decoder uses it, too.
namespace cli {

bool validUtf8(std::string_view text);
/// `text` in double quotes; quotes, backslashes, control and direction characters and what is not
/// UTF-8 escaped (\" \\ \xNN).
std::string quoted(std::string_view text);
/// Fit for one line of a terminal: as it is, or in quotes with escapes.
std::string shown(std::string_view text);
/// A name from the configuration: as it is when that is one printable word, else in quotes.
std::string nameText(std::string_view name);

}  // namespace cli
