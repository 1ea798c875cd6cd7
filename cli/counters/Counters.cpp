#include "cli/counters/Counters.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include "cli/text/Output.h"
#include "cli/text/Quoted.h"
#include "cli/text/Table.h"
#include "cli/text/Text.h"
#include "platform/UdpPam.h"
#include "platform/linux/SignalDescriptor.h"

namespace cli {
namespace {

using Json = nlohmann::ordered_json;
using Tarn::Ipfix::CollectorSetStatisticsEntry;
using Tarn::Ipfix::CollectorStatistics;
using Tarn::Ipfix::CollectorStatisticsEntry;
using Tarn::Ipfix::SetIndex;

std::vector<CollectorSetStatisticsEntry> setsOf(const CollectorStatisticsEntry& e) {
  std::vector<CollectorSetStatisticsEntry> sets;
  for (uint32_t i = 0; i < e.setEntryCount(); ++i)
    if (const auto& s = e.setEntryStorage(SetIndex(i)); s.setId() != 0) sets.push_back(s);
  std::ranges::sort(sets, {}, &CollectorSetStatisticsEntry::setId);
  return sets;
}

std::string setName(uint16_t id) {
  if (id == 2) return "templates";
  return id == 3 ? "options templates" : fmt::format("data {}", id);
}

}  // namespace

std::string_view stateName(Counters::State state) {
  static constexpr std::string_view names[] = {"live", "dead", "closed", "absent", "foreign"};
  static_assert(std::size(names) == static_cast<size_t>(Counters::State::foreign) + 1);
  return names[static_cast<size_t>(state)];
}

Counters countersFrom(const platform::ShmTableReader::Snapshot& snapshot, double now) {
  Counters c{snapshot.state,
             snapshot.writerPid,
             snapshot.startTime,
             snapshot.generation,
             snapshot.unreadable,
             {},
             now,
             {}};
  for (const auto& record : snapshot.records) {
    if (auto entry = CollectorStatisticsEntry::fromOctets(record.value))
      c.entries.push_back(*entry);
    else
      ++c.unreadable;
  }
  std::ranges::sort(c.entries, {}, &CollectorStatisticsEntry::key);
  return c;
}

std::vector<FlowTracking::EndpointRecord> endpointsFrom(
    const platform::ShmTableReader::Snapshot& snapshot) {
  std::vector<FlowTracking::EndpointRecord> endpoints;
  for (const auto& record : snapshot.records)
    if (const auto e = FlowTracking::EndpointRecord::fromOctets(record.value))
      endpoints.push_back(*e);
  std::ranges::sort(endpoints, {}, &FlowTracking::EndpointRecord::key);
  return endpoints;
}

std::string causeName(uint64_t error) {
  const char* name = error == 0 ? "other" : strerrorname_np(static_cast<int>(error));
  return name ? name : fmt::to_string(error);
}

/// Which exporters lost datagrams on this host, and why; empty when none did.
std::string refusedText(const std::vector<FlowTracking::EndpointRecord>& endpoints) {
  Table table({false, false, false, true, true, true});
  table.add({"tracker", "exporter", "family", "taken", "refused", "of these", "because"});
  bool any = false;
  for (const auto& e : endpoints) {
    Table::Row row = {nameText(e.key.tracker()), nameText(e.key.exporter()),
                      fmt::format("IPv{}", e.key.family), fmt::to_string(e.sent),
                      fmt::to_string(e.refused)};
    for (const auto& c : e.causes) {
      if (c.datagrams == 0) continue;
      any = true;
      row.resize(5);
      row.push_back(fmt::to_string(c.datagrams));
      row.push_back(c.error == 0 ? "other causes" : std::strerror(static_cast<int>(c.error)));
      table.add(row);
      row.assign(5, "");
    }
  }
  return any ? "\ndatagrams that this host did not send, though they are counted above:\n" +
                   table.text(0)
             : "";
}

bool showable(const Counters& c) { return c.state == Counters::State::live && !c.entries.empty(); }

std::string stateNote(Counters::State state, int writerPid, const std::string& name) {
  switch (state) {
    case Counters::State::live:
      break;
    case Counters::State::dead:
      return fmt::format("{} was written by pid {}, which has died: last values", name, writerPid);
    case Counters::State::closed:
      return fmt::format("the agent is starting or stopping: its table {} is closed", name);
    case Counters::State::absent:
      return fmt::format("no agent runs: there is no statistics table {} (/dev/shm{})", name, name);
    case Counters::State::foreign:
      return fmt::format(
          "{} (/dev/shm{}) is no statistics table of this version of tarnflow, or was truncated",
          name, name);
  }
  return "";
}

std::string countersNote(const Counters& c, const std::string& name) {
  if (std::string note = stateNote(c.state, c.writerPid, name); !note.empty()) return note;
  if (c.entries.empty() && c.unreadable == 0)
    return fmt::format("the agent (pid {}) has sent nothing to any collector yet", c.writerPid);
  if (c.unreadable > 0)
    return fmt::format("{} could not be read",
                       c.unreadable == 1 ? "1 entry" : fmt::format("{} entries", c.unreadable));
  return "";
}

RatesByKey countersRates(const Counters& before, const Counters& now) {
  RatesByKey rates;
  const double seconds = now.now - before.now;
  if (before.generation != now.generation || seconds <= 0) return rates;
  std::map<Tarn::Ipfix::CollectorStatisticsKey, const CollectorStatisticsEntry*> old;
  for (const auto& e : before.entries) old[e.key()] = &e;
  for (const auto& e : now.entries) {
    const auto it = old.find(e.key());
    if (it == old.end() || it->second->lastClearedTime() != e.lastClearedTime()) continue;
    const auto rate = [&](uint64_t (CollectorStatisticsEntry::*count)() const) {
      return static_cast<double>((e.*count)() - (it->second->*count)()) / seconds;
    };
    rates[e.key()] = {rate(&CollectorStatisticsEntry::exportedMessageTotalCount),
                      rate(&CollectorStatisticsEntry::exportedFlowRecordTotalCount),
                      rate(&CollectorStatisticsEntry::exportedOctetTotalCount)};
  }
  return rates;
}

std::string countersText(const Counters& c, const RatesByKey* rates) {
  std::string out =
      fmt::format("agent pid {}, counting since {}\n", c.writerPid, utcText(c.startTime));
  std::vector<bool> right(3, false);
  right.resize(rates ? 13 : 10, true);
  Table table(right);
  Table::Row head = {"tracker", "exporter", "collector", "messages", "records", "octets"};
  if (rates) head.insert(head.end(), {"messages/s", "records/s", "octets/s"});
  head.insert(head.end(), {"last message", "template", "data", "options"});
  table.add(head);
  Table sets({false, false, false, false, true, true});
  sets.add({"tracker", "exporter", "collector", "set", "records", "templates"});
  for (const auto& e : c.entries) {
    const Table::Row who = {nameText(e.key().tracker()), nameText(e.key().exporter()),
                            e.key().collector().stringValue()};
    Table::Row row = who;
    for (const uint64_t n : {e.exportedMessageTotalCount(), e.exportedFlowRecordTotalCount(),
                             e.exportedOctetTotalCount()})
      row.push_back(fmt::to_string(n));
    if (rates) {
      const auto it = rates->find(e.key());
      if (it == rates->end()) {
        row.insert(row.end(), 3, "-");
      } else {
        for (const double r : {it->second.messages, it->second.records, it->second.octets})
          row.push_back(fmt::format("{:.1f}", r));
      }
    }
    for (const double t : {e.lastSentTime(), e.lastTemplateSentTime(), e.lastDataRecordSentTime(),
                           e.lastOptionsDataSentTime()})
      row.push_back(ageText(c.now, t));
    if (e.lastClearedTime() > 0)
      row.push_back("cleared " + ageText(c.now, e.lastClearedTime()) + " ago");
    table.add(row);
    for (const auto& s : setsOf(e)) {
      Table::Row set = who;
      set.insert(set.end(), {setName(s.setId()), fmt::to_string(s.exportedFlowRecordCount()),
                             fmt::to_string(s.exportedTemplateCount())});
      sets.add(set);
    }
  }
  if (c.entries.empty()) return out;
  return out + '\n' + table.text(0) + '\n' + sets.text(0) + refusedText(c.endpoints);
}

Json countersJson(const Counters& c, const std::string& name, const RatesByKey* rates) {
  const bool table = c.state == Counters::State::live || c.state == Counters::State::dead;
  Json out = {{"name", name},
              {"state", stateName(c.state)},
              {"time", c.now},
              {"writerPid", table ? Json(c.writerPid) : Json(nullptr)},
              {"startTime", table ? Json(c.startTime) : Json(nullptr)},
              {"generation", c.generation},
              {"unreadable", c.unreadable},
              {"entries", Json::array()}};
  const auto at = [](double t) { return t == 0 ? Json(nullptr) : Json(t); };
  for (const auto& e : c.entries) {
    Json sets = Json::array();
    for (const auto& s : setsOf(e))
      sets.push_back({{"id", s.setId()},
                      {"records", s.exportedFlowRecordCount()},
                      {"templates", s.exportedTemplateCount()}});
    out["entries"].push_back({{"tracker", e.key().tracker()},
                              {"exporter", e.key().exporter()},
                              {"collectorAddress", e.key().collector().addr().stringValue()},
                              {"collectorPort", e.key().collector().port()},
                              {"messages", e.exportedMessageTotalCount()},
                              {"records", e.exportedFlowRecordTotalCount()},
                              {"octets", e.exportedOctetTotalCount()},
                              {"lastMessageTime", at(e.lastSentTime())},
                              {"lastTemplateTime", at(e.lastTemplateSentTime())},
                              {"lastDataTime", at(e.lastDataRecordSentTime())},
                              {"lastOptionsDataTime", at(e.lastOptionsDataSentTime())},
                              {"lastClearedTime", at(e.lastClearedTime())},
                              {"sets", std::move(sets)}});
    if (!rates) continue;
    const auto it = rates->find(e.key());
    out["entries"].back()["perSecond"] = it == rates->end()
                                             ? Json(nullptr)
                                             : Json{{"messages", it->second.messages},
                                                    {"records", it->second.records},
                                                    {"octets", it->second.octets}};
  }
  out["endpoints"] = Json::array();
  for (const auto& e : c.endpoints) {
    Json causes = Json::object();
    for (const auto& cause : e.causes)
      if (cause.datagrams > 0) causes[causeName(cause.error)] = cause.datagrams;
    out["endpoints"].push_back({{"tracker", std::string(e.key.tracker())},
                                {"exporter", std::string(e.key.exporter())},
                                {"family", e.key.family},
                                {"sent", e.sent},
                                {"refused", e.refused},
                                {"causes", std::move(causes)},
                                {"undelivered", e.undelivered}});
  }
  return out;
}

namespace {

/// Shows one snapshot after the other, and from the second on what changed per second.
class CounterLooks {
 public:
  int operator()(platform::ShmTableReader& reader, const CountersOptions& options,
                 bool clearScreen) {
    Counters c = countersFrom(reader.snapshot(), utcNow());
    if (!endpoints_)
      endpoints_ = platform::shmTableReader(
          options.name + std::string(FlowTracking::endpointSuffix),
          sizeof(FlowTracking::EndpointKey), sizeof(FlowTracking::EndpointRecord));
    c.endpoints = endpointsFrom(endpoints_->snapshot());
    std::string note = countersNote(c, options.name);
    const size_t all = c.entries.size();
    const auto unwanted = [&](const auto& key) {
      return (!options.tracker.empty() && key.tracker() != options.tracker) ||
             (!options.exporter.empty() && key.exporter() != options.exporter);
    };
    std::erase_if(c.entries, [&](const auto& e) { return unwanted(e.key()); });
    std::erase_if(c.endpoints, [&](const auto& e) { return unwanted(e.key); });
    if (note.empty() && c.entries.empty() && all > 0)
      note =
          "nothing was sent by what was asked for; without --tracker and --exporter there is "
          "more";
    const RatesByKey rates = before_ ? countersRates(*before_, c) : RatesByKey();
    const RatesByKey* shownRates = options.watch ? &rates : nullptr;
    if (options.json) {
      Output::write(jsonLine(countersJson(c, options.name, shownRates)));
    } else {
      if (clearScreen) Output::write("\x1b[H\x1b[2J");
      Output::flush();
      if (!note.empty()) complain("tarnflow: {}\n", note);
      if (c.state == Counters::State::live || c.state == Counters::State::dead)
        Output::write(countersText(c, shownRates));
    }
    Output::flush();
    const int status = showable(c) ? 0 : 1;
    before_ = std::move(c);
    return status;
  }

 private:
  std::shared_ptr<platform::ShmTableReader> endpoints_;
  std::optional<Counters> before_;
};

}  // namespace

int showTable(const CountersOptions& options, size_t keyLen, size_t valueLen, const Look& look) {
  try {
    const auto reader = platform::shmTableReader(options.name, keyLen, valueLen);
    if (!options.watch) return look(*reader, options, false);
    const platform::Fd signals = platform::signalDescriptor({SIGINT, SIGTERM});
    const bool screen = !options.json && isatty(STDOUT_FILENO);
    for (;;) {
      const int status = look(*reader, options, screen);
      if (!Output::flush()) return status;
      pollfd stop{signals.get(), POLLIN, 0};
      if (poll(&stop, 1, static_cast<int>(std::min(*options.watch, 86400.0) * 1000)) > 0)
        return status;
    }
  } catch (const platform::ErrnoException& e) {
    complain("tarnflow: cannot read the statistics table {}: {}\n", options.name, e.what());
    return 1;
  }
}

int showCounters(const CountersOptions& options) {
  return showTable(options, CollectorStatistics::keyLen, CollectorStatistics::valueLen,
                   CounterLooks());
}

}  // namespace cli
