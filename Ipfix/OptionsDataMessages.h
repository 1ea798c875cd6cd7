#pragma once
#include <memory>
#include <string>
#include <vector>

#include "Ipfix/MessageBuilder.h"
#include "Ipfix/OptionsDataExporter.h"

/// Options data as finished messages: what one message holds by template, the builder of such
/// messages, and the full tables of a tracker as messages.
namespace FlowTracking {

/// How many data records of one template a message holds.
class TARN_API SetRecord {
 public:
  explicit SetRecord(TemplateId setId = 0, uint64_t count = 0) : setId_(setId), count_(count) {}
  TemplateId setId() const { return setId_; }
  uint64_t count() const { return count_; }
  void countIs(uint64_t v) { count_ = v; }
  void countInc(uint64_t n) { count_ += n; }
  std::string strep() const;  ///< the "Value(...)" form
  static std::optional<SetRecord> fromString(std::string_view text);
  bool operator==(const SetRecord&) const = default;

 private:
  TemplateId setId_;
  uint64_t count_;
};

/// The set records of one message, by template id. A message holds few templates, mostly one: that
/// one costs no allocation.
class TARN_API SetRecords {
 public:
  /// The template's record, made when there is none; valid until the next one is made.
  SetRecord& operator[](TemplateId setId) {
    if (first_.count() == 0 || first_.setId() == setId) {
      if (first_.count() == 0) first_ = SetRecord(setId);
      return first_;
    }
    for (SetRecord& r : more_)
      if (r.setId() == setId) return r;
    return more_.emplace_back(setId);
  }
  template <class Visit>
  void each(Visit&& visit) const {
    if (first_.count() > 0) visit(first_);
    for (const SetRecord& r : more_) visit(r);
  }
  void add(const SetRecords& o) {
    if (o.first_.setId() == first_.setId() && o.more_.empty()) [[likely]] {
      first_.countInc(o.first_.count());
    } else {
      o.each([this](const SetRecord& r) { (*this)[r.setId()].countInc(r.count()); });
    }
  }

 private:
  SetRecord first_;
  std::vector<SetRecord> more_;
};

/// One finished options data message and what it holds, by template id.
class TARN_API MessageWrapper final : public Counted<MessageWrapper> {
 public:
  /// Null while the message is under construction.
  const Ptr<Message>& message() const { return message_; }
  void messageIs(Ptr<Message> v) { message_ = std::move(v); }
  const SetRecords& setRecord() const { return setRecord_; }
  /// The template's record; count 0 where the message holds none.
  SetRecord setRecord(TemplateId setId) const;
  SetRecord& setRecordIs(TemplateId setId) { return setRecord_[setId]; }
  std::string stringValue() const;  ///< the "Value(...)" form, the message as its octets' number

  static void* operator new(size_t len);
  static void operator delete(void* p, size_t len);

 private:
  Ptr<Message> message_;
  SetRecords setRecord_;
};
TARN_API Ptr<MessageWrapper> messageWrapperFactory();

/// A builder and the wrapper of the message under construction. Order of calls: `startMsg`, then
/// records, then, with one record at least, `finalizeMsg`; and over again.
class TARN_API BuilderWrapper final : public Counted<BuilderWrapper> {
 public:
  /// `maxSize`: octets of the largest message.
  BuilderWrapper(uint16_t maxSize, uint32_t observationDomainId);
  uint16_t maxSize() const { return builder_->maxSize(); }
  uint32_t observationDomainId() const { return builder_->observationDomainId(); }
  const Ptr<MessageBuilder>& builder() const { return builder_; }
  /// Null before the first `startMsg`.
  const Ptr<MessageWrapper>& msgWrap() const { return msgWrap_; }
  void startMsg();
  /// Octets of the record, or 0 when it does not fit.
  uint32_t addSetRecord(TemplateId setId, const DataRecord& record) {
    const uint32_t consumed = builder_->addSetRecord(setId, record);
    if (consumed > 0) countInc_p(setId, 1);
    return consumed;
  }
  /// Records as `MessageBuilder::addSetRecords` adds them.
  template <class It>
  It addSetRecords(TemplateId setId, It it, It end) {
    uint64_t added = 0;
    it = builder_->addSetRecords(setId, it, end, added);
    if (added > 0) countInc_p(setId, added);
    return it;
  }
  Ptr<MessageWrapper> finalizeMsg();
  /// Records in the message under construction.
  uint32_t recordCount() const { return builder_->recordCount(); }

 private:
  void countInc_p(TemplateId setId, uint64_t n) {
    if (!lastSet_ || lastSet_->setId() != setId) lastSet_ = &msgWrap_->setRecordIs(setId);
    lastSet_->countInc(n);
  }

  Ptr<MessageBuilder> builder_;
  Ptr<MessageWrapper> msgWrap_;
  SetRecord* lastSet_ = nullptr;  // where the last record counted: a table's follow each other
};
TARN_API Ptr<BuilderWrapper> builderWrapperFactory(uint16_t maxSize, uint32_t observationDomainId);

/// The full tables as finished messages, and what they were made of.
struct TARN_API BuiltTables {
  struct Made {
    Ptr<const OptionsDataSource> source;
    uint32_t version;
  };
  std::vector<Made> of;
  uint32_t observationDomainId = 0;
  std::vector<Ptr<MessageWrapper>> messages;
};
/// The tables of `container` as they are now, in messages of up to `maxSize` octets. Exporters that
/// ask for the same share them as long as one of them keeps them. A record that fits into no
/// message, or is empty, asserts "consumed > 0".
TARN_API std::shared_ptr<const BuiltTables> builtTables(const OptionsDataContainer& container,
                                                        uint16_t maxSize,
                                                        uint32_t observationDomainId);

}  // namespace FlowTracking
