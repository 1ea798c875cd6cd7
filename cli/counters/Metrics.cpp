#include "cli/counters/Metrics.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "cli/text/Output.h"
#include "cli/text/Quoted.h"
#include "cli/text/Text.h"
#include "platform/UdpPam.h"
#include "platform/linux/Fd.h"
#include "platform/linux/SignalDescriptor.h"

namespace cli {
namespace {
using FlowTracking::FlowPathRecord;
using Tarn::Ipfix::CollectorStatistics;
using Tarn::Ipfix::CollectorStatisticsEntry;

/// Whatever a name holds, what comes out is UTF-8 in which both formats see one label value:
/// another octet would cost the whole scrape.
std::string labelValue(std::string_view text) {
  const std::string q = quoted(text);
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
  /// A sample of a point in time; an event that never happened has none.
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
  // In families of their own: among those above, a sum over all labels would count them twice.
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

void endpointFamilies(Exposition& out, const std::vector<FlowTracking::EndpointRecord>& all) {
  std::vector<std::string> labels;
  labels.reserve(all.size());
  for (const auto& e : all)
    labels.push_back(fmt::format(R"(tracker="{}",exporter="{}",family="ipv{}")",
                                 labelValue(e.key.tracker()), labelValue(e.key.exporter()),
                                 e.key.family));
  out.counter("tarnflow_sent_datagrams_total", "Datagrams that the kernel took.");
  for (size_t i = 0; i < all.size(); ++i) out.sample(labels[i], all[i].sent);
  out.counter("tarnflow_refused_datagrams_total",
              "Datagrams that did not leave this host, though they count as exported messages.");
  for (size_t i = 0; i < all.size(); ++i) out.sample(labels[i], all[i].refused);
  out.counter("tarnflow_refused_datagrams_by_cause_total", "The same by errno.");
  for (size_t i = 0; i < all.size(); ++i)
    for (const auto& c : all[i].causes)
      if (c.datagrams > 0)
        out.sample(fmt::format(R"({},cause="{}")", labels[i], causeName(c.error)), c.datagrams);
  out.counter("tarnflow_undelivered_datagrams_total",
              "Sent datagrams that ICMP messages say did not arrive; there may be more.");
  for (size_t i = 0; i < all.size(); ++i) out.sample(labels[i], all[i].undelivered);
}

/// The families of what each tracker counts.
class FlowFamilies {
 public:
  FlowFamilies(Exposition& out, const std::vector<FlowPathRecord>& flows)
      : out_(out), flows_(flows) {
    trackers_.reserve(flows.size());
    for (const FlowPathRecord& f : flows)
      trackers_.push_back(fmt::format(R"(tracker="{}")", labelValue(f.key.name())));
  }

  void packets() {
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
  }
  void devices() {
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
  }
  void times() {
    out_.gauge("tarnflow_flow_counters_timestamp_seconds",
               "When the tracker's counters were written.");
    for (size_t i = 0; i < flows_.size(); ++i) out_.time(trackers_[i], flows_[i].updatedTime);
  }

 private:
  using R = FlowPathRecord;
  using Value = uint64_t R::*;
  struct Part {
    std::string_view reason;
    Value value;
  };

  void samples(Value value) {
    for (size_t i = 0; i < flows_.size(); ++i) out_.sample(trackers_[i], flows_[i].*value);
  }
  void counter(std::string_view name, std::string_view help, Value value) {
    out_.counter(name, help);
    samples(value);
  }
  void gauge(std::string_view name, std::string_view help, Value value) {
    out_.gauge(name, help);
    samples(value);
  }
  void parts(std::string_view name, std::string_view help, std::initializer_list<Part> reasons) {
    out_.counter(name, help);
    for (size_t i = 0; i < flows_.size(); ++i)
      for (const Part& p : reasons)
        out_.sample(fmt::format(R"({},reason="{}")", trackers_[i], p.reason), flows_[i].*p.value);
  }

  Exposition& out_;
  const std::vector<FlowPathRecord>& flows_;
  std::vector<std::string> trackers_;
};

/// What the shared memory holds now, as text.
class Source {
 public:
  explicit Source(const std::string& name)
      : collectors_(platform::shmTableReader(name, CollectorStatistics::keyLen,
                                             CollectorStatistics::valueLen)),
        flows_(platform::shmTableReader(name + std::string(FlowTracking::flowPathSuffix),
                                        sizeof(FlowTracking::FlowPathKey), sizeof(FlowPathRecord))),
        endpoints_(platform::shmTableReader(name + std::string(FlowTracking::endpointSuffix),
                                            sizeof(FlowTracking::EndpointKey),
                                            sizeof(FlowTracking::EndpointRecord))) {}
  /// Throws ErrnoException where the segment may not be read.
  std::string text(MetricsFormat format) {
    Counters c = countersFrom(collectors_->snapshot(), utcNow());
    c.endpoints = endpointsFrom(endpoints_->snapshot());
    std::vector<FlowPathRecord> flows;
    if (const auto s = flows_->snapshot(); s.state == Counters::State::live)
      for (const auto& record : s.records)
        if (const auto r = FlowPathRecord::fromOctets(record.value)) flows.push_back(*r);
    return metricsText(c, flows, format);
  }

 private:
  std::unique_ptr<platform::ShmTableReader> collectors_;
  std::unique_ptr<platform::ShmTableReader> flows_;
  std::unique_ptr<platform::ShmTableReader> endpoints_;
};

int serve(const MetricsOptions& options, Source& source) {
  if (const std::string error = listenError(options.listen); !error.empty()) {
    complain("tarnflow: --listen: {}\n", error);
    return 1;
  }
  const platform::Fd signals = platform::signalDescriptor({SIGINT, SIGTERM});
  std::signal(SIGPIPE, SIG_IGN);
  std::unique_ptr<MetricsServer> server;
  try {
    server = std::make_unique<MetricsServer>(
        options.listen, [&](MetricsFormat format) { return source.text(format); });
  } catch (const platform::ErrnoException& e) {
    complain("tarnflow: {} for HTTP: {}\n", options.listen, e.what());
    return 1;
  }
  Output::write(fmt::format("serving http://{}:{}/metrics\n",
                            options.listen.substr(0, options.listen.rfind(':')), server->port()));
  Output::flush();
  server->run(signals.get());
  return 0;
}

/// Writes the whole file under another name and renames it: a reader never finds half of one.
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
  const platform::Fd signals = platform::signalDescriptor({SIGINT, SIGTERM});
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
    pollfd stop{signals.get(), POLLIN, 0};
    if (poll(&stop, 1, static_cast<int>(std::min(*options.interval, 86400.0) * 1000)) > 0) break;
  }
  unlink(options.textFile.c_str());  // its values would grow stale from now on
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
    endpointFamilies(out, collectors.endpoints);
    FlowFamilies trackers(out, flows);
    trackers.packets();
    trackers.devices();
    trackers.times();
  }
  return std::move(out).text();
}

int metrics(const MetricsOptions& options) {
  Source source(options.name);
  return options.textFile.empty() ? serve(options, source) : writeFiles(options, source);
}

}  // namespace cli
