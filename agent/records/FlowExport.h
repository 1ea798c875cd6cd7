#pragma once
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Ipfix/MessageBuilder.h"
#include "agent/records/LibraryTree.h"

namespace agent {

/// The length that all records have, or the length of each.
using RecordLens = std::span<const uint16_t>;
/// How many records `octets` are.
inline size_t recordCount(RecordLens lens, std::string_view octets) {
  return lens.size() == 1 ? octets.size() / lens[0] : lens.size();
}

/// Sends one tracker's flow records to all its collectors, in messages of one set each, numbered
/// and counted with the options data that goes to the same collector. A collector is sent records
/// once it has the data templates as they are now.
///
/// An exporter none of whose collectors is ready when a message is complete loses it; callers that
/// can keep their records look at `ready` first.
class FlowExport {
 public:
  struct Counters {
    uint64_t messages = 0;     ///< sent, each once per collector
    uint64_t records = 0;      ///< sent, each once per collector
    uint64_t recordsLost = 0;  ///< meant for an exporter that had no ready collector, or too large
  };

  /// The tree's reactors must run as long as this lives.
  FlowExport(std::string trackerName, const LibraryTree& tree)
      : trackerName_(std::move(trackerName)), tree_(tree) {}
  FlowExport(const FlowExport&) = delete;
  FlowExport& operator=(const FlowExport&) = delete;

  /// Takes records, back to back, in the layout of data template `id`. `lens` is the one length, in
  /// octets, that all of them have, or the length of each. Messages that they fill leave before it
  /// returns. A record that does not fit a message is lost and counted.
  void recordsIs(FlowTracking::TemplateId id, RecordLens lens, std::string_view records);
  void recordsIs(FlowTracking::TemplateId id, uint16_t len, std::string_view records) {
    recordsIs(id, RecordLens(&len, 1), records);
  }
  /// Tells the collectors, in an options record about the observation domain, that one packet out
  /// of `rate` is counted (samplingInterval): for those that take the sampling rate from nothing
  /// else. Whenever an exporter's data templates were sent or the rate is another one, all its
  /// ready collectors get the options template and the record. Only a collector that was added
  /// since the last call may get records before it. To be called again and again; 0: tells nothing.
  void samplingIs(uint32_t rate);
  /// Sends all that has gathered, in messages that may not be full.
  void flush();
  /// As `flush`, for the last time: what cannot be sent now is lost and counted.
  void end();
  /// No exporter has yet to tell its collectors of templates that changed.
  bool templatesTold() const;
  /// At least one exporter has a ready collector.
  bool ready() const;
  /// Datagrams that wait in the fullest endpoint of the tracker.
  uint64_t queued() const;
  const Counters& counters() const { return counters_; }

 private:
  /// Messages that may wait for the templates of an exporter to be told, which takes one task.
  static constexpr size_t heldMax = 256;
  /// Messages that gather before they are sent.
  static constexpr size_t batch = 64;

  struct Held {
    FlowTracking::TemplateId id;
    Ptr<FlowTracking::Message> message;
  };
  /// When the sampling was last told: how often templates had been sent by then, and the rate. It
  /// holds the exporter's configuration and not the reactor that sends the templates, which would
  /// go on sending for as long as somebody holds it.
  struct SamplingTold {
    Ptr<HwFlowTracking::ExporterConfig> by;
    uint32_t templatesSent = 0;
    uint32_t rate = 0;
    bool operator==(const SamplingTold&) const = default;
  };
  struct Exporter {
    std::map<FlowTracking::TemplateId, Ptr<FlowTracking::MessageBuilder>> builders;
    std::vector<Held> held;
    SamplingTold sampling;
  };
  struct Route;

  Ptr<const HwFlowTracking::FtConfig> ftConfig() const {
    return tree_.config->ftConfig(trackerName_);
  }
  /// False when the exporter is not complete yet.
  bool route(const Ptr<HwFlowTracking::ExporterConfig>& config, Route& out) const;
  void pack(Exporter& exporter, const HwFlowTracking::FtConfig& tracker, const Route& to,
            FlowTracking::TemplateId id, RecordLens lens, std::string_view records);
  void finish(Exporter& exporter, const Route& to, FlowTracking::TemplateId id);
  void send(Exporter& exporter, const Route& to);
  /// Sends the messages to each ready collector; false: there is none.
  bool transmit(const Route& to, const std::vector<Held>& messages, bool options);
  void count(const Route& to, const Tarn::Ipfix::CollectorInfo& collector,
             const std::vector<Held>& sent, bool options);
  void forgetGone(const HwFlowTracking::FtConfig* tracker);

  std::string trackerName_;
  const LibraryTree& tree_;
  std::map<std::string, Exporter> exporters_;
  Counters counters_;
};

}  // namespace agent
