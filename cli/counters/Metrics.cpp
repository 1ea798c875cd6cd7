#include "cli/counters/Metrics.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <initializer_list>
#include <memory>
#include <utility>

#include "cli/text/Output.h"
#include "cli/text/Quoted.h"
#include "cli/text/Text.h"
#include "platform/UdpPam.h"
#include "platform/linux/Fd.h"
#include "platform/linux/SignalDescriptor.h"

namespace cli {
namespace {
using FlowTracking::FlowPathRecord;
using Tarn::Ipfix::CollectorStatisticsEntry;

/// The value of a label with this text. Whatever octets a name has, the value is UTF-8 and ends
/// where it should: a scraper would refuse the whole text for one label that does not.
std::string labelValue(std::string_view text) {
  const std::string q = quoted(text);
  std::string out;
  for (size_t i = 1; i + 1 < q.size(); ++i) {
    out += q[i];
    if (q[i] != '\\') continue;
    // `quoted` made \\ and \", which the formats have, and \xNN, whose backslash they want escaped.
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

/// The families of one kind of object. Each object has a sample in each, with the same labels.
template <class T>
class Families {
 public:
  /// `objects` must outlive this; `labelsOf` gives the labels of one, without braces.
  template <class LabelsOf>
  Families(Exposition& out, const std::vector<T>& objects, LabelsOf labelsOf) : out_(out) {
    objects_.reserve(objects.size());
    for (const T& object : objects) objects_.emplace_back(labelsOf(object), &object);
  }

  /// `value` of each family is a member of `T`, or a function of a `T`.
  template <class Value>
  void counter(std::string_view name, std::string_view help, Value value) {
    out_.counter(name, help);
    samples(value);
  }
  template <class Value>
  void gauge(std::string_view name, std::string_view help, Value value) {
    out_.gauge(name, help);
    samples(value);
  }
  /// Points in time, UTC seconds. An event that never happened, 0, has no sample.
  template <class Value>
  void time(std::string_view name, std::string_view help, Value value) {
    out_.gauge(name, help);
    for (const auto& [labels, object] : objects_)
      if (const double t = std::invoke(value, *object); t > 0) out_.sample(labels, t);
  }
  /// A counter that has several samples of each object, told apart by the label `by`.
  /// `eachPart(object, sample)` calls `sample(label's value, count)` for each.
  template <class EachPart>
  void parts(std::string_view name, std::string_view help, std::string_view by, EachPart eachPart) {
    out_.counter(name, help);
    for (const auto& [labels, object] : objects_)
      eachPart(*object, [&, &all = labels](const auto& part, uint64_t count) {
        out_.sample(fmt::format(R"({},{}="{}")", all, by, part), count);
      });
  }
  /// The same with a member of `T` for each reason.
  void reasons(std::string_view name, std::string_view help,
               std::initializer_list<std::pair<std::string_view, uint64_t T::*>> reasons) {
    parts(name, help, "reason", [&](const T& object, const auto& sample) {
      for (const auto& [reason, value] : reasons) sample(reason, object.*value);
    });
  }

 private:
  template <class Value>
  void samples(Value value) {
    for (const auto& [labels, object] : objects_) out_.sample(labels, std::invoke(value, *object));
  }

  Exposition& out_;
  std::vector<std::pair<std::string, const T*>> objects_;  // each behind its labels
};

void collectorFamilies(Exposition& out, const std::vector<CollectorStatisticsEntry>& entries) {
  using Entry = CollectorStatisticsEntry;
  Families<Entry> all(out, entries, [](const Entry& e) {
    return fmt::format(R"(tracker="{}",exporter="{}",collector="{}")",
                       labelValue(e.key().tracker()), labelValue(e.key().exporter()),
                       e.key().collector().stringValue());
  });
  const auto eachSet = [](const Entry& e, const auto& f) {
    for (uint32_t i = 0; i < e.setEntryCount(); ++i)
      if (const auto& s = e.setEntryStorage(Tarn::Ipfix::SetIndex(i)); s.setId() != 0) f(s);
  };
  all.counter("tarnflow_exported_messages_total", "IPFIX messages sent to the collector.",
              &Entry::exportedMessageTotalCount);
  all.counter("tarnflow_exported_data_records_total",
              "Data records in them, options data included, templates not.",
              &Entry::exportedFlowRecordTotalCount);
  all.counter("tarnflow_exported_templates_total",
              "Template records in them, options templates included.", [&](const Entry& e) {
                uint64_t n = 0;
                eachSet(e, [&](const auto& s) { n += s.exportedTemplateCount(); });
                return n;
              });
  all.counter("tarnflow_exported_bytes_total", "Octets of them, without UDP and IP headers.",
              &Entry::exportedOctetTotalCount);
  // In families of their own: among those above, a sum over all labels would count them twice.
  all.parts("tarnflow_exported_set_data_records_total",
            "Data records by set id, which is their template's id.", "set",
            [&](const Entry& e, const auto& sample) {
              eachSet(e, [&](const auto& s) {
                if (s.setId() >= 256) sample(s.setId(), s.exportedFlowRecordCount());
              });
            });
  all.parts("tarnflow_exported_set_templates_total",
            "Template records by set id: 2 templates, 3 options templates.", "set",
            [&](const Entry& e, const auto& sample) {
              eachSet(e, [&](const auto& s) {
                if (s.setId() < 256) sample(s.setId(), s.exportedTemplateCount());
              });
            });
  all.time("tarnflow_last_message_timestamp_seconds", "When a message was last sent.",
           &Entry::lastSentTime);
  all.time("tarnflow_last_template_timestamp_seconds", "When templates were last sent.",
           &Entry::lastTemplateSentTime);
  all.time("tarnflow_last_data_record_timestamp_seconds", "When flow records were last sent.",
           &Entry::lastDataRecordSentTime);
  all.time("tarnflow_last_options_data_timestamp_seconds", "When options data was last sent.",
           &Entry::lastOptionsDataSentTime);
  all.time("tarnflow_last_cleared_timestamp_seconds", "When the counts were last set to 0.",
           &Entry::lastClearedTime);
}

void endpointFamilies(Exposition& out, const std::vector<FlowTracking::EndpointRecord>& endpoints) {
  using Endpoint = FlowTracking::EndpointRecord;
  Families<Endpoint> all(out, endpoints, [](const Endpoint& e) {
    return fmt::format(R"(tracker="{}",exporter="{}",family="ipv{}")", labelValue(e.key.tracker()),
                       labelValue(e.key.exporter()), e.key.family);
  });
  all.counter("tarnflow_sent_datagrams_total", "Datagrams that the kernel took.", &Endpoint::sent);
  all.counter("tarnflow_refused_datagrams_total",
              "Datagrams that did not leave this host, though they count as exported messages.",
              &Endpoint::refused);
  all.parts("tarnflow_refused_datagrams_by_cause_total", "The same by errno.", "cause",
            [](const Endpoint& e, const auto& sample) {
              for (const auto& c : e.causes)
                if (c.datagrams > 0) sample(causeName(c.error), c.datagrams);
            });
  all.counter("tarnflow_undelivered_datagrams_total",
              "Sent datagrams that ICMP messages say did not arrive; there may be more.",
              &Endpoint::undelivered);
}

void trackerFamilies(Exposition& out, const std::vector<FlowPathRecord>& trackers) {
  using R = FlowPathRecord;
  Families<R> all(out, trackers, [](const R& r) {
    return fmt::format(R"(tracker="{}")", labelValue(r.key.name()));
  });
  all.counter("tarnflow_capture_packets_total", "Packets that reached the capture, after sampling.",
              &R::packetsSeen);
  all.reasons("tarnflow_capture_packets_uncounted_total", "Of these, packets that no flow counted.",
              {{"kernel_drop", &R::kernelDrops},
               {"not_ip", &R::notIp},
               {"truncated", &R::truncated},
               {"malformed", &R::malformed}});
  all.counter("tarnflow_flow_packets_total", "Packets counted in flows.", &R::packets);
  all.counter("tarnflow_flow_bytes_total", "Octets of their IP packets.", &R::octets);
  all.gauge("tarnflow_flows_active", "Flows now.", &R::flowsActive);
  all.gauge("tarnflow_flows_max", "Flows that have room.", &R::flowsMax);
  all.counter("tarnflow_flows_created_total", "Flows that began.", &R::flowsCreated);
  all.reasons("tarnflow_flows_reported_total", "Flow records made, by flowEndReason.",
              {{"idle", &R::endedIdle},
               {"active", &R::endedActive},
               {"end_of_flow", &R::endedEndOfFlow},
               {"forced", &R::endedForced},
               {"resources", &R::endedResources}});
  all.reasons("tarnflow_flows_lost_total", "Flows that ended without a record.",
              {{"no_collector", &R::lostNoCollector}, {"queue_full", &R::lostQueueFull}});
  all.counter("tarnflow_flow_packets_lost_total", "Packets of the flows without a record.",
              &R::lostPackets);
  all.counter("tarnflow_flow_records_sent_total", "Flow records sent, once per collector.",
              &R::records);
  all.counter("tarnflow_flow_records_lost_total",
              "Flow records of an exporter none of whose collectors was ready.", &R::recordsLost);
  all.counter("tarnflow_flow_messages_sent_total", "Messages of flow records, once per collector.",
              &R::messages);
  all.gauge("tarnflow_sampling_interval_packets", "One packet out of so many is looked at.",
            &R::sampleRate);
  all.counter("tarnflow_device_messages_total", "IPFIX messages that devices sent.",
              &R::deviceMessages);
  all.counter("tarnflow_device_records_total",
              "Data records in them, of templates that were known.", &R::deviceRecords);
  all.counter("tarnflow_device_records_refused_total",
              "Of these, records of a refused template, or too large.", &R::deviceRecordsRefused);
  all.counter("tarnflow_device_unknown_sets_total", "Sets of records whose template was not known.",
              &R::deviceSetsUnknown);
  all.reasons("tarnflow_device_datagrams_lost_total",
              "Datagrams of devices that were not looked at.",
              {{"malformed", &R::deviceDatagramsBad},
               {"buffer_full", &R::deviceDatagramsLost},
               {"looped", &R::deviceDatagramsLooped}});
  all.time("tarnflow_flow_counters_timestamp_seconds", "When the tracker's counters were written.",
           &R::updatedTime);
}

/// What the shared memory holds now, as text. Throws ErrnoException where it may not be read.
std::string textNow(CounterTables& tables, MetricsFormat format) {
  const Counters c = tables.counters();
  const auto flows = tables.flows();
  const bool live = flows.state == Counters::State::live;
  return metricsText(c, live ? recordsOf<FlowPathRecord>(flows) : std::vector<FlowPathRecord>(),
                     format);
}

int serve(const MetricsOptions& options, CounterTables& tables) {
  if (const std::string error = listenError(options.listen); !error.empty()) {
    complain("tarnflow: --listen: {}\n", error);
    return 1;
  }
  const platform::Fd signals = platform::signalDescriptor({SIGINT, SIGTERM});
  std::signal(SIGPIPE, SIG_IGN);
  std::unique_ptr<MetricsServer> server;
  try {
    server = std::make_unique<MetricsServer>(
        options.listen, [&](MetricsFormat format) { return textNow(tables, format); });
  } catch (const platform::ErrnoException& e) {
    complain("tarnflow: --listen {}: {}\n", options.listen, e.what());
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
  if (!fd) throw platform::ErrnoException(errno, "cannot make " + temporary);
  const auto failed = [&](const std::string& what) {
    const int error = errno;
    unlink(temporary.c_str());
    throw platform::ErrnoException(error, "cannot write " + what);
  };
  for (size_t at = 0; at < text.size();) {
    const ssize_t n = write(fd.get(), text.data() + at, text.size() - at);
    if (n < 0) failed(temporary);
    at += static_cast<size_t>(n);
  }
  if (fchmod(fd.get(), 0644) < 0) failed(temporary);
  if (rename(temporary.c_str(), file.c_str()) < 0) failed(file);
}

int writeFiles(const MetricsOptions& options, CounterTables& tables) {
  const platform::Fd signals = platform::signalDescriptor({SIGINT, SIGTERM});
  std::string said;
  for (;;) {
    std::string error;
    try {
      writeFile(options.textFile, textNow(tables, MetricsFormat::prometheus));
    } catch (const platform::ErrnoException& e) {
      error = e.what();
    }
    // Each new error is said once. With an interval it ends nothing: a full disk may have room
    // later.
    if (error != said && !error.empty()) complain("tarnflow: {}\n", error);
    said = error;
    if (!options.interval) return error.empty() ? 0 : 1;
    pollfd stop{signals.get(), POLLIN, 0};
    if (poll(&stop, 1, static_cast<int>(std::min(*options.interval, 86400.0) * 1000)) > 0) break;
  }
  unlink(options.textFile.c_str());  // nobody brings its values up to date from now on
  return 0;
}

}  // namespace

std::string metricsText(const Counters& collectors, const std::vector<FlowPathRecord>& flows,
                        MetricsFormat format) {
  Exposition out(format);
  const bool up = collectors.table.state == Counters::State::live;
  out.gauge("tarnflow_up", "1 while the agent lives that writes the counters.");
  out.sample("", static_cast<uint64_t>(up));
  out.gauge("tarnflow_build_info", "The version of what serves these metrics.");
  out.sample(R"(version=")" TARN_VERSION R"(")", static_cast<uint64_t>(1));
  if (up) {
    out.gauge("tarnflow_start_timestamp_seconds", "When the agent began to count.");
    out.sample("", collectors.table.startTime);
    out.gauge("tarnflow_unreadable_entries",
              "Collectors left out: their entries were under change at every try.");
    out.sample("", static_cast<uint64_t>(collectors.table.unreadable));
    collectorFamilies(out, collectors.entries);
    endpointFamilies(out, collectors.endpoints);
    trackerFamilies(out, flows);
  }
  return std::move(out).text();
}

int metrics(const MetricsOptions& options) {
  CounterTables tables(options.name);
  return options.textFile.empty() ? serve(options, tables) : writeFiles(options, tables);
}

}  // namespace cli
