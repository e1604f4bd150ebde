// libFuzzer entry point: every input is decoded into one gateway call, run
// and checked (see call_decoder.h). Built only with clang; see
// scripts/fuzz.sh for how to build and run it.
#include <cstddef>
#include <cstdint>

#include "call_decoder.h"

extern "C" const char* __asan_default_options() { return "detect_leaks=1"; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    swfuzz::run_one(data, size);
    return 0;
}
