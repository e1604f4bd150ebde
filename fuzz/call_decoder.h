// Turns an arbitrary byte string into one gateway call (nlhs, nrhs and the
// argument arrays), runs it through mexFunction and checks what every call
// must satisfy, valid or not:
// - it returns normally or raises a host error whose identifier starts with
//   "shapewiener:" or "MATLAB:nomem"; it never crashes;
// - a call that raises an error changes none of its arguments, and a call
//   that succeeds changes none but the noisy and the pilot image;
// - a call that succeeds leaves an M x K real double matrix in plhs[0] and
//   nothing in the other output slots;
// - a call built to honour the argument contract succeeds, and a call built
//   with a violation that the gateway can detect raises an error;
// - every array is released afterwards.
//
// Most byte strings decode into a call that is valid but for a few chosen
// faults, so that calls get deep into the validation and often pass it. A
// byte string that runs out decodes as if padded with zeros, and zero bytes
// choose the plain valid variants.
#ifndef SHAPEWIENER_FUZZ_CALL_DECODER_H
#define SHAPEWIENER_FUZZ_CALL_DECODER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "mx_host.h"

namespace swfuzz {

// What the call is expected to do.
enum class Expect {
    kSuccess,  // honours the contract
    kEither,   // breaks a rule that cannot be checked, or may be accepted
    kError,    // breaks a rule that the gateway checks
};

struct DecodedCall {
    int nlhs = 1;
    int nrhs = 16;
    std::vector<mx_host::ArrayPtr> owned;  // every array built for the call
    std::vector<const mxArray*> prhs;      // nrhs entries; positions may share an array
    Expect expect = Expect::kSuccess;
    std::vector<std::string> log;  // how the call was built, for reports
};

DecodedCall decode_call(const uint8_t* data, size_t size);

// The decoded call as readable text: the build log and one line per argument.
std::string describe(const DecodedCall& call);

enum class Outcome { kSucceeded, kRejected };

struct RunResult {
    Outcome outcome = Outcome::kSucceeded;
    std::string identifier;  // of the error, when rejected
};

// Decodes, runs and checks one input. A violated check prints a report to
// stderr and aborts, so that every driver sees it as a crash.
RunResult run_one(const uint8_t* data, size_t size);

}  // namespace swfuzz

#endif  // SHAPEWIENER_FUZZ_CALL_DECODER_H
