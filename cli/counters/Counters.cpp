#include "cli/counters/Counters.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "cli/text/Output.h"
#include "cli/text/Quoted.h"
#include "cli/text/Table.h"
#include "cli/text/Text.h"
#include "platform/UdpPam.h"
#include "platform/linux/SignalDescriptor.h"

namespace cli {
namespace {

using Json = nlohmann::ordered_json;
using FlowTracking::EndpointRecord;
using Tarn::Ipfix::CollectorSetStatisticsEntry;
using Tarn::Ipfix::CollectorStatistics;
using Tarn::Ipfix::CollectorStatisticsEntry;
using Tarn::Ipfix::SetIndex;

/// What is counted of each collector.
struct Total {
  const char* name;
  uint64_t (CollectorStatisticsEntry::*count)() const;
};
constexpr std::array<Total, 3> totals = {
    {{"messages", &CollectorStatisticsEntry::exportedMessageTotalCount},
     {"records", &CollectorStatisticsEntry::exportedFlowRecordTotalCount},
     {"octets", &CollectorStatisticsEntry::exportedOctetTotalCount}}};

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

Counters countersFrom(Counters::Table table, double now) {
  Counters c;
  c.table = std::move(table);
  c.now = now;
  c.entries = recordsOf<CollectorStatisticsEntry>(c.table);
  std::ranges::sort(c.entries, {}, &CollectorStatisticsEntry::key);
  c.table.unreadable += c.table.records.size() - c.entries.size();
  c.table.records.clear();
  return c;
}

CounterTables::CounterTables(const std::string& name)
    : collectors_(platform::shmTableReader(name, CollectorStatistics::keyLen,
                                           CollectorStatistics::valueLen)),
      endpoints_(platform::shmTableReader(name + std::string(FlowTracking::endpointSuffix),
                                          sizeof(FlowTracking::EndpointKey),
                                          sizeof(EndpointRecord))),
      flows_(platform::shmTableReader(name + std::string(FlowTracking::flowPathSuffix),
                                      sizeof(FlowTracking::FlowPathKey),
                                      sizeof(FlowTracking::FlowPathRecord))) {}

Counters CounterTables::counters() {
  Counters c = countersFrom(collectors_->snapshot(), utcNow());
  c.endpoints = recordsOf<EndpointRecord>(endpoints_->snapshot());
  std::ranges::sort(c.endpoints, {}, &EndpointRecord::key);
  return c;
}

std::string causeName(uint64_t error) {
  const char* name = error == 0 ? "other" : strerrorname_np(static_cast<int>(error));
  return name ? name : fmt::to_string(error);
}

/// Which exporters lost datagrams on this host, and why; empty when none did.
std::string refusedText(const std::vector<EndpointRecord>& endpoints) {
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

std::string stateNote(const Counters::Table& table, const std::string& name) {
  switch (table.state) {
    case Counters::State::live:
      break;
    case Counters::State::dead:
      return fmt::format("{} was written by pid {}, which has died: last values", name,
                         table.writerPid);
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
  if (std::string note = stateNote(c.table, name); !note.empty()) return note;
  const size_t n = c.table.unreadable;
  if (n > 0) return fmt::format("{} {} could not be read", n, n == 1 ? "entry" : "entries");
  if (!c.entries.empty()) return "";
  return fmt::format("the agent (pid {}) has sent nothing to any collector yet", c.table.writerPid);
}

RatesByKey countersRates(const Counters& before, const Counters& now) {
  RatesByKey rates;
  const double seconds = now.now - before.now;
  if (before.table.generation != now.table.generation || seconds <= 0) return rates;
  std::map<Tarn::Ipfix::CollectorStatisticsKey, const CollectorStatisticsEntry*> old;
  for (const auto& e : before.entries) old[e.key()] = &e;
  for (const auto& e : now.entries) {
    const auto it = old.find(e.key());
    if (it == old.end() || it->second->lastClearedTime() != e.lastClearedTime()) continue;
    for (size_t i = 0; i < totals.size(); ++i)
      rates[e.key()][i] =
          static_cast<double>((e.*totals[i].count)() - (it->second->*totals[i].count)()) / seconds;
  }
  return rates;
}

std::string countersText(const Counters& c, const RatesByKey* rates) {
  std::string out = fmt::format("agent pid {}, counting since {}\n", c.table.writerPid,
                                utcText(c.table.startTime));
  std::vector<bool> right(3, false);
  right.resize(rates ? 13 : 10, true);
  Table table(right);
  Table::Row head = {"tracker", "exporter", "collector"};
  for (const Total& t : totals) head.emplace_back(t.name);
  if (rates)
    for (const Total& t : totals) head.push_back(fmt::format("{}/s", t.name));
  head.insert(head.end(), {"last message", "template", "data", "options"});
  table.add(head);
  Table sets({false, false, false, false, true, true});
  sets.add({"tracker", "exporter", "collector", "set", "records", "templates"});
  for (const auto& e : c.entries) {
    const Table::Row who = {nameText(e.key().tracker()), nameText(e.key().exporter()),
                            e.key().collector().stringValue()};
    Table::Row row = who;
    for (const Total& t : totals) row.push_back(fmt::to_string((e.*t.count)()));
    if (rates) {
      const auto it = rates->find(e.key());
      for (size_t i = 0; i < totals.size(); ++i)
        row.push_back(it == rates->end() ? "-" : fmt::format("{:.1f}", it->second[i]));
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
  const Counters::Table& table = c.table;
  const bool written = table.state == Counters::State::live || table.state == Counters::State::dead;
  Json out = {{"name", name},
              {"state", stateName(table.state)},
              {"time", c.now},
              {"writerPid", written ? Json(table.writerPid) : Json(nullptr)},
              {"startTime", written ? Json(table.startTime) : Json(nullptr)},
              {"generation", table.generation},
              {"unreadable", table.unreadable},
              {"entries", Json::array()}};
  const auto at = [](double t) { return t == 0 ? Json(nullptr) : Json(t); };
  for (const auto& e : c.entries) {
    Json one = {{"tracker", e.key().tracker()},
                {"exporter", e.key().exporter()},
                {"collectorAddress", e.key().collector().addr().stringValue()},
                {"collectorPort", e.key().collector().port()}};
    for (const Total& t : totals) one[t.name] = (e.*t.count)();
    one["lastMessageTime"] = at(e.lastSentTime());
    one["lastTemplateTime"] = at(e.lastTemplateSentTime());
    one["lastDataTime"] = at(e.lastDataRecordSentTime());
    one["lastOptionsDataTime"] = at(e.lastOptionsDataSentTime());
    one["lastClearedTime"] = at(e.lastClearedTime());
    one["sets"] = Json::array();
    for (const auto& s : setsOf(e))
      one["sets"].push_back({{"id", s.setId()},
                             {"records", s.exportedFlowRecordCount()},
                             {"templates", s.exportedTemplateCount()}});
    if (rates) {
      Json& perSecond = one["perSecond"] = nullptr;
      if (const auto it = rates->find(e.key()); it != rates->end())
        for (size_t i = 0; i < totals.size(); ++i) perSecond[totals[i].name] = it->second[i];
    }
    out["entries"].push_back(std::move(one));
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

int showTables(const CountersOptions& options, const std::function<Look(CounterTables&)>& look) {
  try {
    CounterTables tables(options.name);
    const platform::Fd signals =
        options.watch ? platform::signalDescriptor({SIGINT, SIGTERM}) : platform::Fd();
    const bool screen = options.watch && !options.json && isatty(STDOUT_FILENO);
    for (;;) {
      const Look shown = look(tables);
      if (screen) Output::write("\x1b[H\x1b[2J");
      Output::flush();  // a note on the same terminal follows what was written before it
      if (!options.json && !shown.note.empty()) complain("tarnflow: {}\n", shown.note);
      Output::write(shown.text);
      if (!Output::flush() || !options.watch) return shown.status;
      pollfd stop{signals.get(), POLLIN, 0};
      if (poll(&stop, 1, static_cast<int>(std::min(*options.watch, 86400.0) * 1000)) > 0)
        return shown.status;
    }
  } catch (const platform::ErrnoException& e) {
    complain("tarnflow: cannot read the statistics table {}\n", e.what());
    return 1;
  }
}

int showCounters(const CountersOptions& options) {
  const auto unwanted = [&](const auto& key) {
    return (!options.tracker.empty() && key.tracker() != options.tracker) ||
           (!options.exporter.empty() && key.exporter() != options.exporter);
  };
  std::optional<Counters> before;
  return showTables(options, [&](CounterTables& tables) {
    Counters c = tables.counters();
    Look look{.text = {}, .note = countersNote(c, options.name), .status = 1};
    const size_t all = c.entries.size();
    std::erase_if(c.entries, [&](const auto& e) { return unwanted(e.key()); });
    std::erase_if(c.endpoints, [&](const auto& e) { return unwanted(e.key); });
    if (look.note.empty() && c.entries.empty() && all > 0)
      look.note =
          "nothing was sent by what was asked for; without --tracker and --exporter there is "
          "more";
    const RatesByKey rates = before ? countersRates(*before, c) : RatesByKey();
    const RatesByKey* shownRates = options.watch ? &rates : nullptr;
    const bool live = c.table.state == Counters::State::live;
    if (options.json) {
      look.text = jsonLine(countersJson(c, options.name, shownRates));
    } else if (live || c.table.state == Counters::State::dead) {
      look.text = countersText(c, shownRates);
    }
    if (live && !c.entries.empty()) look.status = 0;
    before = std::move(c);
    return look;
  });
}

}  // namespace cli
