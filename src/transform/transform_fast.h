// The forward and inverse shape transforms, restructured for speed with the
// bits of forward_transform() and inverse_transform() (shape_transform.h).
//
// Every one-dimensional product computes all outputs of its line side by
// side in double lanes (transform_kernels.h); each output keeps its own
// running float sum, its term order and its rounding after every term.
// The denoiser's float sums run in float lanes on float copies of the
// matrices. A pilot line with the bits of the noisy line is computed once
// and copied. The transposed products of the inverse read transposed copies
// of the matrices; all copies are kept per thread and made again when a
// matrix's bits change (checked once per matrix and call). The re-alignment
// steps are the reference's, so every array ends as the reference leaves
// it; where they put each value depends on the column counts alone and is
// kept per thread for the last counts seen. Small shapes go through the
// reference routines, which need no set-up.
#ifndef SHAPEWIENER_TRANSFORM_TRANSFORM_FAST_H
#define SHAPEWIENER_TRANSFORM_TRANSFORM_FAST_H

#include <cstdint>

#include "simd/simd.h"
#include "transform/shape_transform.h"

namespace sw {

// forward_transform() for a box of side w with `level`'s kernels (not
// Level::reference; an unsupported level runs the one-lane kernels). Small
// shapes, and shapes whose scratch cannot be had, go through the reference.
// With round_steps false the matrices, products and sums are float
// (apply_row_float(): the same bits at every level; small shapes too go
// through the lanes).
void forward_transform_lanes(uint32_t w, simd::Level level, float* noisy_gather,
                             float* pilot_gather, float* noisy_coefficients,
                             float* pilot_coefficients, const int32_t* column_count,
                             int32_t* row_count, int32_t max_column_count,
                             const double* const* transform_table, bool round_steps = true);

// inverse_transform() for a box of side w with `level`'s kernels (as
// above; the one-lane level uses the reference, which is as fast).
void inverse_transform_lanes(uint32_t w, simd::Level level, float* coefficients, float* out,
                             const int32_t* column_count, const int32_t* row_count,
                             int32_t* row_cursor, int32_t max_column_count,
                             const double* const* transform_table, bool round_steps = true);

// Drop-in replacements: same arguments and effects as the reference
// routines, bit for bit, at the active SIMD level or the one given (the
// reference routines themselves at Level::reference). With round_steps
// false: the float sums, the same bits at every level (Level::reference
// runs the one-lane kernels).
template <class Box>
void forward_transform_fast(const Box& box, float* noisy_gather, float* pilot_gather,
                            float* noisy_coefficients, float* pilot_coefficients,
                            const int32_t* column_count, int32_t* row_count,
                            int32_t max_column_count, const double* const* transform_table,
                            simd::Level level = simd::active(), bool round_steps = true) {
    if (level == simd::Level::reference) {
        if (round_steps) {
            forward_transform(box, noisy_gather, pilot_gather, noisy_coefficients,
                              pilot_coefficients, column_count, row_count, max_column_count,
                              transform_table);
            return;
        }
        level = simd::Level::scalar;
    }
    forward_transform_lanes(box.W(), level, noisy_gather, pilot_gather, noisy_coefficients,
                            pilot_coefficients, column_count, row_count, max_column_count,
                            transform_table, round_steps);
}

template <class Box>
void inverse_transform_fast(const Box& box, float* coefficients, float* out,
                            const int32_t* column_count, const int32_t* row_count,
                            int32_t* row_cursor, int32_t max_column_count,
                            const double* const* transform_table,
                            simd::Level level = simd::active(), bool round_steps = true) {
    if (level == simd::Level::reference) {
        if (round_steps) {
            inverse_transform(box, coefficients, out, column_count, row_count, row_cursor,
                              max_column_count, transform_table);
            return;
        }
        level = simd::Level::scalar;
    }
    inverse_transform_lanes(box.W(), level, coefficients, out, column_count, row_count,
                            row_cursor, max_column_count, transform_table, round_steps);
}

}  // namespace sw

#endif  // SHAPEWIENER_TRANSFORM_TRANSFORM_FAST_H
