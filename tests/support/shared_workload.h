// The one reader of the adaptive-shape workloads (tests/data/workloads: two
// real calls with the SHA-256 of their outputs): as a CallPlan (for the
// sixteen host arrays, make_call) and as a plain FilterCall, for the tests
// that pin every path's bits to them and for the benchmarks.
#ifndef SHAPEWIENER_TESTS_SUPPORT_SHARED_WORKLOAD_H
#define SHAPEWIENER_TESTS_SUPPORT_SHARED_WORKLOAD_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "shapewiener/filter.h"
#include "support/test_args.h"

namespace swtest {

class SharedWorkload {
public:
    // Reads `folder` (e.g. tests/data/workloads/adaptive_h9; the image and
    // the spectrum come from its parent). Throws std::runtime_error when a
    // file is missing or short.
    explicit SharedWorkload(const std::string& folder);
    SharedWorkload(const SharedWorkload&) = delete;
    SharedWorkload& operator=(const SharedWorkload&) = delete;

    // The call's contents, images as read (the pilot is the noisy image).
    const CallPlan& plan() const { return plan_; }
    // The call, with freshly copied images (the filter dithers them).
    const sw::FilterCall& fresh_call();
    const std::string& expected_sha256() const { return expected_sha256_; }
    uint32_t pixels() const { return plan_.pixel_count(); }
    uint32_t h() const { return plan_.h; }

private:
    CallPlan plan_;
    std::string expected_sha256_;
    std::unique_ptr<PlainCall> call_;
};

// Lower-case hex SHA-256 of the output's raw bytes (as out.sha256 holds it).
std::string output_sha256(const std::vector<double>& output);

// The folder of the shared workloads: $SHAPEWIENER_WORKLOADS, else
// `fallback` (tests/data/workloads for the tests); empty when the
// folder does not exist.
std::string shared_workload_root(const std::string& fallback);

}  // namespace swtest

#endif  // SHAPEWIENER_TESTS_SUPPORT_SHARED_WORKLOAD_H
