#pragma once
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "Ipfix/LocalCollectorConfigSm.h"
#include "Tree.h"

/// Somebody who hears of every change in the agent and may answer it with anything.
namespace FlowTracking {

using Answer = std::function<void()>;
template <class E>
struct Ear : E::Watcher {
  Ear(Ptr<const E> e, Answer a) : E::Watcher(std::move(e)), act(std::move(a)) {}
  Answer act;
};
struct OnConfig final : Ear<HwFlowTracking::ExporterConfig> {
  using Ear::Ear;
  void handleVrfName() override { act(); }
  void handleIpfixMtu() override { act(); }
  void handleSrcIpAddr() override { act(); }
  void handleSrcIp6Addr() override { act(); }
  void handleCollectorIpAndPort(const std::string&) override { act(); }
  void handleCollectorIp6AndPort(const std::string&) override { act(); }
  void handleExporter4Ready() override { act(); }
  void handleExporter6Ready() override { act(); }
  void handleRxPort4() override { act(); }
  void handleRxPort6() override { act(); }
};
struct OnInfo final : Ear<ExporterInfo> {
  using Ear::Ear;
  void handleCollInfo(const std::string&) override { act(); }
  void handleUdpPam4() override { act(); }
  void handleUdpPam6() override { act(); }
  void handleRxPort4() override { act(); }
  void handleRxPort6() override { act(); }
};
struct OnCollector final : Ear<CollectorInfo> {
  using Ear::Ear;
  void handleIpfixMsgSeqNo() override { act(); }
  void handleOptTemplateSent() override { act(); }
};
struct OnTracker final : Ear<FlowTrackerInfo> {
  using Ear::Ear;
  void handleExpInfo(const std::string&) override { act(); }
};
struct OnTrackers final : Ear<FlowTrackingInfo> {
  using Ear::Ear;
  void handleFtInfo(const std::string&) override { act(); }
};
struct OnStats final : Ear<Tarn::Ipfix::CollectorStatistics> {
  using Ear::Ear;
  void handleStats(const Tarn::Ipfix::CollectorStatisticsKey&) override { act(); }
};
struct OnUpdate final : Ear<OptionsDataUpdate> {
  using Ear::Ear;
  void handleVersion() override { act(); }
};
struct OnSource final : Ear<OptionsDataSource> {
  using Ear::Ear;
  void handleVersion() override { act(); }
};
struct OnLocal final : Ear<HwFlowTracking::LocalCollectorConfig> {
  using Ear::Ear;
  void handleExpName() override { act(); }
  void handleVrfName() override { act(); }
  void handleSrcIp() override { act(); }
  void handleSrcPort() override { act(); }
  void handleDestIp() override { act(); }
  void handleDestPort() override { act(); }
  void handleDscpValue() override { act(); }
  void handleExporterReady() override { act(); }
};
struct OnPams final : Ear<LocalCollectorPams> {
  using Ear::Ear;
  void handleUdpPam4() override { act(); }
  void handleUdpPam6() override { act(); }
  void handleUdpPam4Ready() override { act(); }
  void handleUdpPam6Ready() override { act(); }
};

/// The ears, and what they are on: that is held, so that no other comes to lie at its place.
class Ears {
 public:
  /// Out of so many changes, on average, one is answered; each ear has its own number.
  using Meddle = std::function<void(size_t often)>;
  explicit Ears(Meddle m) : meddle_(std::move(m)) {}

  template <class On, class E>
  void hear(const Ptr<E>& entity, size_t often) {
    if (!entity || !heard_.insert({entity.get(), entity}).second) return;
    ears_.push_back(std::make_shared<On>(entity, [this, often] { meddle_(often); }));
  }
  /// All that is there by now of the information tree.
  void hearAll(const FlowTrackingInfo& info) {
    for (const auto& [tracker, ft] : info.ftInfo()) {
      hear<OnTracker>(ft, 10);
      for (const auto& [name, exporter] : ft->expInfo()) {
        hear<OnInfo>(exporter, 20);
        for (const auto& [collector, c] : exporter->collInfo()) hear<OnCollector>(c, 100);
      }
    }
  }
  void clear() {
    ears_.clear();
    heard_.clear();
  }

 private:
  Meddle meddle_;
  std::map<const Entity*, Ptr<const Entity>> heard_;
  std::vector<std::shared_ptr<void>> ears_;
};

}  // namespace FlowTracking
