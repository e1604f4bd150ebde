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
    bool same_scratch;       // scratch as the previous batch with the same n and w left it
};

// How a shape lays the impulse response of a coefficient out: the unit
// coefficient k of row group r puts T_{L'}(k, p) (as a float) into the p-th
// block column j that feeds row group r, at its index f, and slot s of that
// column becomes float(double(that value) * T_{L_j}(f, s)), at x(j, b) with
// b the slot's coordinate along the line.
struct ResponseLayout {
    uint32_t w;
    uint32_t n;
    const double* const* table;   // T_L at table[L - 1]
    const int32_t* column_count;  // L_j
    const int32_t* row_count;     // L' of each row group
    const uint32_t* feed_column;  // p-th feeding column j of row group r at r * w + p
    const uint32_t* feed_index;   // its index f, at the same place
    const uint32_t* along;        // coordinate b of slot s of column j at j * w + s
    const uint32_t* line_length;  // slots laid out per column
};

// Lanes first .. first+count-1 of a batch hold the responses of
// coefficients (row, index[i]) of one row group.
struct ResponseRun {
    uint32_t row;
    uint32_t first;
    uint32_t count;
    const uint32_t* index;
};

// Floats of scratch that a batch of `lanes` blocks needs.
inline size_t spectrum_scratch_floats(uint32_t n, uint32_t w, uint32_t lanes) {
    const size_t per_lane = n == 32 ? 3 * 17 * 32 : 2 * static_cast<size_t>(w) * (n / 2 + 1);
    return per_lane * lanes;
}

// Per instruction set:
// - spectrum_sums writes the weighted sum of lane i's block to sums[i], i
//   below its lane count; the sums have the bits of spectrum_sum() after
//   block_spectrum() on that block alone.
// - lay_out writes the responses of the runs into zero blocks (a lane's
//   values up to the sign of a zero: other lanes get zeros added);
//   clear_out sets the same places of every lane to zero again.
#define SHAPEWIENER_SPECTRUM_ENTRIES                                                          \
    void spectrum_sums(const SpectrumSumsJob& job, double* sums);                             \
    void lay_out(const ResponseLayout& layout, const ResponseRun* runs, uint32_t run_count,   \
                 float* blocks);                                                              \
    void clear_out(const ResponseLayout& layout, const ResponseRun* runs, uint32_t run_count, \
                   float* blocks);
namespace spectrum_scalar {
constexpr uint32_t kLanes = 1;
SHAPEWIENER_SPECTRUM_ENTRIES
}  // namespace spectrum_scalar
#if SHAPEWIENER_X86_SIMD
namespace spectrum_sse2 {
constexpr uint32_t kLanes = 4;
SHAPEWIENER_SPECTRUM_ENTRIES
}  // namespace spectrum_sse2
namespace spectrum_avx2 {
constexpr uint32_t kLanes = 8;
SHAPEWIENER_SPECTRUM_ENTRIES
}  // namespace spectrum_avx2
namespace spectrum_avx512 {
constexpr uint32_t kLanes = 16;
SHAPEWIENER_SPECTRUM_ENTRIES
}  // namespace spectrum_avx512
#endif
#undef SHAPEWIENER_SPECTRUM_ENTRIES

}  // namespace sw

#endif  // SHAPEWIENER_SPECTRUM_SPECTRUM_KERNELS_H
