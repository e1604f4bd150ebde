// Entry points of the lane-parallel spectrum sums, one per instruction set
// (see spectrum_lanes.h for what they compute). Call a level's entry only
// when simd::supported() says the processor has it.
#ifndef SHAPEWIENER_SPECTRUM_SPECTRUM_KERNELS_H
#define SHAPEWIENER_SPECTRUM_SPECTRUM_KERNELS_H

#include <cstddef>
#include <cstdint>

#include "simd/simd.h"
#include "simd/x86.h"

namespace sw {

// The blocks of one batch and what their spectra are weighted with.
struct SpectrumSumsJob {
    uint32_t n;              // DFT grid side
    uint32_t w;              // box side: only x(a, b) with a, b < w may be non-zero
    const float* twiddle;    // n x n complex table when n != 32
    const double* weight;    // (n/2+1) per column v: NoisePsd(u, v), doubled for 1 <= u < n/2
    const float* blocks;     // x(a, b) of lane i at (b * n + a) * lanes + i, b < w, a < n
    float* scratch;          // spectrum_scratch_floats(n, w, lanes) floats, 64-byte aligned
};

// Floats of scratch that a batch of `lanes` blocks needs.
inline size_t spectrum_scratch_floats(uint32_t n, uint32_t w, uint32_t lanes) {
    const size_t per_lane = n == 32 ? 3 * 17 * 32 : 2 * static_cast<size_t>(w) * (n / 2 + 1);
    return per_lane * lanes;
}

// Each writes the weighted sum of lane i's block to sums[i], i < its lane
// count; the sums have the bits of spectrum_sum() after block_spectrum().
namespace spectrum_scalar {
constexpr uint32_t kLanes = 1;
void spectrum_sums(const SpectrumSumsJob& job, double* sums);
}  // namespace spectrum_scalar
#if SHAPEWIENER_X86_SIMD
namespace spectrum_sse2 {
constexpr uint32_t kLanes = 4;
void spectrum_sums(const SpectrumSumsJob& job, double* sums);
}  // namespace spectrum_sse2
namespace spectrum_avx2 {
constexpr uint32_t kLanes = 8;
void spectrum_sums(const SpectrumSumsJob& job, double* sums);
}  // namespace spectrum_avx2
namespace spectrum_avx512 {
constexpr uint32_t kLanes = 16;
void spectrum_sums(const SpectrumSumsJob& job, double* sums);
}  // namespace spectrum_avx512
#endif

}  // namespace sw

#endif  // SHAPEWIENER_SPECTRUM_SPECTRUM_KERNELS_H
