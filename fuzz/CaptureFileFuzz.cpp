#include "fuzz/CaptureFileInput.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  agent::flow::checkCaptureInput({data, size});
  return 0;
}
