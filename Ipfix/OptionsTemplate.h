#pragma once
#include <map>
#include <string>

#include "Ipfix/Ipfix.h"
#include "platform/HwFlowTracking.h"

namespace FlowTracking {

/// One options template: scope fields, then fields, each in the order of its position. Nobody is
/// notified of a change: who changes a template raises `OptionsTemplateConfig::version` afterwards.
class TARN_API OptionsTemplate final : public Entity {
 public:
  using FieldMap = std::map<uint32_t, HwFlowTracking::FtTemplateEntry>;

  OptionsTemplate(std::string name, TemplateId templateId)
      : name_(std::move(name)), templateId_(templateId) {}
  const std::string& name() const { return name_; }
  TemplateId templateId() const { return templateId_; }
  const FieldMap& scopeField() const { return scopeField_; }
  /// The entry at the position; where there is none, one of length 0.
  HwFlowTracking::FtTemplateEntry scopeField(uint32_t position) const {
    return find(scopeField_, position);
  }
  size_t scopeFields() const { return scopeField_.size(); }
  /// Makes the entry at the position, or puts another element there; returns it to be completed.
  HwFlowTracking::FtTemplateEntry& scopeFieldIs(uint32_t position, ::Ipfix::RecordType elementId) {
    return scopeField_[position] = {position, elementId};
  }
  void scopeFieldDel(uint32_t position) { scopeField_.erase(position); }
  void scopeFieldDelAll() { scopeField_.clear(); }
  const FieldMap& field() const { return field_; }
  HwFlowTracking::FtTemplateEntry field(uint32_t position) const { return find(field_, position); }
  size_t fields() const { return field_.size(); }
  HwFlowTracking::FtTemplateEntry& fieldIs(uint32_t position, ::Ipfix::RecordType elementId) {
    return field_[position] = {position, elementId};
  }
  void fieldDel(uint32_t position) { field_.erase(position); }
  void fieldDelAll() { field_.clear(); }

  AttrRows attrRows() const override;

 private:
  std::string name_;
  TemplateId templateId_;
  FieldMap scopeField_;
  FieldMap field_;
};
TARN_API Ptr<OptionsTemplate> optionsTemplateFactory(const std::string& name,
                                                     TemplateId templateId);

/// The agent's options templates. Exporters rebuild their message when `version` changes, so it is
/// raised once the set is complete.
class TARN_API OptionsTemplateConfig final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<OptionsTemplateConfig> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleVersion() {}
  };
  const std::map<std::string, Ptr<OptionsTemplate>>& templateEntry() const {
    return templateEntry_;
  }
  Ptr<OptionsTemplate> templateEntry(const std::string& name) const {
    return find(templateEntry_, name);
  }
  /// Makes a template without fields, in place of one that has the name.
  Ptr<OptionsTemplate> templateEntryIs(const std::string& name, TemplateId templateId) {
    return templateEntry_[name] = optionsTemplateFactory(name, templateId);
  }
  void templateEntryDel(const std::string& name) { templateEntry_.erase(name); }
  void templateEntryDelAll() { templateEntry_.clear(); }
  uint32_t version() const { return version_; }
  void versionIs(uint32_t v) { set(version_, v, &Watcher::handleVersion); }
  void versionInc(uint32_t n) { versionIs(version_ + n); }

  AttrRows attrRows() const override;

 private:
  std::map<std::string, Ptr<OptionsTemplate>> templateEntry_;
  uint32_t version_ = 0;
};
TARN_API Ptr<OptionsTemplateConfig> optionsTemplateConfigFactory();

}  // namespace FlowTracking
