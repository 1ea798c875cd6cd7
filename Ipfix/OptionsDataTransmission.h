#pragma once
#include <memory>
#include <optional>
#include <vector>

#include "Ipfix/OptionsDataCollector.h"

/// Full tables on their way to collectors, and how much of them may wait in an endpoint.
namespace FlowTracking {

/// What an options data exporter lets wait in an endpoint before it hands over more.
///
/// A message is stamped with its export time when it is handed over. Under a rate limit no more is
/// handed over than leaves within a second, or one message to each collector where that is more,
/// so that the time is right to about a second; templates and flow records that wait in the same
/// endpoint come on top. Without a limit the bound is there for templates and changes, which shall
/// not wait behind a table.
struct TARN_API Backlog {
  explicit Backlog(const HwFlowTracking::ExporterConfig& config);
  bool limited;  ///< there is a rate limit
  uint64_t max;  ///< messages
  Seconds poll;  ///< how soon to look again at an endpoint in which so many wait
  bool full(const Ptr<UdpPam>& pam) const { return pam && pam->counters().queued >= max; }
};

/// Each collector has one transmission at most. Each keeps the tables as they were when it began.
class TARN_API OptionsDataTransmissions {
 public:
  /// From the beginning, also for a collector that is in the middle of the tables.
  void begin(const Ptr<Collector>& collector, std::shared_ptr<const BuiltTables> tables,
             bool periodic);
  size_t size() const { return transmission_.size(); }
  bool empty() const { return transmission_.empty(); }
  /// Some belong to the periodic transmission.
  bool periodic() const;
  /// Hands messages to the endpoints, in turn a piece to each collector, and counts them, as long
  /// as there is room and others need not wait long. Returns how soon to call again, or nothing:
  /// all is handed over. A collector that cannot be reached is left out: it gets all of the tables
  /// when it can be. The statistics' watchers may do anything but call this object.
  std::optional<Seconds> handOver(const ExporterInfo& expInfo,
                                  const HwFlowTracking::ExporterConfig& hwExpConfig);

 private:
  struct Transmission {
    Ptr<Collector> collector;
    std::shared_ptr<const BuiltTables> tables;
    bool periodic;
    size_t next = 0;  // message
  };
  std::vector<Transmission> transmission_;
};

}  // namespace FlowTracking
