#pragma once
#include <cstddef>
#include <functional>
#include <span>

#include "platform/Entity.h"

namespace platform {

/// A keyed table of fixed-size records that other processes read while this one writes. One
/// writer; readers see whole records or retry. Keys and values are plain octets without pointers
/// and without indeterminate padding: equal keys have equal octets.
class TARN_API SharedTable : public Entity {
 public:
  using Octets = std::span<const std::byte>;

  virtual size_t keyLen() const = 0;
  virtual size_t valueLen() const = 0;
  virtual size_t capacity() const = 0;  ///< records that fit
  virtual size_t size() const = 0;
  /// Inserts or replaces. False: the table is full; nothing changed.
  virtual bool put(Octets key, Octets value) = 0;
  /// Copies the value to `value`, of valueLen() octets. False: no such key.
  virtual bool get(Octets key, std::span<std::byte> value) const = 0;
  /// False: no such key.
  virtual bool del(Octets key) = 0;
  virtual void delAll() = 0;
  /// Visits every record, in no given order. The visitor must not change the table.
  virtual void each(const std::function<void(Octets key, Octets value)>& visit) const = 0;
};

}  // namespace platform
