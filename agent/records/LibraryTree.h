#pragma once
#include <string>

#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackerInfoSm.h"
#include "Ipfix/FlowTrackerTemplateSm.h"
#include "Ipfix/OptionsDataManagerSm.h"
#include "platform/HwFlowTracking.h"

namespace agent {
using namespace platform;

/// The library's entities and reactors of one kind of tracking. Without a tracker of that kind
/// there are no reactors; where there never was one, everything is null.
///
/// Options data waits for templates, and both refer to the information: the members are released
/// from the last to the first.
struct LibraryTree {
  Ptr<HwFlowTracking::Config> config = {};
  Ptr<HwFlowTracking::Status> status = {};
  Ptr<Tarn::Ipfix::CollectorStatistics> statistics = {};
  Ptr<FlowTracking::FlowTrackingInfo> info = {};
  Ptr<FlowTracking::FlowTrackingInfoSm> infoSm = {};
  Ptr<FlowTracking::TemplateSm> templateSm = {};
  Ptr<FlowTracking::OptionsDataManagerSm> optionsDataSm = {};

  void releaseReactors() {
    optionsDataSm = nullptr;
    templateSm = nullptr;
    infoSm = nullptr;
    info = nullptr;
  }

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

}  // namespace agent
