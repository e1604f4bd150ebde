// The adaptive-shape workloads of the shared workload folder: the sixteen
// module arguments rebuilt from their raw files, and the SHA-256 of an
// output as the workload's out.sha256 states it.
#ifndef SHAPEWIENER_BENCH_ADAPTIVE_WORKLOAD_H
#define SHAPEWIENER_BENCH_ADAPTIVE_WORKLOAD_H

#include <cstdint>
#include <string>
#include <vector>

#include "mx_host.h"

namespace swbench {

class AdaptiveWorkload {
public:
    // `folder` is one workload (for example .../workloads/adaptive_h9); the
    // image and the spectrum are read from its parent folder.
    explicit AdaptiveWorkload(const std::string& folder);

    const mxArray* const* prhs() const { return prhs_.data(); }
    int nrhs() const { return static_cast<int>(prhs_.size()); }
    uint32_t h() const { return h_; }
    const std::string& expected_sha256() const { return expected_sha256_; }

    // Copies the images back (the module dithers them in place).
    void restore_images();

    // Restores the images, calls `entry` (mexFunction's parameters) and
    // returns the output matrix.
    std::vector<double> run(void (*entry)(int, mxArray**, int, const mxArray**));

private:
    std::vector<mx_host::ArrayPtr> args_;
    std::vector<const mxArray*> prhs_;
    std::vector<double> noisy_;
    uint32_t h_ = 0;
    std::string expected_sha256_;
};

// Lower-case hex SHA-256 of the doubles' raw bytes.
std::string sha256_hex(const std::vector<double>& values);

}  // namespace swbench

#endif  // SHAPEWIENER_BENCH_ADAPTIVE_WORKLOAD_H
