#include "harness.h"

// One fuzzer for each harness: HARNESS names it.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::HARNESS({data, size});
  return 0;
}
