#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "agent/host/Printable.h"
#include "agent/settings/SettingsFile.h"
#include "agent/settings/SettingsKeys.h"
#include "platform/linux/Fd.h"

namespace agent {
namespace {

/// The header of a table and its keys.
template <class S>
void write(std::string& out, const std::string& path, const S& settings) {
  out += (out.empty() ? "[" : "\n[") + path + "]\n";
  for (const SettingsKey<S>& key : settingsKeys<S>())
    out += std::string(key.name) + " = " + key.write(settings) + '\n';
}

/// Reads a file whole. Returns what is in the way, or nothing. Only a regular file is read: the
/// agent reads on the thread that exports, and a FIFO or a device could keep it waiting.
std::string readText(const std::string& fileName, std::string& text) {
  const auto failed = [] { return std::string("cannot be read: ") + std::strerror(errno); };
  const Fd file(::open(fileName.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat st {};
  if (!file || ::fstat(file.get(), &st) != 0) return failed();
  if (!S_ISREG(st.st_mode)) return "is not a regular file: a configuration is one";
  std::array<char, 65536> block;
  ssize_t n = 0;
  while (text.size() <= settingsFileMax && (n = ::read(file.get(), block.data(), block.size())) > 0)
    text.append(block.data(), static_cast<size_t>(n));
  if (n < 0) return failed();
  if (text.size() > settingsFileMax)
    return "larger than " + std::to_string(settingsFileMax) + " octets, the most that is read";
  return {};
}
}  // namespace

SettingsResult readSettings(const std::string& fileName) {
  namespace fs = std::filesystem;
  SettingsResult result;
  std::vector<std::string> names = {fileName};
  fs::path dir(fileName);
  if (dir.extension() == ".toml") dir.replace_extension();
  dir += ".d";
  std::error_code ec;
  fs::directory_iterator it(dir, ec);
  for (; !ec && it != fs::directory_iterator(); it.increment(ec))
    if (it->path().extension() == ".toml" && !it->path().filename().string().starts_with('.'))
      names.push_back(it->path().string());
  std::sort(names.begin() + 1, names.end());
  if (ec && ec != std::errc::no_such_file_or_directory && ec != std::errc::not_a_directory)
    result.errors.push_back(printable(dir.string()) + ": cannot be read: " + ec.message());
  std::vector<SettingsText> files;
  for (const std::string& name : names) {
    SettingsText& file = files.emplace_back(SettingsText{name, {}});
    if (const std::string why = readText(name, file.toml); !why.empty())
      result.errors.push_back(printable(name) + ": " + why);
  }
  if (result.errors.empty()) result = parseSettings(files);
  files.clear();
#ifdef __GLIBC__
  ::malloc_trim(0);  // a large file's tree takes 20 times its size, which would stay the agent's
#endif
  return result;
}

std::string settingsText(const Settings& settings) {
  std::string out;
  write(out, "agent", settings);
  for (const auto& [name, id] : settings.vrfs) write(out, "vrf." + tomlKey(name), id);
  for (const auto& [name, record] : settings.records) write(out, "record." + tomlKey(name), record);
  for (const auto& [trackerName, t] : settings.trackers) {
    const std::string tracker = "tracker." + tomlKey(trackerName);
    write(out, tracker, t);
    for (const auto& [exporterName, e] : t.exporters) {
      const std::string exporter = tracker + ".exporter." + tomlKey(exporterName);
      write(out, exporter, e);
      for (const auto& [name, c] : e.collectors)
        write(out, exporter + ".collector." + tomlKey(name), c);
    }
  }
  return out;
}

}  // namespace agent
