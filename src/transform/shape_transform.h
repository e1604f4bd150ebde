// Separable shape-adaptive transform of values in the packed block layout.
//
// Forward: every block column j of length L_j is transformed with the L_j x L_j
// matrix T (row f the f-th basis vector, column-major, entry (f, s) at
// f + s*L); the first-stage coefficient f of column j joins row group
// floor(max_column_count * f / L_j); every row group is then transformed with
// the matrix of its own length. Coefficient k of row group r ends at r*W + k.
// Inverse: the same steps backwards with every matrix transposed.
//
// Products are formed in double from the float value and the double matrix
// entry; the running sum is rounded to float after every term, and the first
// term is not added to a zero.
#ifndef SHAPEWIENER_TRANSFORM_SHAPE_TRANSFORM_H
#define SHAPEWIENER_TRANSFORM_SHAPE_TRANSFORM_H

#include <cstdint>
#include <cstring>

namespace sw {

// Row group of first-stage coefficient f of a block column of length len.
inline uint32_t row_group(int32_t max_column_count, int32_t f, int32_t len) {
    return static_cast<uint32_t>((max_column_count * f) / len);
}

// Coefficient f of the len values v[0..len-1] under matrix t: sum_s v[s] t[f + s*len].
inline float apply_row(const float* v, const double* t, uint32_t len, uint32_t f) {
    float acc = static_cast<float>(static_cast<double>(v[0]) * t[f]);
    for (uint32_t s = 1; s < len; ++s) {
        acc = static_cast<float>(static_cast<double>(acc) +
                                 static_cast<double>(v[s]) * t[f + s * len]);
    }
    return acc;
}

// Sample s of the transposed transform of c[0..len-1]: sum_f c[f] t[s*len + f].
inline float apply_transposed(const float* c, const double* t, uint32_t len, uint32_t s) {
    const double* col = t + s * len;
    float acc = static_cast<float>(static_cast<double>(c[0]) * col[0]);
    for (uint32_t f = 1; f < len; ++f) {
        acc = static_cast<float>(static_cast<double>(acc) + static_cast<double>(c[f]) * col[f]);
    }
    return acc;
}

// apply_row() and apply_transposed() with a float matrix, float products
// and float sums (the same terms in the same order). The denoiser's rule
// (FilterCall::float_sums); never the module's.
inline float apply_row_float(const float* v, const float* t, uint32_t len, uint32_t f) {
    float acc = v[0] * t[f];
    for (uint32_t s = 1; s < len; ++s) acc = acc + v[s] * t[f + s * len];
    return acc;
}

// Forward transform of both gather arrays into both coefficient blocks.
// On entry both coefficient blocks and row_count are all zero. On return the
// coefficient blocks hold the second-stage coefficients (0 elsewhere),
// row_count the size of every row group, and the gather arrays the
// re-aligned first-stage values.
template <class Box>
void forward_transform(const Box& box, float* noisy_gather, float* pilot_gather,
                       float* noisy_coefficients, float* pilot_coefficients,
                       const int32_t* column_count, int32_t* row_count,
                       int32_t max_column_count, const double* const* transform_table) {
    const uint32_t w = box.W();

    // Stage 1: block columns; coefficient f of column j goes to j + f*W.
    for (uint32_t j = 0; j < w; ++j) {
        const uint32_t len = static_cast<uint32_t>(column_count[j]);
        if (len == 0) continue;
        const double* t = transform_table[len - 1];
        const float* v = noisy_gather + j * w;
        for (uint32_t f = 0; f < len; ++f) noisy_coefficients[j + f * w] = apply_row(v, t, len, f);
        const float* p = pilot_gather + j * w;
        for (uint32_t f = 0; f < len; ++f) pilot_coefficients[j + f * w] = apply_row(p, t, len, f);
    }

    // Stage 2: re-alignment into row groups, clearing what is moved.
    std::memset(noisy_gather, 0, sizeof(float) * w * w);
    std::memset(pilot_gather, 0, sizeof(float) * w * w);
    for (uint32_t j = 0; j < w; ++j) {
        const int32_t len = column_count[j];
        for (int32_t f = 0; f < len; ++f) {
            const uint32_t r = row_group(max_column_count, f, len);
            const uint32_t to = r * w + static_cast<uint32_t>(row_count[r]);
            const uint32_t from = j + static_cast<uint32_t>(f) * w;
            noisy_gather[to] = noisy_coefficients[from];
            pilot_gather[to] = pilot_coefficients[from];
            noisy_coefficients[from] = 0.0f;
            pilot_coefficients[from] = 0.0f;
            row_count[r] = row_count[r] + 1;
        }
    }

    // Stage 3: row groups; coefficient k of group r goes to r*W + k.
    for (uint32_t r = 0; r < static_cast<uint32_t>(max_column_count); ++r) {
        const uint32_t len = static_cast<uint32_t>(row_count[r]);
        if (len == 0) continue;
        const double* t = transform_table[len - 1];
        const float* v = noisy_gather + r * w;
        for (uint32_t k = 0; k < len; ++k) noisy_coefficients[r * w + k] = apply_row(v, t, len, k);
        const float* p = pilot_gather + r * w;
        for (uint32_t k = 0; k < len; ++k) pilot_coefficients[r * w + k] = apply_row(p, t, len, k);
    }
}

// Inverse transform of `coefficients` (layout of the forward output) into
// `out`, which must be all zero on entry. Every consumed value is cleared as
// it moves, so on return `out` holds the packed result (0 elsewhere),
// row_cursor equals row_count, and `coefficients` holds the de-aligned
// first-stage values at j*W + f.
template <class Box>
void inverse_transform(const Box& box, float* coefficients, float* out,
                       const int32_t* column_count, const int32_t* row_count,
                       int32_t* row_cursor, int32_t max_column_count,
                       const double* const* transform_table) {
    const uint32_t w = box.W();
    std::memset(row_cursor, 0, sizeof(int32_t) * w);

    // Stage 1: transposed row transforms.
    for (uint32_t r = 0; r < static_cast<uint32_t>(max_column_count); ++r) {
        const uint32_t len = static_cast<uint32_t>(row_count[r]);
        if (len == 0) continue;
        const double* t = transform_table[len - 1];
        float* c = coefficients + r * w;
        for (uint32_t s = 0; s < len; ++s) out[r * w + s] = apply_transposed(c, t, len, s);
        for (uint32_t f = 0; f < len; ++f) c[f] = 0.0f;
    }

    // Stage 2: every value back to its block column and index.
    for (uint32_t j = 0; j < w; ++j) {
        const int32_t len = column_count[j];
        for (int32_t f = 0; f < len; ++f) {
            const uint32_t r = row_group(max_column_count, f, len);
            const uint32_t from = r * w + static_cast<uint32_t>(row_cursor[r]);
            coefficients[j * w + static_cast<uint32_t>(f)] = out[from];
            out[from] = 0.0f;
            row_cursor[r] = row_cursor[r] + 1;
        }
    }

    // Stage 3: transposed column transforms.
    for (uint32_t j = 0; j < w; ++j) {
        const uint32_t len = static_cast<uint32_t>(column_count[j]);
        if (len == 0) continue;
        const double* t = transform_table[len - 1];
        const float* c = coefficients + j * w;
        for (uint32_t s = 0; s < len; ++s) out[j * w + s] = apply_transposed(c, t, len, s);
    }
}

}  // namespace sw

#endif  // SHAPEWIENER_TRANSFORM_SHAPE_TRANSFORM_H
