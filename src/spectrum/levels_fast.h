// Coefficient noise levels, restructured for speed with the bits of
// noise_levels() (noise_level.h).
//
// Impulse responses without transforms. After the row stage of the inverse
// transform, the unit coefficient k of row group r (length L') has become
// T_L'(k, p) in the p-th block column that feeds row group r (at its index
// f, the only one of that column in the group); every other first-stage
// value is zero. The column stage then makes slot s of such a column
// float(double(float(T_L'(k, p))) * T_L(f, s)), one product, and leaves the
// other columns zero. The reference reaches the same numbers through sums
// whose other terms are zero products: with finite matrices such a term
// changes nothing but possibly the sign of a zero result, and the sign of a
// zero never reaches a squared magnitude. Shapes whose matrices hold an
// infinity or a NaN take the reference path.
//
// Spectra in lanes. The coefficients that get a level, and the DC block
// after them, are split into batches of as many blocks as the instruction
// set has float lanes; spectrum_kernels.h lays a batch's responses out
// (vector products over the lanes of one row group) and takes the spectra
// and weighted sums of the batch at once, each lane with the reference's
// operations.
//
// Scratch: unlike the reference, the fast path leaves SpatialBlock,
// RowSpectrum, BlockSpectrum, the noisy gather array and RowCursor
// untouched (nothing after the noise levels reads what the reference leaves
// there). It works in a per-thread buffer that grows to the largest N and W
// seen on the thread and is kept for later calls.
#ifndef SHAPEWIENER_SPECTRUM_LEVELS_FAST_H
#define SHAPEWIENER_SPECTRUM_LEVELS_FAST_H

#include <cstdint>

#include "simd/simd.h"
#include "spectrum/noise_level.h"

namespace sw {

// The inputs of noise_levels() without the box type.
struct ShapeLevelsInput {
    uint32_t w;
    const SpectrumContext* ctx;
    const float* noisy_coefficients;
    const int32_t* column_count;
    const int32_t* row_count;
    int32_t max_column_count;
    const double* const* transform_table;
    const uint8_t* shape_mask;
    bool by_columns;
    uint32_t shape_size;
};

// Writes the W*W coefficient levels and *dc_level as noise_levels() would,
// with `level`'s kernels (not Level::reference; an unsupported level runs
// the one-lane kernels). Returns false, having
// written nothing, for inputs it leaves to the reference: a non-finite
// entry in a matrix the shape uses, or counts that the forward transform
// cannot have produced.
bool noise_levels_lanes(const ShapeLevelsInput& in, simd::Level level,
                        float* coefficient_noise_level, float* dc_level);

// Drop-in replacement for noise_levels(): same arguments, same levels and
// DC level, bit for bit, at the active SIMD level or the one given (the
// reference routine itself at Level::reference).
template <class Box>
float noise_levels_fast(const Box& box, const SpectrumContext& ctx,
                        const float* noisy_coefficients, float* noisy_gather,
                        const int32_t* column_count, const int32_t* row_count,
                        int32_t* row_cursor, int32_t max_column_count,
                        const double* const* transform_table, const uint8_t* shape_mask,
                        bool by_columns, uint32_t shape_size, float* coefficient_noise_level,
                        simd::Level level = simd::active()) {
    if (level != simd::Level::reference) {
        const ShapeLevelsInput in{box.W(),          &ctx,       noisy_coefficients,
                                  column_count,     row_count,  max_column_count,
                                  transform_table,  shape_mask, by_columns,
                                  shape_size};
        float dc = 0.0f;
        if (noise_levels_lanes(in, level, coefficient_noise_level, &dc)) return dc;
    }
    return noise_levels(box, ctx, noisy_coefficients, noisy_gather, column_count, row_count,
                        row_cursor, max_column_count, transform_table, shape_mask, by_columns,
                        shape_size, coefficient_noise_level);
}

}  // namespace sw

#endif  // SHAPEWIENER_SPECTRUM_LEVELS_FAST_H
