#pragma once
#include <map>
#include <ostream>
#include <string>

#include "platform/Entity.h"
#include "platform/IpfixTypes.h"

namespace Ipfix {

/// One information element. The default, which lookups that find nothing return, is id 1 without
/// length and name; it reads as false.
class TARN_API ElementId {
 public:
  ElementId() = default;
  ElementId(bool enterpriseIe, RecordType id, uint32_t len, std::string str)
      : enterpriseIe_(enterpriseIe), id_(id), len_(len), str_(std::move(str)) {}

  /// Enterprise-specific: its field specifier carries an enterprise number (RFC 7011, 3.2).
  bool enterpriseIe() const { return enterpriseIe_; }
  RecordType id() const { return id_; }
  /// Octets, as written into templates; 65535: variable length (RFC 7011, 7).
  uint32_t len() const { return len_; }
  const std::string& str() const { return str_; }  ///< the element's name

  explicit operator bool() const { return *this != ElementId(); }
  bool operator==(const ElementId&) const = default;
  std::string stringValue() const;
  static std::optional<ElementId> fromString(std::string_view text);

 private:
  bool enterpriseIe_ = false;
  RecordType id_;
  uint32_t len_ = 0;
  std::string str_;
};
TARN_API std::ostream& operator<<(std::ostream& out, const ElementId& e);

/// IPFIX sequence number: data records sent before the message, modulo 2^32 (RFC 7011, 3.1).
class TARN_API IpfixMsgSeqNo {
 public:
  constexpr IpfixMsgSeqNo() = default;
  constexpr explicit IpfixMsgSeqNo(uint32_t value) : value_(value) {}
  constexpr uint32_t value() const { return value_; }
  constexpr IpfixMsgSeqNo operator+(IpfixMsgSeqNo n) const {
    return IpfixMsgSeqNo(value_ + n.value_);
  }
  bool operator==(const IpfixMsgSeqNo&) const = default;
  std::string stringValue() const { return std::to_string(value_); }
  /// Reads the plain number, and the form with the attribute "value".
  static std::optional<IpfixMsgSeqNo> fromString(std::string_view text);

 private:
  uint32_t value_ = 0;
};
TARN_API std::ostream& operator<<(std::ostream& out, IpfixMsgSeqNo n);

/// The registry of information elements, by number. Filled once at start, then read by all.
class TARN_API ElementIdColl final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<ElementIdColl> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleElementIdColl(RecordType /*id*/) {}
  };
  /// Inserts under the element's `id`, in place of what stands there.
  void elementIdCollIs(const ElementId& e) {
    put(elementIdColl_, e.id(), e, &Watcher::handleElementIdColl);
  }
  /// Removes and returns; the default element when there was none.
  ElementId elementIdCollDel(RecordType id);
  void elementIdCollDelAll() { delAll(elementIdColl_, &Watcher::handleElementIdColl); }
  /// The element, or the default one when absent.
  const ElementId& elementIdColl(RecordType id) const;
  bool elementIdCollHas(RecordType id) const { return elementIdColl_.contains(id); }
  const std::map<RecordType, ElementId>& elementIdColl() const { return elementIdColl_; }

  /// Inserts the 87 elements that the system knows; does not empty the registry first.
  void doInitialize();

  AttrRows attrRows() const override;

 private:
  std::map<RecordType, ElementId> elementIdColl_;
};
TARN_API Ptr<ElementIdColl> elementIdCollFactory();

/// Agent-wide information. The library only reads it.
class TARN_API AgentInfo final : public Entity {
 public:
  class TARN_API Watcher : public EntityWatcher<AgentInfo> {
   public:
    using EntityWatcher::EntityWatcher;
    virtual void handleMultiThreaded() {}
  };
  bool multiThreaded() const { return multiThreaded_; }
  void multiThreadedIs(bool v) { set(multiThreaded_, v, &Watcher::handleMultiThreaded); }
  AttrRows attrRows() const override;

 private:
  bool multiThreaded_ = false;
};
TARN_API Ptr<AgentInfo> agentInfoFactory();

}  // namespace Ipfix
