#pragma once
#include <string>
#include <string_view>

/// Makes text from outside (messages, files, shared memory, the agent) harmless to a terminal. Uses
/// the standard library only, since the decoder uses it and nothing else of the tool.
namespace cli {

bool validUtf8(std::string_view text);
/// `text` in double quotes, with quotes and backslashes escaped (\" \\), and \xNN for each octet of
/// a control character, a direction mark, an invisible character and what is not UTF-8.
std::string quoted(std::string_view text);
/// `text` as it is, or `quoted` where that escapes anything: fit for one line of a terminal.
std::string shown(std::string_view text);
/// A name from the configuration: as it is when that is one printable word, else in quotes.
std::string nameText(std::string_view name);

}  // namespace cli
