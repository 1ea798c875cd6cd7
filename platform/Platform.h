#pragma once
#include <string>

#include "platform/Clock.h"
#include "platform/Log.h"
#include "platform/Pkt.h"
#include "platform/Trace.h"
#include "platform/UdpPam.h"

namespace platform {

/// What the library takes of its host without being handed it. The host installs one before its
/// first factory call and keeps it alive until the last of the library's objects is gone.
class TARN_API Platform {
 public:
  virtual ~Platform() = default;
  /// A new endpoint, out of service. Throws ErrnoException when the host cannot make one.
  virtual Ptr<UdpPam> udpPam(const std::string& name) = 0;
  virtual const Clock& clock() const = 0;
  virtual TraceSink& trace() = 0;
  virtual LogSink& log() = 0;
  /// A fresh packet for a message that is appended to: no data, head room for a message header
  /// and a set header.
  virtual Ptr<Pkt> newPkt();
  /// A fresh packet over a block of `size` octets.
  virtual Ptr<Pkt> newPkt(uint32_t size);

  /// Null takes the platform away again (tests).
  static void install(Platform* platform);
  static Platform& current();  ///< asserts that one is installed
};

}  // namespace platform
