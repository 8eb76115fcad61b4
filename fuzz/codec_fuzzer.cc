// libFuzzer entry point of the codec target (see fuzz_harness.h).
#include <cstddef>
#include <cstdint>

#include "fuzz_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (!pd::fuzz::run_target("codec", data, size)) __builtin_trap();
  return 0;
}
