#include "cli/text/Output.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace cli {

namespace {
int firstError = 0;  // the errno of the first failure: that of a later one may be less telling
/// Notes why writing failed. True while everything was written.
bool done(bool written) {
  if (!written && firstError == 0) firstError = errno;
  return firstError == 0;
}
}  // namespace

bool Output::write(std::string_view text) {
  return done(std::fwrite(text.data(), 1, text.size(), stdout) == text.size());
}
bool Output::flush() { return done(std::fflush(stdout) == 0); }

int Output::status(int status) {
  if (flush() && std::ferror(stdout) == 0) return status;  // CLI11 writes help texts to stdout
  complain("tarnflow: cannot write to standard output: {}\n", std::strerror(firstError));
  return 2;
}

void complainLine(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stderr) != text.size()) std::clearerr(stderr);
}

}  // namespace cli
