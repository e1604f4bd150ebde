// Argument lists for tests: a plain description of one call (CallPlan), the
// sixteen mxArrays built from it (MexCall), and generators of valid calls.
#ifndef SHAPEWIENER_TESTS_SUPPORT_TEST_ARGS_H
#define SHAPEWIENER_TESTS_SUPPORT_TEST_ARGS_H

#include <cstdint>
#include <random>
#include <vector>

#include "mx_host.h"

namespace swtest {

struct CallPlan {
    uint32_t m = 0;
    uint32_t k = 0;
    uint32_t h = 1;
    uint32_t n = 32;
    double h_argument = 0.0;  // argument 12 as passed; h when 0
    std::vector<double> scale_set;                  // L
    std::vector<uint8_t> direction_scale_map;       // m*k*8
    std::vector<std::vector<double>> transforms;    // matrix of length i+1 in cell i
    std::vector<std::vector<uint8_t>> sector_masks; // 8*h*h masks of w*w bytes
    std::vector<double> psd;                        // n*n
    std::vector<double> noisy;                      // m*k
    std::vector<double> pilot;                      // m*k
    std::vector<int32_t> pixels;                    // m*k, 1-based
    std::vector<int32_t> keys;                      // m*k
    double noise_level_factor = 1.0;
    double wiener_variance_factor = 1.0;
    double coverage_threshold = 1e9;

    uint32_t w() const { return 2 * h - 1; }
};

// The sixteen mxArrays of one call, owned.
struct MexCall {
    std::vector<mx_host::ArrayPtr> args;
    std::vector<const mxArray*> prhs;
    mx_host::ArrayPtr out;

    // Calls mexFunction (or `entry`, with the same parameters) with one output.
    void run();
    void run_with(void (*entry)(int, mxArray**, int, const mxArray**));
    // Runs the general path with maximum scale h, bypassing the dispatch.
    void run_general(uint32_t h);

    std::vector<double> output() const;
    // The images as they are now (after the in-place dither); empty when the
    // argument is not a double array.
    std::vector<double> noisy() const;
    std::vector<double> pilot() const;
};

MexCall make_call(const CallPlan& plan);

// Equal sizes and equal bits (NaNs included).
bool same_bits(const std::vector<double>& a, const std::vector<double>& b);

// Orthonormal DCT-II of length len: entry (f, s) at f + s*len.
std::vector<double> dct_matrix(uint32_t len);
// A random orthogonal matrix (Gram-Schmidt of Gaussian columns).
std::vector<double> random_orthogonal(uint32_t len, std::mt19937& rng);
// DCT matrices for every length 1..count.
std::vector<std::vector<double>> dct_bank(uint32_t count);

// Masks where cell (a, b, d) is the square of Chebyshev radius min(a, b) - 1
// around the centre, whatever d: with every scale equal to s the shape is the
// square of side 2s - 1.
std::vector<std::vector<uint8_t>> square_masks(uint32_t h);

// A smooth test image in [0.1, 0.9].
std::vector<double> smooth_image(uint32_t m, uint32_t k);

// Options of random valid calls.
struct RandomOptions {
    uint32_t h = 4;
    uint32_t n = 32;
    uint32_t m = 12;
    uint32_t k = 10;
    bool random_masks = true;         // random sector masks, else square ones
    bool random_matrices = false;     // random orthogonal, else DCT
    bool repeat_pixels = false;       // processing list with repeated pixels
    double coverage_threshold = 1e9;  // never skip
};

// A random contract-valid call: random scales, masks, spectrum and images;
// every entry gets its own key unless its shape equals the previous one.
CallPlan random_plan(uint32_t seed, const RandomOptions& options);

// Fixed-scale call over a whole image with square shapes of side 2h - 1 and
// keys that group pixels by their clipping at the image border (the list is
// ordered so that equal keys are consecutive).
CallPlan square_plan(uint32_t m, uint32_t k, uint32_t h, uint32_t n);

}  // namespace swtest

#endif  // SHAPEWIENER_TESTS_SUPPORT_TEST_ARGS_H
