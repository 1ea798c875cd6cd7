#pragma once
#include <cstring>
#include <optional>
#include <string>

#include "Ipfix/DataExporter.h"
#include "Ipfix/Ipfix.h"
#include "platform/Pkt.h"

namespace FlowTracking {

/// Fixed-layout writers over a packet at an offset, in network byte order.
class TARN_API HeaderView {
 public:
  const Ptr<Pkt>& pkt() const { return pkt_; }
  uint32_t offset() const { return offset_; }

 protected:
  HeaderView(Ptr<Pkt> pkt, uint32_t offset) : pkt_(std::move(pkt)), offset_(offset) {}
  void u16Is(uint32_t at, uint16_t v) {
    uint8_t* p = pkt_->at(offset_ + at, 2);
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
  }
  void u32Is(uint32_t at, uint32_t v) {
    uint8_t* p = pkt_->at(offset_ + at, 4);
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
  }
  void u64Is(uint32_t at, uint64_t v) {
    uint8_t* p = pkt_->at(offset_ + at, 8);
    p[0] = static_cast<uint8_t>(v >> 56);
    p[1] = static_cast<uint8_t>(v >> 48);
    p[2] = static_cast<uint8_t>(v >> 40);
    p[3] = static_cast<uint8_t>(v >> 32);
    p[4] = static_cast<uint8_t>(v >> 24);
    p[5] = static_cast<uint8_t>(v >> 16);
    p[6] = static_cast<uint8_t>(v >> 8);
    p[7] = static_cast<uint8_t>(v);
  }

 private:
  Ptr<Pkt> pkt_;
  uint32_t offset_;
};

/// Message header, 16 octets (RFC 7011, 3.1).
class TARN_API MessageHeader : public HeaderView {
 public:
  MessageHeader(Ptr<Pkt> pkt, uint32_t offset) : HeaderView(std::move(pkt), offset) {}
  void versionIs(uint16_t v) { u16Is(0, v); }
  void lengthIs(uint16_t v) { u16Is(2, v); }
  void exportTimeIs(uint32_t v) { u32Is(4, v); }
  void seqNoIs(uint32_t v) { u32Is(8, v); }
  void observationDomainIdIs(uint32_t v) { u32Is(12, v); }
  /// What changes from one transmission to the next.
  void exportTimeAndSeqNoIs(uint32_t exportTime, uint32_t seqNo) {
    u64Is(4, uint64_t{exportTime} << 32 | seqNo);
  }
};

/// Set header, 4 octets (RFC 7011, 3.3.2).
class TARN_API SetHeader : public HeaderView {
 public:
  SetHeader(Ptr<Pkt> pkt, uint32_t offset) : HeaderView(std::move(pkt), offset) {}
  void setIdIs(uint16_t v) { u16Is(0, v); }
  void lengthIs(uint16_t v) { u16Is(2, v); }
};

/// Template record header, 4 octets (RFC 7011, 3.4.1).
class TARN_API TemplateHeader : public HeaderView {
 public:
  TemplateHeader(Ptr<Pkt> pkt, uint32_t offset) : HeaderView(std::move(pkt), offset) {}
  void templateIdIs(uint16_t v) { u16Is(0, v); }
  void fieldCountIs(uint16_t v) { u16Is(2, v); }
};

/// Field specifier, 4 octets, or 8 for an enterprise element (RFC 7011, 3.2).
class TARN_API FieldSpecifier : public HeaderView {
 public:
  FieldSpecifier(Ptr<Pkt> pkt, uint32_t offset, bool enterprise)
      : HeaderView(std::move(pkt), offset), enterprise_(enterprise) {}
  /// Sets the enterprise bit too, or clears it.
  void elementIdIs(uint16_t v) {
    u16Is(0, static_cast<uint16_t>((v & 0x7fff) | (enterprise_ ? 0x8000 : 0)));
  }
  void fieldLenIs(uint16_t v) { u16Is(2, v); }
  /// Only for an enterprise element.
  void entNumIs(uint32_t v) {
    TARN_ASSERT(enterprise_);
    u32Is(4, v);
  }
  uint32_t len() const { return enterprise_ ? 8 : 4; }

 private:
  bool enterprise_;
};

/// One finished message: its packet and how many records it holds.
class TARN_API Message final : public Entity {
 public:
  /// `pkt` must not be null and must hold a message header at least.
  explicit Message(Ptr<Pkt> pkt) : msgHdr_(std::move(pkt), 0) {}
  const Ptr<Pkt>& pktHolder_p() const { return msgHdr_.pkt(); }
  MessageHeader& msgHdr() { return msgHdr_; }
  const MessageHeader& msgHdr() const { return msgHdr_; }
  uint32_t recordCount() const { return recordCount_; }
  void recordCountIs(uint32_t v) { recordCount_ = v; }
  /// Octets, header included.
  uint32_t len() const { return pktHolder_p()->bytes(); }
  /// Stamps the export time of this moment and `seqNo` into the header and returns the packet.
  /// Called once per transmission, just before it.
  Ptr<Pkt> pkt(uint32_t seqNo);
  /// The same with an export time that was asked for once for many.
  const Ptr<Pkt>& pkt(uint32_t seqNo, uint32_t exportTime) {
    msgHdr_.exportTimeAndSeqNoIs(exportTime, seqNo);
    return pktHolder_p();
  }

  static void* operator new(size_t len);
  static void operator delete(void* p, size_t len);

  AttrRows attrRows() const override;

 private:
  MessageHeader msgHdr_;
  uint32_t recordCount_ = 0;
};
TARN_API Ptr<Message> messageFactory(Ptr<Pkt> pkt);

/// Lays out one IPFIX message at a time:
///
///   builder->startMsg();
///   while (builder->addSetRecord(templateId, *record)) ...   // 0: does not fit; finalize, go on
///   Ptr<Message> m = builder->finalizeMsg();                  // needs at least one record
///
/// Records of one set id that follow each other share a set; no padding is added. Set ids are 2, 3
/// and those above 255 (RFC 7011, 3.3.2). Misuse is a programming error and asserts.
class TARN_API MessageBuilder final : public Entity {
 public:
  /// `maxSize`: octets of the largest message, and of each packet's block; a message with one
  /// record of one octet takes 21.
  MessageBuilder(uint16_t maxSize, uint32_t observationDomainId)
      : maxSize_(maxSize), observationDomainId_(observationDomainId) {}

  /// Octets of message and set headers in a message of that many sets.
  static constexpr uint32_t calcOverhead(unsigned int sets) {
    return ::Ipfix::IpfixConst::messageHeaderLen() + ::Ipfix::IpfixConst::setHeaderLen() * sets;
  }

  void startMsg();
  /// Adds one record of 1 to 65534 octets (more asserts). Returns its octets, or 0 when it does not
  /// fit in what is left of the message; then nothing changed. An empty record fits nowhere: a
  /// collector could not tell it from none.
  uint32_t addSetRecord(TemplateId templateId, const DataRecord& record) {
    return addSetRecordStr(templateId, record.data());
  }
  uint32_t addSetRecordStr(TemplateId templateId, std::string_view octets) {
    return addSetRecordBytes(this, templateId, octets.data(), octets.size());
  }
  static uint32_t addSetRecordBytes(MessageBuilder* builder, TemplateId templateId,
                                    const char* bytes, size_t len) {
    TARN_ASSERT(builder->pkt());
    TARN_ASSERT(len < UINT16_MAX);
    const auto n = static_cast<uint32_t>(len);
    if (n == 0) [[unlikely]]
      return 0;
    if (!builder->setHdr_ || builder->setId_ != templateId) [[unlikely]] {
      if (!builder->newSet_p(templateId, n)) return 0;
    } else if (builder->offset_ + n > builder->maxSize_) {
      return 0;
    }
    TARN_ASSERT_AS(builder->offset() + n <= builder->pktBufSize(),
                   "builder->offset() + bytes <= builder->pktBufSize()");
    builder->recordCountInc(1);
    std::memcpy(builder->data_ + builder->offset_, bytes, n);
    builder->offsetInc(n);
    builder->setLenInc(static_cast<uint16_t>(n));
    return n;
  }
  /// Adds records, which `it` to `end` point to (null: skipped), as long as they fit, as so many
  /// calls of `addSetRecord` would. Returns the place of the first that does not; `added` grows by
  /// the number of those that did.
  template <class It>
  It addSetRecords(TemplateId templateId, It it, It end, uint64_t& added) {
    while (it != end && !*it) ++it;
    if (it == end || addSetRecord(templateId, **it) == 0) return it;
    ++added;
    // The set is open: what follows is copying, with the counters written once.
    TARN_ASSERT_AS(maxSize() <= pktBufSize(), "builder->offset() + bytes <= builder->pktBufSize()");
    uint8_t* const begin = data_ + offset_;
    uint8_t* const limit = data_ + maxSize_;
    uint8_t* to = begin;
    uint32_t n = 0;
    for (++it; it != end; ++it) {
      if (!*it) continue;
      const std::string_view octets = (*it)->data();
      // An empty record ends the run too: 0 less 1 is larger than any room.
      if (octets.size() - 1 >= static_cast<size_t>(limit - to)) break;
      std::memcpy(to, octets.data(), octets.size());
      to += octets.size();
      ++n;
    }
    recordCountInc(n);
    offsetInc(static_cast<uint32_t>(to - begin));
    setLenInc(static_cast<uint16_t>(to - begin));
    added += n;
    return it;
  }
  /// Closes the message; the builder is then ready for the next. Export time and sequence number
  /// read 0 until `Message::pkt` stamps them.
  Ptr<Message> finalizeMsg();

  uint16_t maxSize() const { return maxSize_; }
  uint32_t observationDomainId() const { return observationDomainId_; }
  /// Null between messages, as `msgHdr` is.
  const Ptr<Pkt>& pkt() const { return pkt_; }
  const Ptr<Message>& msgHdr() const { return msgHdr_; }
  uint32_t pktBufSize() const { return pktBufSize_; }
  /// The open set's header, or nothing.
  const std::optional<SetHeader>& setHdr() const { return setHdr_; }
  uint32_t offset() const { return offset_; }
  void offsetIs(uint32_t v) { offset_ = v; }
  void offsetInc(uint32_t n) { offset_ += n; }
  uint16_t setLen() const { return setLen_; }
  void setLenIs(uint16_t v) { setLen_ = v; }
  void setLenInc(uint16_t n) { setLen_ = static_cast<uint16_t>(setLen_ + n); }
  /// The open set's id, or the last one's; 65535 when there never was one.
  TemplateId setId() const { return setId_; }
  uint32_t recordCount() const { return recordCount_; }
  void recordCountIs(uint32_t v) { recordCount_ = v; }
  void recordCountInc(uint32_t n) { recordCount_ += n; }

  AttrRows attrRows() const override;

 private:
  /// Closes the open set and opens one, if that and a record of `len` octets fit.
  bool newSet_p(TemplateId templateId, uint32_t len);
  void startSet_p(TemplateId templateId);
  void finalizeSet_p();

  uint16_t maxSize_;
  uint32_t observationDomainId_;
  Ptr<Pkt> pkt_;
  uint8_t* data_ = nullptr;  // the packet's, for the copy of each record
  Ptr<Message> msgHdr_;
  uint32_t pktBufSize_ = 0;
  std::optional<SetHeader> setHdr_;
  uint32_t offset_ = 0;
  uint16_t setLen_ = 0;
  TemplateId setId_ = 65535;
  uint32_t recordCount_ = 0;
};
TARN_API Ptr<MessageBuilder> messageBuilderFactory(unsigned short maxSize,
                                                   unsigned int observationDomainId);

}  // namespace FlowTracking
