// libFuzzer entry point: every input is decoded into one gateway call, run
// and checked (see fuzz_call.h). Built only with clang; scripts/fuzz.sh
// builds and runs it.
#include <cstdio>
#include <cstdlib>

#include "fuzz_call.h"

extern "C" const char* __asan_default_options() { return "detect_leaks=1"; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const swfuzz::Result r = swfuzz::run_input(data, size);
    if (!r.problem.empty()) {
        std::fprintf(stderr, "shapewiener fuzz: CHECK FAILED: %s\n  %s\n", r.problem.c_str(),
                     r.description.c_str());
        std::abort();
    }
    return 0;
}
