#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <malloc.h>
#include <net/if.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <unistd.h>

#include "agent/Agent.h"
#include "agent/host/Capabilities.h"
#include "agent/host/Printable.h"
#include "agent/settings/SettingsFile.h"
#include "agent/settings/SettingsKeys.h"
#include "platform/linux/SignalDescriptor.h"

namespace {
using namespace agent;

constexpr int exitFailure = 1;
constexpr int exitUsage = 2;

/// An exit status: `status`, or that of wrong usage when standard output did not take everything.
int written(int status) {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
  std::fprintf(stderr, "tarnflowd: cannot write to standard output: %s\n", std::strerror(errno));
  return exitUsage;
}

/// Notes patterns that take no interface of this machine, which need not be the one that the
/// configuration is for. Those of other namespaces are not looked at.
void noteIdlePatterns(const std::string& fileName, const Settings& settings) {
  std::vector<std::string> names;
  if (struct if_nameindex* const all = if_nameindex()) {
    for (const auto* i = all; i->if_name; ++i) names.emplace_back(i->if_name);
    if_freenameindex(all);
  }
  for (const auto& [name, tracker] : settings.trackers)
    for (const std::string& pattern : idlePatterns(tracker.interfaces, names))
      if (pattern.find('/') == pattern.npos)
        std::fprintf(stderr,
                     "%s: note: key 'tracker.%s.interfaces': no interface of this machine is taken "
                     "by \"%s\" now\n",
                     printable(fileName).c_str(), printable(tomlKey(name)).c_str(),
                     printable(pattern).c_str());
}

int check(const std::string& fileName, bool effective) {
  const SettingsResult read = readSettings(fileName);
  for (const std::string& error : read.errors) std::fprintf(stderr, "%s\n", error.c_str());
  if (!read.settings) return exitFailure;
  noteIdlePatterns(fileName, *read.settings);
  std::printf("%s%s: ok: %s\n", effective ? "# " : "", printable(fileName).c_str(),
              describe(count(*read.settings)).c_str());
  if (effective) std::fputs(settingsText(*read.settings).c_str(), stdout);
  return written(0);
}

/// Every exporter has a socket per family and every namespace one more; the usual soft limit of
/// 1024 descriptors is for programs that use select().
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) < 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

/// `level`: how much is logged; empty: the default.
int run(const AgentOptions& options, const std::string& level) {
  AgentLog log = AgentLog::standard();
  if (!level.empty()) {
    const int number = traceLevelFromText(level);
    if (number < 0) {
      std::fprintf(stderr,
                   "--log-level: '%s' is not allowed: 0 to 9, error, event, detail or packet\n",
                   printable(level).c_str());
      return exitUsage;
    }
    log.levelIs(number);
  }
  std::signal(SIGPIPE, SIG_IGN);  // a reader of the log that went away is no reason to stop
  const Fd signals = platform::signalDescriptor({SIGHUP, SIGTERM, SIGINT});
  raiseDescriptorLimit();
  try {
    keepNeededCapabilities();
    const Ptr<EventLoop> loop = eventLoopFactory();
    Agent agent(loop, log, options);
    const auto watch = loop->fdWatch(signals.get(), EPOLLIN, [&](uint32_t) {
      signalfd_siginfo info{};
      while (read(signals.get(), &info, sizeof info) == sizeof info) {
        if (info.ssi_signo == SIGHUP) {
          agent.reload();
        } else {
          agent.finish();
        }
      }
    });
    if (!agent.start()) return exitFailure;
    loop->run();
    agent.stop();
    if (agent.fileFailed()) return exitFailure;
  } catch (const std::exception& e) {
    log.error("not started: " + std::string(e.what()));
    return exitFailure;
  }
  return 0;
}
}  // namespace

int main(int argc, char** argv) {
  platform::fillStandardDescriptors();
#ifdef __GLIBC__
  // Each thread would reserve 64 MiB of addresses for what it allocates, and keep them when it
  // ends: under a limit, a capture that comes later would not get its ring.
  ::mallopt(M_ARENA_MAX, 2);
#endif
  CLI::App app{"tarnflowd: exports flow information over IPFIX (RFC 7011)."};
  AgentOptions options;
  std::string checkFile;
  std::string level;
  bool effective = false;
  bool printDefault = false;
  bool printSchema = false;
  app.add_option("--config", options.configFile,
                 "the configuration (TOML); without it the built-in default runs")
      ->type_name("FILE");
  auto* const checks =
      app.add_option("--check", checkFile, "say what is wrong with this configuration, and exit")
          ->type_name("FILE");
  app.add_flag("--effective", effective,
               "with --check: print what counts in the end, every key with its value")
      ->needs(checks);
  app.add_flag("--print-default-config", printDefault,
               "print the built-in default, which explains every key, and exit");
  app.add_flag("--print-schema", printSchema,
               "print the JSON schema of the configuration, for editors, and exit");
  app.add_option("--log-level", level,
                 "0 to 9, or error (0), event (3), detail (5), packet (8): how much of what goes "
                 "on inside is logged; default 0")
      ->type_name("LEVEL");
  app.add_option("--netns-dir", options.netnsDir, "where network namespaces are mounted")
      ->type_name("DIR")
      ->capture_default_str();
  app.add_option("--read", options.readFile,
                 "track the flows of this capture (pcap or pcapng) instead of the interfaces', "
                 "export them, and exit")
      ->type_name("FILE");
  app.set_version_flag("--version", "tarnflowd " TARN_VERSION);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return written(app.exit(e) == 0 ? 0 : exitUsage);
  }
  if (printDefault || printSchema) {
    const std::string text = printDefault ? std::string(defaultSettingsText()) : settingsSchema();
    std::fputs(text.c_str(), stdout);
    return written(0);
  }
  if (!checkFile.empty()) return check(checkFile, effective);
  return run(options, level);
}
