#pragma once
#include <functional>
#include <string>

#include "Ipfix/FlowTrackerInfoSm.h"
#include "Ipfix/FlowTrackerTemplateSm.h"
#include "Ipfix/OptionsDataManagerSm.h"
#include "agent/network/Network.h"
#include "agent/settings/Settings.h"

namespace agent {

/// The library's entities and reactors of one kind of tracking; null where there is no tracker.
struct LibraryTree {
  Ptr<HwFlowTracking::Config> config;
  Ptr<HwFlowTracking::Status> status;
  Ptr<FlowTracking::FlowTrackingInfo> info;
  Ptr<FlowTracking::FlowTrackingInfoSm> infoSm;
  Ptr<FlowTracking::TemplateSm> templateSm;
  Ptr<FlowTracking::OptionsDataManagerSm> optionsDataSm;

  // Of one exporter; null where there is none.
  Ptr<HwFlowTracking::ExporterConfig> exporterConfig(const std::string& tracker,
                                                     const std::string& exporter) const {
    const auto found = config ? config->ftConfig(tracker) : nullptr;
    return found ? found->expConfig(exporter) : nullptr;
  }
  Ptr<FlowTracking::ExporterInfo> exporterInfo(const std::string& tracker,
                                               const std::string& exporter) const {
    const auto found = info ? info->ftInfo(tracker) : nullptr;
    return found ? found->expInfo(exporter) : nullptr;
  }
};

/// The running agent as those see it who tell of what it exports.
struct ExportsView {
  std::function<const Settings&()> settings;
  std::function<LibraryTree(FlowTracking::FlowTrackingType)> tree;
  /// Why a host cannot be looked up; empty: it can, or it is not known yet.
  std::function<std::string(const std::string& host)> hostProblem;
  Ptr<const Ipfix::ElementIdColl> elements;
  Ptr<const NetworkList> networks;
};

}  // namespace agent
