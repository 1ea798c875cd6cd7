#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "Ipfix/FlowTrackingTypes.h"
#include "agent/host/Names.h"
#include "agent/host/Printable.h"
#include "agent/settings/SettingsFile.h"
#include "platform/linux/Fd.h"

namespace agent {
namespace {
using std::chrono::milliseconds;

/// A text as TOML writes it.
std::string tomlText(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      (out += '\\') += c;
    } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
      out += escape;
    } else {
      out += c;
    }
  }
  return out += '"';
}
std::string tomlText(milliseconds t) { return tomlText(timeText(t)); }
std::string tomlKey(std::string_view key) {
  return isBareKey(key) ? std::string(key) : tomlText(key);
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

std::string timeText(milliseconds t) {
  return t.count() % 1000 == 0 ? std::to_string(t.count() / 1000) + 's'
                               : std::to_string(t.count()) + "ms";
}

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
  const auto number = [](auto n) { return std::to_string(n); };
  std::string out;
  const auto header = [&](const std::string& path) {
    out += (out.empty() ? "[" : "\n[") + path + "]\n";
  };
  const auto row = [&](const char* key, const std::string& value) {
    out += std::string(key) + " = " + value + '\n';
  };
  header("agent");
  row("statistics", tomlText(settings.statistics));
  row("control", tomlText(settings.control));
  row("resolve-interval", tomlText(settings.resolveInterval));
  for (const auto& [name, id] : settings.vrfs) {
    header("vrf." + tomlKey(name));
    row("id", number(id));
  }
  for (const auto& [trackerName, t] : settings.trackers) {
    const std::string tracker = "tracker." + tomlKey(trackerName);
    header(tracker);
    row("id", number(t.id));
    row("type", tomlText(FlowTracking::toText(t.type)));
    std::string patterns;
    for (const std::string& p : t.interfaces)
      patterns += (patterns.empty() ? "" : ", ") + tomlText(p);
    row("interfaces", '[' + patterns + ']');
    row("sample-rate", number(t.sampleRate));
    row("active-interval", tomlText(t.activeInterval));
    row("inactive-timeout", tomlText(t.inactiveTimeout));
    row("local-port", number(t.localPort));
    row("max-flows", number(t.maxFlows));
    for (const auto& [exporterName, e] : t.exporters) {
      const std::string exporter = tracker + ".exporter." + tomlKey(exporterName);
      header(exporter);
      row("local-interface", tomlText(e.localInterface));
      row("vrf", tomlText(e.vrf.stringValue()));
      row("dscp", e.dscp.stringValue());
      row("mtu", number(e.mtu));
      row("template-interval", tomlText(e.templateInterval));
      row("rate-limit", tomlText(e.rateLimit.stringValue()));
      for (const auto& [name, c] : e.collectors) {
        header(exporter + ".collector." + tomlKey(name));
        row("address", tomlText(c.host.empty() ? c.address.stringValue() : c.host));
        row("port", number(c.port));
      }
    }
  }
  return out;
}

}  // namespace agent
