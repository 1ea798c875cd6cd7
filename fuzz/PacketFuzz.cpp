#include "fuzz/PacketInput.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  agent::flow::checkPacketInput({data, size});
  return 0;
}
