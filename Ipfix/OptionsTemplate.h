#pragma once
#include <map>
#include <string>

#include "Ipfix/Ipfix.h"
#include "platform/HwFlowTracking.h"

namespace FlowTracking {

/// One options template: scope fields, then fields, each in the order of its position.
class TARN_API OptionsTemplate final : public Entity {
 public:
  using FieldMap = std::map<uint32_t, HwFlowTracking::FtTemplateEntry>;

  OptionsTemplate(std::string name, TemplateId templateId)
      : name_(std::move(name)), templateId_(templateId) {}
  const std::string& name() const { return name_; }
  TemplateId templateId() const { return templateId_; }
  const FieldMap& scopeField() const { return scopeField_; }
  const FieldMap& field() const { return field_; }
  size_t scopeFields() const { return scopeField_.size(); }
  size_t fields() const { return field_.size(); }
  /// Makes the entry at the position, or puts another element there; returns it to be completed.
  HwFlowTracking::FtTemplateEntry& scopeFieldIs(uint32_t position, ::Ipfix::RecordType elementId);
  void scopeFieldDel(uint32_t position) { scopeField_.erase(position); }
  void scopeFieldDelAll() { scopeField_.clear(); }
  HwFlowTracking::FtTemplateEntry& fieldIs(uint32_t position, ::Ipfix::RecordType elementId);
  void fieldDel(uint32_t position) { field_.erase(position); }
  void fieldDelAll() { field_.clear(); }

  AttrRows attrRows() const override;

 private:
  std::string name_;
  TemplateId templateId_;
  FieldMap scopeField_;
  FieldMap field_;
};

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
  Ptr<OptionsTemplate> templateEntryIs(const std::string& name, TemplateId templateId);
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

/// Octets of the template's record: its header and field specifiers (RFC 7011, 3.4.2.2).
TARN_API uint32_t getTemplateEntryLength(const OptionsTemplate& optionsTemplate);

}  // namespace FlowTracking
