#pragma once
#include "platform/Entity.h"

namespace FlowTracking {

/// The kind of flow tracking; the value is exported in 16 bits as flowTrackingType.
enum class FlowTrackingType : uint16_t { hardware = 0, software = 1 };
inline std::string toText(FlowTrackingType t) {
  return t == FlowTrackingType::software ? "software" : "hardware";
}

/// Who exports the flow records.
class TARN_API Config final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<Config> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleSwExport() {}
  };
  /// The agent exports the flow records itself, in software, whether it or the hardware tracks the
  /// flows. Each tracker then has a local collector (`LocalCollectorConfigSm`).
  bool swExport() const { return swExport_; }
  void swExportIs(bool v) { set(swExport_, v, &Watcher::handleSwExport); }

  AttrRows attrRows() const override;

 private:
  bool swExport_ = false;
};
TARN_API Ptr<Config> configFactory();

/// What the operator asks the library to do.
class TARN_API ConfigReq final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<ConfigReq> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleClearCounters() {}
  };
  /// Setting another value than before clears the collectors' counters once.
  uint32_t clearCounters() const { return clearCounters_; }
  void clearCountersIs(uint32_t v) { set(clearCounters_, v, &Watcher::handleClearCounters); }

  AttrRows attrRows() const override;

 private:
  uint32_t clearCounters_ = 0;
};
TARN_API Ptr<ConfigReq> configReqFactory();

}  // namespace FlowTracking
