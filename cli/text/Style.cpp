#include "cli/text/Style.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdlib>

namespace cli {

Style Style::ofOutput() {
  const char* no = std::getenv("NO_COLOR");
  return Style(isatty(STDOUT_FILENO) && (!no || !*no));
}

std::string Style::in(std::string_view code, std::string_view text) const {
  return colour_ ? fmt::format("\x1b[{}m{}\x1b[0m", code, text) : std::string(text);
}

}  // namespace cli
