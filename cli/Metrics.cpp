#include "cli/Metrics.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>

#include "cli/Output.h"
#include "cli/Signals.h"
#include "cli/decoder/Decoder.h"
#include "platform/UdpPam.h"
#include "platform/linux/Fd.h"

namespace cli {
namespace {
using FlowTracking::FlowPathRecord;
using Tarn::Ipfix::CollectorStatistics;
using Tarn::Ipfix::CollectorStatisticsEntry;
using Clock = std::chrono::steady_clock;

/// Whatever a name holds, what comes out is UTF-8 in which both formats see one label value:
/// another octet would cost the whole scrape.
std::string labelValue(std::string_view text) {
  const std::string q = decoder::quoted(text);
  std::string out;
  for (size_t i = 1; i + 1 < q.size(); ++i) {
    out += q[i];
    if (q[i] != '\\') continue;
    // \\ and \" are theirs as well; of \xNN the backslash has to be said.
    out += q[i + 1] == 'x' ? '\\' : q[++i];
  }
  return out;
}

/// One text of metrics: families in order, each with its samples.
class Exposition {
 public:
  explicit Exposition(MetricsFormat format) : open_(format == MetricsFormat::openMetrics) {}

  void counter(std::string_view name, std::string_view help) { family(name, "counter", help); }
  void gauge(std::string_view name, std::string_view help) { family(name, "gauge", help); }
  /// A sample of the family begun last; `labels` without braces.
  void sample(std::string_view labels, uint64_t v) { line(labels, fmt::to_string(v)); }
  void sample(std::string_view labels, double v) { line(labels, fmt::format("{:.3f}", v)); }
  /// A point in time; one that never was has no sample.
  void time(std::string_view labels, double v) {
    if (v > 0) sample(labels, v);
  }
  std::string text() && {
    if (open_) out_ += "# EOF\n";
    return std::move(out_);
  }

 private:
  void family(std::string_view name, std::string_view type, std::string_view help) {
    name_ = name;
    if (open_ && type == "counter") name.remove_suffix(std::string_view("_total").size());
    out_ += fmt::format("# HELP {0} {1}\n# TYPE {0} {2}\n", name, help, type);
  }
  void line(std::string_view labels, std::string_view value) {
    out_ += name_;
    if (!labels.empty()) ((out_ += '{') += labels) += '}';
    (((out_ += ' ') += value) += '\n');
  }

  const bool open_;
  std::string name_;
  std::string out_;
};

struct Row {
  std::string labels;
  const CollectorStatisticsEntry* entry;
};

void collectorFamilies(Exposition& out, const std::vector<CollectorStatisticsEntry>& entries) {
  std::vector<Row> rows;
  rows.reserve(entries.size());
  for (const auto& e : entries)
    rows.push_back(
        {fmt::format(R"(tracker="{}",exporter="{}",collector="{}")", labelValue(e.key().tracker()),
                     labelValue(e.key().exporter()), e.key().collector().stringValue()),
         &e});
  using Entry = CollectorStatisticsEntry;
  const auto counts = [&](std::string_view name, std::string_view help, auto value) {
    out.counter(name, help);
    for (const Row& r : rows) out.sample(r.labels, static_cast<uint64_t>(value(*r.entry)));
  };
  const auto times = [&](std::string_view name, std::string_view help, auto value) {
    out.gauge(name, help);
    for (const Row& r : rows) out.time(r.labels, value(*r.entry));
  };
  const auto eachSet = [](const Entry& e, const auto& f) {
    for (uint32_t i = 0; i < e.setEntryCount(); ++i)
      if (const auto& s = e.setEntryStorage(Tarn::Ipfix::SetIndex(i)); s.setId() != 0) f(s);
  };
  counts("tarnflow_exported_messages_total", "IPFIX messages sent to the collector.",
         [](const Entry& e) { return e.exportedMessageTotalCount(); });
  counts("tarnflow_exported_data_records_total",
         "Data records in them, options data included, templates not.",
         [](const Entry& e) { return e.exportedFlowRecordTotalCount(); });
  counts("tarnflow_exported_templates_total",
         "Template records in them, options templates included.", [&](const Entry& e) {
           uint64_t n = 0;
           eachSet(e, [&](const auto& s) { n += s.exportedTemplateCount(); });
           return n;
         });
  counts("tarnflow_exported_bytes_total", "Octets of them, without UDP and IP headers.",
         [](const Entry& e) { return e.exportedOctetTotalCount(); });
  // By themselves: with them in the families above, a sum over all labels would count twice.
  out.counter("tarnflow_exported_set_data_records_total",
              "Data records by set id, which is their template's id.");
  for (const Row& r : rows)
    eachSet(*r.entry, [&](const auto& s) {
      if (s.setId() >= 256)
        out.sample(fmt::format(R"({},set="{}")", r.labels, s.setId()), s.exportedFlowRecordCount());
    });
  out.counter("tarnflow_exported_set_templates_total",
              "Template records by set id: 2 templates, 3 options templates.");
  for (const Row& r : rows)
    eachSet(*r.entry, [&](const auto& s) {
      if (s.setId() < 256)
        out.sample(fmt::format(R"({},set="{}")", r.labels, s.setId()), s.exportedTemplateCount());
    });
  times("tarnflow_last_message_timestamp_seconds", "When a message was last sent.",
        [](const Entry& e) { return e.lastSentTime(); });
  times("tarnflow_last_template_timestamp_seconds", "When templates were last sent.",
        [](const Entry& e) { return e.lastTemplateSentTime(); });
  times("tarnflow_last_data_record_timestamp_seconds", "When flow records were last sent.",
        [](const Entry& e) { return e.lastDataRecordSentTime(); });
  times("tarnflow_last_options_data_timestamp_seconds", "When options data was last sent.",
        [](const Entry& e) { return e.lastOptionsDataSentTime(); });
  times("tarnflow_last_cleared_timestamp_seconds", "When the counts were last set to 0.",
        [](const Entry& e) { return e.lastClearedTime(); });
}

void flowFamilies(Exposition& out, const std::vector<FlowPathRecord>& flows) {
  std::vector<std::string> trackers;
  trackers.reserve(flows.size());
  for (const FlowPathRecord& f : flows)
    trackers.push_back(fmt::format(R"(tracker="{}")", labelValue(f.key.name())));
  const auto samples = [&](uint64_t FlowPathRecord::*value) {
    for (size_t i = 0; i < flows.size(); ++i) out.sample(trackers[i], flows[i].*value);
  };
  const auto counter = [&](std::string_view name, std::string_view help,
                           uint64_t FlowPathRecord::*value) {
    out.counter(name, help);
    samples(value);
  };
  const auto gauge = [&](std::string_view name, std::string_view help,
                         uint64_t FlowPathRecord::*value) {
    out.gauge(name, help);
    samples(value);
  };
  struct Part {
    std::string_view reason;
    uint64_t FlowPathRecord::*value;
  };
  const auto parts = [&](std::string_view name, std::string_view help,
                         std::initializer_list<Part> reasons) {
    out.counter(name, help);
    for (size_t i = 0; i < flows.size(); ++i)
      for (const Part& p : reasons)
        out.sample(fmt::format(R"({},reason="{}")", trackers[i], p.reason), flows[i].*p.value);
  };
  using R = FlowPathRecord;
  counter("tarnflow_capture_packets_total", "Packets that reached the capture, after sampling.",
          &R::packetsSeen);
  parts("tarnflow_capture_packets_uncounted_total", "Of these, packets that no flow counted.",
        {{"kernel_drop", &R::kernelDrops},
         {"not_ip", &R::notIp},
         {"truncated", &R::truncated},
         {"malformed", &R::malformed}});
  counter("tarnflow_flow_packets_total", "Packets counted in flows.", &R::packets);
  counter("tarnflow_flow_bytes_total", "Octets of their IP packets.", &R::octets);
  gauge("tarnflow_flows_active", "Flows now.", &R::flowsActive);
  gauge("tarnflow_flows_max", "Flows that have room.", &R::flowsMax);
  counter("tarnflow_flows_created_total", "Flows that began.", &R::flowsCreated);
  parts("tarnflow_flows_reported_total", "Flow records made, by flowEndReason.",
        {{"idle", &R::endedIdle},
         {"active", &R::endedActive},
         {"end_of_flow", &R::endedEndOfFlow},
         {"forced", &R::endedForced},
         {"resources", &R::endedResources}});
  parts("tarnflow_flows_lost_total", "Flows that ended without a record.",
        {{"no_collector", &R::lostNoCollector}, {"queue_full", &R::lostQueueFull}});
  counter("tarnflow_flow_packets_lost_total", "Packets of the flows without a record.",
          &R::lostPackets);
  counter("tarnflow_flow_records_sent_total", "Flow records sent, once per collector.",
          &R::records);
  counter("tarnflow_flow_records_lost_total",
          "Flow records of an exporter none of whose collectors was ready.", &R::recordsLost);
  counter("tarnflow_flow_messages_sent_total", "Messages of flow records, once per collector.",
          &R::messages);
  gauge("tarnflow_sampling_interval_packets", "One packet out of so many is looked at.",
        &R::sampleRate);
  counter("tarnflow_device_messages_total", "IPFIX messages that devices sent.",
          &R::deviceMessages);
  counter("tarnflow_device_records_total", "Data records in them, of templates that were known.",
          &R::deviceRecords);
  counter("tarnflow_device_records_refused_total",
          "Of these, records of a refused template, or too large.", &R::deviceRecordsRefused);
  counter("tarnflow_device_unknown_sets_total", "Sets of records whose template was not known.",
          &R::deviceSetsUnknown);
  parts("tarnflow_device_datagrams_lost_total", "Datagrams of devices that were not looked at.",
        {{"malformed", &R::deviceDatagramsBad},
         {"buffer_full", &R::deviceDatagramsLost},
         {"looped", &R::deviceDatagramsLooped}});
  out.gauge("tarnflow_flow_counters_timestamp_seconds",
            "When the tracker's counters were written.");
  for (size_t i = 0; i < flows.size(); ++i) out.time(trackers[i], flows[i].updatedTime);
}

/// What the shared memory holds now, as text.
class Source {
 public:
  explicit Source(const std::string& name)
      : collectors_(platform::shmTableReader(name, CollectorStatistics::keyLen,
                                             CollectorStatistics::valueLen)),
        flows_(platform::shmTableReader(name + std::string(FlowTracking::flowPathSuffix),
                                        sizeof(FlowTracking::FlowPathKey),
                                        sizeof(FlowPathRecord))) {}
  /// Throws ErrnoException where the segment may not be read.
  std::string text(MetricsFormat format) {
    const Counters c = countersFrom(collectors_->snapshot(), utcNow());
    std::vector<FlowPathRecord> flows;
    if (const auto s = flows_->snapshot(); s.state == Counters::State::live)
      for (const auto& record : s.records)
        if (const auto r = FlowPathRecord::fromOctets(record.value)) flows.push_back(*r);
    return metricsText(c, flows, format);
  }

 private:
  std::unique_ptr<platform::ShmTableReader> collectors_;
  std::unique_ptr<platform::ShmTableReader> flows_;
};

struct Listen {
  sockaddr_storage address{};
  bool six() const { return address.ss_family == AF_INET6; }
};

std::string parseListen(const std::string& text, Listen& out) {
  const auto colon = text.rfind(':');
  std::string host = text.substr(0, colon);
  unsigned port = 65536;
  if (colon != std::string::npos) {
    const char* end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data() + colon + 1, end, port);
    if (error != std::errc() || at != end) port = 65536;
  }
  auto* four = reinterpret_cast<sockaddr_in*>(&out.address);
  auto* six = reinterpret_cast<sockaddr_in6*>(&out.address);
  const bool brackets = host.size() > 2 && host.front() == '[' && host.back() == ']';
  if (port < 65536 && inet_pton(AF_INET, host.c_str(), &four->sin_addr) == 1) {
    four->sin_family = AF_INET;
    four->sin_port = htons(static_cast<uint16_t>(port));
    return {};
  }
  if (port < 65536 && brackets &&
      inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &six->sin6_addr) == 1) {
    six->sin6_family = AF_INET6;
    six->sin6_port = htons(static_cast<uint16_t>(port));
    return {};
  }
  return fmt::format("\"{}\" is no address and port: 127.0.0.1:9739, [::1]:9739, 0.0.0.0:9739",
                     text);
}

/// The HTTP server, on the caller's thread. A client costs a slot and what the kernel buffers for
/// it, never a wait of the others: nothing here blocks.
class Server {
 public:
  static constexpr unsigned connectionsMax = 64;
  static constexpr unsigned idleSeconds = 10;
  /// A connection lives no longer, whatever it sends or reads: a client that sends an octet now and
  /// then would keep its slot for days.
  static constexpr auto lifeMax = std::chrono::seconds(60);
  /// Scrapes that come together are served one text: what clients can make of work is bounded.
  static constexpr auto freshFor = std::chrono::milliseconds(100);

  Server(Source& source, const Listen& listen) : source_(source) {
    const unsigned flags = listen.six() ? unsigned{MHD_USE_IPv6} : 0U;
    errno = 0;
    daemon_ = MHD_start_daemon(flags, 0, nullptr, nullptr, &Server::handle, this,
                               MHD_OPTION_SOCK_ADDR, &listen.address, MHD_OPTION_CONNECTION_LIMIT,
                               connectionsMax, MHD_OPTION_CONNECTION_TIMEOUT, idleSeconds,
                               MHD_OPTION_CONNECTION_MEMORY_LIMIT, static_cast<size_t>(16384),
                               MHD_OPTION_LISTENING_ADDRESS_REUSE, 1U, MHD_OPTION_NOTIFY_CONNECTION,
                               &Server::connection, this, MHD_OPTION_END);
    if (!daemon_) throw platform::ErrnoException(errno, "cannot listen");
  }
  ~Server() {
    MHD_stop_daemon(daemon_);
    for (auto& [format, kept] : kept_)
      if (kept.response) MHD_destroy_response(kept.response);
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  uint16_t port() const { return MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT)->port; }
  /// Serves until `stopFd` is readable.
  ///
  /// By select, whose few descriptors are all that there are: told by edges, as epoll does it for
  /// this library, the end of a client comes together with its last octets and is not heard.
  void run(int stopFd) {
    const int listener = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_LISTEN_FD)->listen_fd;
    for (;;) {
      fd_set read, write, except;
      FD_ZERO(&read);
      FD_ZERO(&write);
      FD_ZERO(&except);
      int last = stopFd;
      FD_SET(stopFd, &read);
      MHD_get_fdset(daemon_, &read, &write, &except, &last);
      // Who comes while all slots are taken waits in the kernel's queue, and is not turned away.
      if (begun_.size() >= connectionsMax) FD_CLR(listener, &read);
      MHD_UNSIGNED_LONG_LONG ms = 1000;  // who lives too long is looked for once a second
      if (MHD_get_timeout(daemon_, &ms) != MHD_YES || ms > 1000) ms = 1000;
      timeval wait{static_cast<time_t>(ms / 1000), static_cast<suseconds_t>(ms % 1000 * 1000)};
      if (select(last + 1, &read, &write, &except, begun_.empty() ? nullptr : &wait) < 0) continue;
      if (FD_ISSET(stopFd, &read)) return;
      MHD_run_from_select(daemon_, &read, &write, &except);
      const auto now = Clock::now();
      for (const auto& [fd, since] : begun_)
        if (now - since > lifeMax) shutdown(fd, SHUT_RDWR);
    }
  }

 private:
  struct Kept {
    MHD_Response* response = nullptr;
    Clock::time_point made;
  };

  static void connection(void* self, MHD_Connection* c, void**,
                         MHD_ConnectionNotificationCode what) {
    auto& begun = static_cast<Server*>(self)->begun_;
    const auto* info = MHD_get_connection_info(c, MHD_CONNECTION_INFO_CONNECTION_FD);
    if (what == MHD_CONNECTION_NOTIFY_STARTED)
      begun[info->connect_fd] = Clock::now();
    else
      begun.erase(info->connect_fd);
  }

  static MHD_Result text(MHD_Connection* c, unsigned status, std::string_view body) {
    MHD_Response* response = MHD_create_response_from_buffer(
        body.size(), const_cast<char*>(body.data()), MHD_RESPMEM_MUST_COPY);
    MHD_add_response_header(response, "Content-Type", "text/plain; charset=utf-8");
    if (status == MHD_HTTP_METHOD_NOT_ALLOWED)
      MHD_add_response_header(response, "Allow", "GET, HEAD");
    const MHD_Result result = MHD_queue_response(c, status, response);
    MHD_destroy_response(response);
    return result;
  }

  static MHD_Result handle(void* self, MHD_Connection* c, const char* url, const char* method,
                           const char*, const char*, size_t*, void** seen) {
    // The first call is for the headers alone; an answer to it would end the connection.
    static int once;
    if (!*seen) {
      *seen = &once;
      return MHD_YES;
    }
    const std::string_view verb = method;
    if (verb != "GET" && verb != "HEAD")
      return text(c, MHD_HTTP_METHOD_NOT_ALLOWED, "GET or HEAD only\n");
    if (std::string_view(url) == "/") return text(c, MHD_HTTP_OK, "tarnflow: see /metrics\n");
    if (std::string_view(url) != "/metrics")
      return text(c, MHD_HTTP_NOT_FOUND, "there is /metrics only\n");
    return static_cast<Server*>(self)->serve(c);
  }

  MHD_Result serve(MHD_Connection* c) {
    const char* accept = MHD_lookup_connection_value(c, MHD_HEADER_KIND, "Accept");
    const auto format =
        accept && std::string_view(accept).find("application/openmetrics-text") != std::string::npos
            ? MetricsFormat::openMetrics
            : MetricsFormat::prometheus;
    Kept& kept = kept_[format];
    try {
      if (!kept.response || Clock::now() - kept.made > freshFor) {
        const std::string body = source_.text(format);
        if (kept.response) MHD_destroy_response(kept.response);  // who still reads it holds it
        kept.response = MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()),
                                                        MHD_RESPMEM_MUST_COPY);
        kept.made = Clock::now();
        MHD_add_response_header(kept.response, "Content-Type",
                                format == MetricsFormat::openMetrics
                                    ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
                                    : "text/plain; version=0.0.4; charset=utf-8");
      }
    } catch (const platform::ErrnoException& e) {
      return text(c, MHD_HTTP_INTERNAL_SERVER_ERROR, fmt::format("{}\n", e.what()));
    }
    return MHD_queue_response(c, MHD_HTTP_OK, kept.response);
  }

  Source& source_;
  MHD_Daemon* daemon_ = nullptr;
  std::map<MetricsFormat, Kept> kept_;
  std::map<int, Clock::time_point> begun_;  // by the connection's descriptor
};

int serve(const MetricsOptions& options, Source& source) {
  Listen listen;
  if (const std::string error = parseListen(options.listen, listen); !error.empty()) {
    complain("tarnflow: --listen: {}\n", error);
    return 1;
  }
  const StopSignals signals;
  std::signal(SIGPIPE, SIG_IGN);
  std::unique_ptr<Server> server;
  try {
    server = std::make_unique<Server>(source, listen);
  } catch (const platform::ErrnoException& e) {
    complain("tarnflow: {} for HTTP: {}\n", options.listen, e.what());
    return 1;
  }
  Output::write(fmt::format("serving http://{}:{}/metrics\n",
                            options.listen.substr(0, options.listen.rfind(':')), server->port()));
  Output::flush();
  server->run(signals.fd());
  return 0;
}

/// Writes the file whole under another name first: who collects such files never reads half of one.
void writeFile(const std::string& file, const std::string& text) {
  const auto slash = file.rfind('/') + 1;  // npos + 1 is 0
  std::string temporary = file.substr(0, slash) + '.' + file.substr(slash) + ".XXXXXX";
  platform::Fd fd(mkstemp(temporary.data()));
  if (!fd) throw platform::ErrnoException(errno, temporary);
  const auto failed = [&](const std::string& what) {
    const int error = errno;
    unlink(temporary.c_str());
    throw platform::ErrnoException(error, what);
  };
  for (size_t at = 0; at < text.size();) {
    const ssize_t n = write(fd.get(), text.data() + at, text.size() - at);
    if (n < 0) failed(temporary);
    at += static_cast<size_t>(n);
  }
  if (fchmod(fd.get(), 0644) < 0) failed(temporary);
  if (rename(temporary.c_str(), file.c_str()) < 0) failed(file);
}

int writeFiles(const MetricsOptions& options, Source& source) {
  const StopSignals signals;
  std::string said;
  for (;;) {
    std::string error;
    try {
      writeFile(options.textFile, source.text(MetricsFormat::prometheus));
    } catch (const platform::ErrnoException& e) {
      error = e.what();
    }
    // A disk that is full now may have room later.
    if (error != said && !error.empty()) complain("tarnflow: {}\n", error);
    said = error;
    if (!options.interval) return error.empty() ? 0 : 1;
    pollfd stop{signals.fd(), POLLIN, 0};
    if (poll(&stop, 1, static_cast<int>(std::min(*options.interval, 86400.0) * 1000)) > 0) break;
  }
  unlink(options.textFile.c_str());  // nobody renews it from now on
  return 0;
}

}  // namespace

std::string metricsText(const Counters& collectors, const std::vector<FlowPathRecord>& flows,
                        MetricsFormat format) {
  Exposition out(format);
  const bool up = collectors.state == Counters::State::live;
  out.gauge("tarnflow_up", "1 while the agent lives that writes the counters.");
  out.sample("", static_cast<uint64_t>(up));
  out.gauge("tarnflow_build_info", "The version of what serves these metrics.");
  out.sample(R"(version=")" TARN_VERSION R"(")", static_cast<uint64_t>(1));
  if (up) {
    out.gauge("tarnflow_start_timestamp_seconds", "When the agent began to count.");
    out.time("", collectors.startTime);
    out.gauge("tarnflow_unreadable_entries",
              "Collectors left out: their entries were under change at every try.");
    out.sample("", static_cast<uint64_t>(collectors.unreadable));
    collectorFamilies(out, collectors.entries);
    flowFamilies(out, flows);
  }
  return std::move(out).text();
}

std::string listenError(const std::string& text) {
  Listen unused;
  return parseListen(text, unused);
}

int metrics(const MetricsOptions& options) {
  Source source(options.name);
  return options.textFile.empty() ? serve(options, source) : writeFiles(options, source);
}

}  // namespace cli
