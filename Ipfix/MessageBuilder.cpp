#include "Ipfix/MessageBuilder.h"

#include "platform/BlockPool.h"
#include "platform/Platform.h"

namespace FlowTracking {

using ::Ipfix::IpfixConst;

namespace {
thread_local constinit SlabPool<sizeof(Message)> messagePool;
}

void* Message::operator new(size_t) { return messagePool.take(); }
void Message::operator delete(void* p, size_t) { messagePool.give(p); }

Ptr<Pkt> Message::pkt(uint32_t seqNo) { return pkt(seqNo, Platform::current().clock().nowU32()); }
Ptr<Message> messageFactory(Ptr<Pkt> pkt) { return make<Message>(std::move(pkt)); }
AttrRows Message::attrRows() const {
  static constexpr AttrRow rows[] = {
      row<&Message::recordCount, &Message::recordCountIs>("recordCount"),
      row<&Message::len>("len"),
  };
  return rows;
}

void MessageBuilder::startMsg() {
  TARN_ASSERT(!pkt());
  TARN_ASSERT(offset() == 0);
  pkt_ = Platform::current().newPkt(maxSize_);
  pktBufSize_ = pkt_->bufSize();
  pkt_->dataWholeIs();
  data_ = pktBufSize_ > 0 ? pkt_->at(0, pktBufSize_) : nullptr;
  msgHdr_ = messageFactory(pkt_);
  offsetIs(IpfixConst::messageHeaderLen());  // written by finalizeMsg
}

bool MessageBuilder::newSet_p(TemplateId templateId, uint32_t len) {
  if (offset_ + IpfixConst::setHeaderLen() + len > maxSize_) return false;
  if (setHdr_) finalizeSet_p();
  startSet_p(templateId);
  return true;
}

void MessageBuilder::startSet_p(TemplateId templateId) {
  TARN_ASSERT(pkt());
  TARN_ASSERT(!setHdr());
  setHdr_.emplace(pkt_, offset_);
  setHdr_->setIdIs(templateId);
  setId_ = templateId;
  setLenIs(IpfixConst::setHeaderLen());
  offsetInc(IpfixConst::setHeaderLen());
}
void MessageBuilder::finalizeSet_p() {
  TARN_ASSERT(pkt());
  TARN_ASSERT(setHdr());
  setHdr_->lengthIs(setLen_);
  setLenIs(0);
  setHdr_.reset();
}

Ptr<Message> MessageBuilder::finalizeMsg() {
  if (setHdr_) finalizeSet_p();
  TARN_ASSERT(pkt());
  TARN_ASSERT(offset() > IpfixConst::messageHeaderLen());
  const uint32_t msgLen = offset();
  offsetIs(0);
  MessageHeader& hdr = msgHdr_->msgHdr();
  hdr.versionIs(IpfixConst::version());
  hdr.lengthIs(static_cast<uint16_t>(msgLen));
  hdr.exportTimeIs(0);
  hdr.seqNoIs(0);
  hdr.observationDomainIdIs(observationDomainId_);
  msgHdr_->recordCountIs(recordCount_);
  recordCountIs(0);
  Ptr<Message> message = std::move(msgHdr_);
  const Ptr<Pkt> _pkt = std::move(pkt_);
  TARN_ASSERT(msgLen <= pktBufSize());
  _pkt->dataTailDec(_pkt->bytes() - msgLen);
  TARN_ASSERT(_pkt->bytes() == msgLen);
  return message;
}

AttrRows MessageBuilder::attrRows() const {
  using B = MessageBuilder;
  static constexpr AttrRow rows[] = {
      row<&B::maxSize>("maxSize"),
      row<&B::observationDomainId>("observationDomainId"),
      childRow<&B::msgHdr_>("msgHdr"),
      row<&B::pktBufSize>("pktBufSize"),
      row<&B::offset, &B::offsetIs>("offset"),
      row<&B::setLen, &B::setLenIs>("setLen"),
      row<&B::setId>("setId"),
      row<&B::recordCount, &B::recordCountIs>("recordCount"),
  };
  return rows;
}
Ptr<MessageBuilder> messageBuilderFactory(unsigned short maxSize,
                                          unsigned int observationDomainId) {
  return make<MessageBuilder>(maxSize, observationDomainId);
}

}  // namespace FlowTracking
