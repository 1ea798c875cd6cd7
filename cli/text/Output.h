#pragma once
#include <fmt/format.h>

#include <string_view>
#include <utility>

namespace cli {

/// Standard output of all commands. Unlike fmt::print, it does not throw when it cannot be written
/// to.
struct Output {
  /// Writes text, which may stay in a buffer until `flush`. False when this or an earlier text
  /// could not be written: a command that goes on for long can stop.
  static bool write(std::string_view text);
  /// Writes what is in the buffer. A pipe's reader, too, gets it at once then. False as `write`.
  static bool flush();
  /// The exit status of the tool: `status`, or 2, with a line on standard error, when some of the
  /// output could not be written.
  static int status(int status);
};

/// Writes text for people to standard error. Does not throw either.
void complainLine(std::string_view text);
template <class... T>
void complain(fmt::format_string<T...> format, T&&... args) {
  complainLine(fmt::format(format, std::forward<T>(args)...));
}

}  // namespace cli
