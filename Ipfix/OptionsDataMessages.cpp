#include "Ipfix/OptionsDataMessages.h"

#include "platform/BlockPool.h"

namespace FlowTracking {
namespace {
thread_local constinit SlabPool<sizeof(MessageWrapper)> wrapperPool;

/// The tables as another exporter of the tracker built them, if they are as they are now.
std::shared_ptr<const BuiltTables> builtByOthers(const OptionsDataContainer& container,
                                                 uint16_t maxSize, uint32_t observationDomainId) {
  const auto& all = container.builtTables_p();
  const auto found = all.find(maxSize);
  auto tables = found == all.end() ? nullptr : found->second.lock();
  if (!tables || tables->observationDomainId != observationDomainId) return nullptr;
  auto made = tables->of.begin();
  for (const auto& [scope, coll] : container.data())
    for (const auto& [name, source] : coll->source()) {
      if (made == tables->of.end() || made->source != source || made->version != source->version())
        return nullptr;
      ++made;
    }
  return made == tables->of.end() ? tables : nullptr;
}
}  // namespace

std::string SetRecord::strep() const {
  return ValueWriter("FlowTracking::SetRecord").attr("setId", setId_).attr("count", count_).str();
}
std::optional<SetRecord> SetRecord::fromString(std::string_view text) {
  SetRecord r;
  const bool ok = ValueReader("FlowTracking::SetRecord", text)
                      .attr("setId", r.setId_)
                      .attr("count", r.count_)
                      .ok();
  return ok ? std::optional(r) : std::nullopt;
}

SetRecord MessageWrapper::setRecord(TemplateId setId) const {
  SetRecord found(setId);
  setRecord_.each([&](const SetRecord& r) {
    if (r.setId() == setId) found = r;
  });
  return found;
}
std::string MessageWrapper::stringValue() const {
  std::string sets;
  setRecord_.each([&](const SetRecord& r) {
    sets += (sets.empty() ? "" : ", ") + std::to_string(r.setId()) + ": " + r.strep();
  });
  return ValueWriter("FlowTracking::MessageWrapper")
      .attr("message", message_ ? message_->len() : 0)
      .raw("setRecord", "{" + sets + "}")
      .str();
}
void* MessageWrapper::operator new(size_t) { return wrapperPool.take(); }
void MessageWrapper::operator delete(void* p, size_t) { wrapperPool.give(p); }
Ptr<MessageWrapper> messageWrapperFactory() { return make<MessageWrapper>(); }

BuilderWrapper::BuilderWrapper(uint16_t maxSize, uint32_t observationDomainId)
    : builder_(messageBuilderFactory(maxSize, observationDomainId)) {}
void BuilderWrapper::startMsg() {
  msgWrap_ = make<MessageWrapper>();
  lastSet_ = nullptr;
  builder_->startMsg();
}
Ptr<MessageWrapper> BuilderWrapper::finalizeMsg() {
  msgWrap_->messageIs(builder_->finalizeMsg());
  return msgWrap_;
}
Ptr<BuilderWrapper> builderWrapperFactory(uint16_t maxSize, uint32_t observationDomainId) {
  return make<BuilderWrapper>(maxSize, observationDomainId);
}

std::shared_ptr<const BuiltTables> builtTables(const OptionsDataContainer& container,
                                               uint16_t maxSize, uint32_t observationDomainId) {
  if (auto tables = builtByOthers(container, maxSize, observationDomainId)) return tables;
  const auto tables = std::make_shared<BuiltTables>();
  tables->observationDomainId = observationDomainId;
  BuilderWrapper builder(maxSize, observationDomainId);
  builder.startMsg();
  for (const auto& [scope, coll] : container.data())
    for (const auto& [name, source] : coll->source()) {
      tables->of.push_back({source, source->version()});
      const auto places = source->places();
      for (auto it = places.begin();;) {
        it = builder.addSetRecords(source->dataSetId(), it, places.end());
        if (it == places.end()) break;
        // An empty message holds every record that there may be.
        TARN_ASSERT_AS(builder.recordCount() > 0, "consumed > 0");
        tables->messages.push_back(builder.finalizeMsg());
        builder.startMsg();
      }
    }
  if (builder.recordCount() > 0) tables->messages.push_back(builder.finalizeMsg());
  container.builtTables_p()[maxSize] = tables;
  return tables;
}

}  // namespace FlowTracking
