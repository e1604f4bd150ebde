// The benchmark workload: the demo's image, noise and shapes, and small
// helpers shared by the benchmark programs.
#ifndef SHAPEWIENER_BENCH_WORKLOAD_H
#define SHAPEWIENER_BENCH_WORKLOAD_H

#include <cstdint>
#include <string>
#include <vector>

#include "caller/image.h"
#include "support/module_call.h"

namespace swbench {

struct Workload {
    std::string image_path;
    double sigma = 0.0;
    uint32_t seed = 0;
    swcaller::Image clean;
    swcaller::Image noisy;
    std::vector<double> psd;
    swcaller::ShapeArguments shapes;  // fixed squares of side 2h - 1
};

// The demo's default: the image with coloured noise (3x3 binomial kernel,
// default sigma and seed) and fixed square shapes of maximum scale h.
Workload make_workload(const std::string& image_path, uint32_t h);

// The same noise and shapes for a centred crop of the image.
Workload crop_workload(const Workload& full, uint32_t side, uint32_t h);

// Wiener variance factors of the demo's two passes, tuned for coloured noise.
constexpr double kFirstPassFactor = 6.0;
constexpr double kSecondPassFactor = 2.0;

// Settings of the demo's two passes.
swtest::PassSettings first_pass_settings();
swtest::PassSettings second_pass_settings();

// One timed module call: restores the images, then times `entry` alone (or
// the general path with maximum scale `general_h` when entry is null).
struct TimedCall {
    swcaller::Image output;
    double seconds = 0.0;
};
TimedCall time_call(swtest::ModuleCall& call, swtest::ModuleCall::Entry entry,
                    uint32_t general_h = 0);

// Peak signal-to-noise ratio in dB, peak 1.
double psnr(const swcaller::Image& estimate, const swcaller::Image& reference);

// 64-bit FNV-1a of the output's bytes, for bit-for-bit comparisons.
uint64_t checksum(const swcaller::Image& image);

bool bit_identical(const swcaller::Image& a, const swcaller::Image& b);

double median(std::vector<double> values);

}  // namespace swbench

#endif  // SHAPEWIENER_BENCH_WORKLOAD_H
