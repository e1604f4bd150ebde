// Turns an arbitrary byte string into one gateway call and checks it. The
// bytes choose nlhs and nrhs, a valid base call from the test builders
// (tests/support/test_args.h: image up to 12 x 12, H 1..5, N 32 or even up
// to 40, random or square shapes, coverage thresholds) and up to four
// entries of the shared fault table: calls the contract allows, at most one
// violation (applied after them), and arguments replaced by anything or
// shared with another (applied last). Every call must pass check_call: no
// crash or sanitizer report, errors only "shapewiener:*" with a message, a
// rejected call changes no input and sets no output, an accepted call
// changes only the two images and returns an M x K real double matrix, no
// leak; and the outcome is the one the faults predict (the exact identifier
// for one violation). Bytes past the end read as zeros, which choose the
// plain valid call.
#ifndef SHAPEWIENER_FUZZ_FUZZ_CALL_H
#define SHAPEWIENER_FUZZ_FUZZ_CALL_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace swfuzz {

struct Result {
    std::string description;  // how the call was built
    std::string problem;      // "" when every check passed
    std::string error;        // "identifier: message" of a rejected call, "" otherwise
};

Result run_input(const uint8_t* data, size_t size);

}  // namespace swfuzz

#endif  // SHAPEWIENER_FUZZ_FUZZ_CALL_H
