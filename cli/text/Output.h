#pragma once
#include <fmt/format.h>

#include <string_view>
#include <utility>

namespace cli {

/// Standard output and standard error of all commands. Neither throws when it cannot be written to,
/// as fmt::print does.
struct Output {
  /// False: standard output is full or gone, and nothing more need be made for it. Text may stay in
  /// the buffer until `flush`.
  static bool write(std::string_view text);
  /// Writes what is buffered, at once, also into a pipe. False as with `write`.
  static bool flush();
  /// A command's exit status: `status`, or 2 when not all of its output was written, which standard
  /// error then says.
  static int status(int status);
};

/// Text for people, on standard error.
void complainLine(std::string_view text);
template <class... T>
void complain(fmt::format_string<T...> format, T&&... args) {
  complainLine(fmt::format(format, std::forward<T>(args)...));
}

}  // namespace cli
