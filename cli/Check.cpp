#include "cli/Check.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "cli/text/Arguments.h"
#include "cli/text/Output.h"

namespace cli {
namespace {

/// Returns only when tarnflowd cannot be run.
int check(const std::string& file) {
  namespace fs = std::filesystem;
  constexpr const char* agent = "tarnflowd";
  const auto become = [&](const std::string& program) {
    const char* const args[] = {agent, "--check", file.c_str(), "--effective", nullptr};
    execvp(program.c_str(),
           const_cast<char* const*>(args));  // searches PATH for a name without '/'
    return errno;
  };
  std::error_code ec;
  const fs::path own = fs::read_symlink("/proc/self/exe", ec).parent_path();
  for (const fs::path& program : {own / agent, own.parent_path() / "sbin" / agent}) {
    if (ec) break;
    if (const int err = become(program.string()); err != ENOENT) {
      complain("tarnflow check: cannot run {}: {}\n", program.string(), std::strerror(err));
      return 2;
    }
  }
  const int err = become(agent);
  complain("tarnflow check: {} is neither in {} nor in {} nor in PATH ({})\n", agent, own.string(),
           (own.parent_path() / "sbin").string(), std::strerror(err));
  return 2;
}

}  // namespace

void addCheck(CLI::App& app, int& status) {
  auto [cmd, file] = addCommand<std::string>(
      app, "check", "Validate a configuration file as the agent would", status, check);
  cmd->add_option("FILE", file, "The configuration file")->required()->type_name("");
  cmd->footer(
      "Exit status: 0 valid; 1 not, with file:line:column of every error; 2 when tarnflowd "
      "is not installed.");
}

}  // namespace cli
