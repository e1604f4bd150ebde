// Argument lists for tests and fuzz drivers: a plain description of one call
// (CallPlan), the sixteen mxArrays built from it (MexCall), generators of
// valid calls, the one table of ways to break or bend a call (faults()), and
// the check that every call must pass (check_call).
//
// Values are generated without libm wherever possible (integer arithmetic,
// + - * / and sqrt, all exact under IEEE rounding), so that the golden
// checksums of test_golden.cpp do not depend on the maths library; only the
// DCT matrices use std::cos (glibc, fixed on Debian 12).
#ifndef SHAPEWIENER_TESTS_SUPPORT_TEST_ARGS_H
#define SHAPEWIENER_TESTS_SUPPORT_TEST_ARGS_H

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "mx_host.h"
#include "shapewiener/filter.h"

// Defined in builds with AddressSanitizer (gcc and clang spell it differently).
#if defined(__SANITIZE_ADDRESS__)
#define SWTEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SWTEST_ASAN 1
#endif
#endif

namespace swtest {

struct CallPlan {
    uint32_t m = 0;
    uint32_t k = 0;
    uint32_t h = 1;
    uint32_t n = 32;
    double h_argument = 0.0;                         // argument 13 as passed; h when 0
    std::vector<double> scale_set;                   // L
    std::vector<uint8_t> direction_scale_map;        // m*k*8
    std::vector<std::vector<double>> transforms;     // matrix of length i+1 in cell i
    std::vector<std::vector<uint8_t>> sector_masks;  // 8*h*h masks of w*w bytes
    std::vector<double> psd;                         // n*n
    std::vector<double> noisy;                       // m*k
    std::vector<double> pilot;                       // m*k
    std::vector<int32_t> pixels;                     // m*k, 1-based
    std::vector<int32_t> keys;                       // m*k
    double noise_level_factor = 1.0;
    double wiener_variance_factor = 1.0;
    double coverage_threshold = 1e9;

    uint32_t w() const { return 2 * h - 1; }
    uint32_t pixel_count() const { return m * k; }
};

// The sixteen mxArrays of one call, owned (args), and the argument list
// passed (prhs: positions may share an array, and extra inputs may follow).
struct MexCall {
    std::vector<mx_host::ArrayPtr> args;
    std::vector<const mxArray*> prhs;
    mx_host::ArrayPtr out;

    // Calls mexFunction (or `entry`, with the same parameters) with one output.
    void run();
    void run_with(void (*entry)(int, mxArray**, int, const mxArray**));
    // Runs the general path with maximum scale h, bypassing check and dispatch.
    void run_general(uint32_t h);
    // Puts `a` (now owned) at position p.
    mxArray* replace(int p, mxArray* a);
    // A new array owned by the call, not placed anywhere.
    mxArray* own(mxArray* a);

    std::vector<double> output() const;
    // The images as they are now (after the in-place dither).
    std::vector<double> noisy() const;
    std::vector<double> pilot() const;
};

MexCall make_call(const CallPlan& plan);

// The same call as a plain FilterCall over the plan's arrays. The filter
// dithers the images in place: fresh() copies them from the plan again into
// `noisy` and `pilot`, which the call reads.
struct PlainCall {
    explicit PlainCall(const CallPlan& p);
    PlainCall(const PlainCall&) = delete;
    PlainCall& operator=(const PlainCall&) = delete;
    const sw::FilterCall& fresh();

    CallPlan plan;
    std::vector<double> noisy, pilot;
    std::vector<int32_t> list;  // pixels, then keys
    std::vector<sw::ArrayView<double>> transforms;
    std::vector<sw::ArrayView<uint8_t>> masks;
    sw::FilterCall call;
};

// Equal sizes and equal bits (NaNs included).
bool same_bits(const std::vector<double>& a, const std::vector<double>& b);

// Exact draws: 24 random bits as a double in [0, 1).
double unit(std::mt19937& rng);

// Orthonormal DCT-II of length len: entry (f, s) at f + s*len.
std::vector<double> dct_matrix(uint32_t len);
// DCT matrices for every length 1..count.
std::vector<std::vector<double>> dct_bank(uint32_t count);
// A random orthogonal matrix (Gram-Schmidt of random rows; no libm).
std::vector<double> random_orthogonal(uint32_t len, std::mt19937& rng);

// Masks where cell (a, b, d) is the square of Chebyshev radius min(a, b) - 1
// around the centre, whatever d: with every scale equal to s the shape is the
// square of side 2s - 1.
std::vector<std::vector<uint8_t>> square_masks(uint32_t h);

// A piecewise smooth test image in [0.1, 0.9] with a step between its halves.
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

// The options in one expression; flags from these.
constexpr unsigned kRandomMatrices = 1, kSquareMasks = 2, kRepeatPixels = 4;
RandomOptions random_options(uint32_t h, uint32_t n, uint32_t m, uint32_t k, unsigned flags = 0,
                             double coverage_threshold = 1e9);

// A random contract-valid call: random scales, masks, spectrum, images (a
// few exact zeros) and factors; every entry its own key unless it repeats
// the previous pixel.
CallPlan random_plan(uint32_t seed, const RandomOptions& options);

// Fixed-scale call over a whole image with square shapes of side 2h - 1 and
// keys that group pixels by their clipping at the image border (the list is
// ordered so that equal keys are consecutive).
CallPlan square_plan(uint32_t m, uint32_t k, uint32_t h, uint32_t n);

// One way to break or bend a valid call. `apply` edits the built call; r is
// a free choice (which cell, which value...) that the fuzz driver varies and
// the validation table runs through a few values of.
struct Fault {
    enum Outcome { kError, kSuccess, kEither };
    const char* name;
    Outcome outcome;         // kEither: anything in any place, no outcome is right or wrong
    std::string identifier;  // of the error, for kError
    std::string message;     // text the error message must contain (may be empty)
    bool needs_pixels;       // applies only to calls with at least one pixel
    std::function<void(MexCall& call, const CallPlan& plan, uint32_t r)> apply;
};
const std::vector<Fault>& faults();

// An arbitrary array (strings, cells, sparse, huge empty extents, any class).
mxArray* junk(uint32_t r);

// Runs mexFunction on the call's prhs (padded with junk up to nrhs) and
// checks what every call must satisfy: it returns or raises an error
// "shapewiener:*" with a message; a rejected call changes no input and sets
// no output; an accepted call changes no input but the noisy and the pilot
// image and returns a real M x K double matrix in plhs[0] alone; nothing
// leaks. `expected`: an identifier, a prefix ending in ':' (any error
// under it), "" (success) or nullptr (either). Returns "" or what failed;
// "identifier: message" of the error (or "") goes to *error_text.
std::string check_call(MexCall& call, int nlhs, int nrhs, const char* expected,
                       std::string* error_text = nullptr);

}  // namespace swtest

#endif  // SHAPEWIENER_TESTS_SUPPORT_TEST_ARGS_H
