// Noise standard deviation of every transform coefficient of a shape, and of
// the shape mean, under noise with power spectrum NoisePsd.
//
// A coefficient's level is the energy of its impulse response weighted by the
// spectrum: the response (inverse transform of a unit coefficient) is laid
// into the N x N SpatialBlock in the shape's geometry, its half spectrum is
// taken, and sum |S(u,v)|^2 * psd(u,v) over the half plane (rows u = 1..N/2-1
// counted twice), divided by N^2, gives the variance.
#ifndef SHAPEWIENER_SPECTRUM_NOISE_LEVEL_H
#define SHAPEWIENER_SPECTRUM_NOISE_LEVEL_H

#include <cmath>
#include <cstdint>
#include <cstring>

#include "shape/gather.h"
#include "spectrum/block_spectrum.h"
#include "transform/shape_transform.h"

namespace sw {

// What the levels are computed with, fixed for one call.
struct SpectrumContext {
    uint32_t n;                  // DFT grid side, even
    const float* twiddle;        // null when n == 32
    float* spatial_block;        // n*n
    float* row_spectrum;         // scratch
    float* block_spectrum;       // n*(n/2+1) complex
    const double* noise_psd;     // n x n, column-major; rows 0..n/2 read
    double noise_level_factor;
};

// Weighted sum over the half spectrum in block_spectrum: columns v outer,
// rows u = 0..n/2 inner; |S|^2 in float, weighted by psd (doubled for
// 1 <= u <= n/2-1) and accumulated in double.
inline double spectrum_sum(const float* block_spectrum, const double* noise_psd, uint32_t n) {
    const uint32_t half = n / 2;
    double acc = 0.0;
    for (uint32_t v = 0; v < n; ++v) {
        const double* psd = noise_psd + static_cast<size_t>(n) * v;
        for (uint32_t u = 0; u <= half; ++u) {
            const float* s = block_spectrum + 2 * (static_cast<size_t>(u) * n + v);
            const float power = s[0] * s[0] + s[1] * s[1];
            const double weight = (u == 0 || u == half) ? psd[u] : psd[u] + psd[u];
            acc = acc + weight * static_cast<double>(power);
        }
    }
    return acc;
}

// Level from the weighted sum: sqrt(acc / n^2) * factor, rounded once.
inline float level_from_sum(double acc, uint32_t n, double noise_level_factor) {
    const double nn = static_cast<double>(n) * static_cast<double>(n);
    return static_cast<float>(std::sqrt(acc / nn) * noise_level_factor);
}

inline float spatial_block_level(const SpectrumContext& ctx) {
    block_spectrum(ctx.spatial_block, ctx.row_spectrum, ctx.block_spectrum, ctx.twiddle, ctx.n);
    return level_from_sum(spectrum_sum(ctx.block_spectrum, ctx.noise_psd, ctx.n), ctx.n,
                          ctx.noise_level_factor);
}

// Writes a packed block into the (cleared) n x n SpatialBlock in the shape's
// geometry: block column c becomes row c, the coordinate along the line the
// column. Slot s of block column c goes to the s-th shape pixel of line c.
template <class Box>
void lay_out_packed(const Box& box, const float* packed, const int32_t* column_count,
                    const uint8_t* shape_mask, bool by_columns, float* spatial, uint32_t n) {
    const uint32_t w = box.W();
    for (uint32_t c = 0; c < w; ++c) {
        walk_line(w, c, static_cast<uint32_t>(column_count[c]), by_columns, shape_mask,
                  [&](uint32_t slot, uint32_t along, uint32_t) {
                      spatial[c + static_cast<size_t>(n) * along] = packed[c * w + slot];
                  });
    }
}

// Computes coefficient_noise_level at all W*W positions (0 wherever the
// noisy coefficient is exactly 0) and returns the level of the shape mean.
// Uses noisy_gather and row_cursor as scratch; both stay as the last
// impulse left them.
template <class Box>
float noise_levels(const Box& box, const SpectrumContext& ctx, const float* noisy_coefficients,
                   float* noisy_gather, const int32_t* column_count, const int32_t* row_count,
                   int32_t* row_cursor, int32_t max_column_count,
                   const double* const* transform_table, const uint8_t* shape_mask,
                   bool by_columns, uint32_t shape_size, float* coefficient_noise_level) {
    const uint32_t w = box.W();
    const uint32_t area = w * w;
    const uint32_t n = ctx.n;
    float* spatial = ctx.spatial_block;
    const size_t spatial_bytes = sizeof(float) * n * n;

    for (uint32_t t = 0; t < area; ++t) {
        if (noisy_coefficients[t] == 0.0f) {
            coefficient_noise_level[t] = 0.0f;
            continue;
        }
        // The first W*W elements of SpatialBlock hold the unit impulse.
        std::memset(spatial, 0, sizeof(float) * area);
        std::memset(noisy_gather, 0, sizeof(float) * area);
        spatial[t] = 1.0f;
        inverse_transform(box, spatial, noisy_gather, column_count, row_count, row_cursor,
                          max_column_count, transform_table);
        std::memset(spatial, 0, spatial_bytes);
        lay_out_packed(box, noisy_gather, column_count, shape_mask, by_columns, spatial, n);
        coefficient_noise_level[t] = spatial_block_level(ctx);
    }

    // Shape mean: 1/sqrt(n) on every shape pixel.
    const float z = static_cast<float>(1.0 / std::sqrt(static_cast<double>(shape_size)));
    std::memset(spatial, 0, spatial_bytes);
    for (uint32_t j = 0; j < w; ++j) {
        for (uint32_t i = 0; i < w; ++i) {
            if (shape_mask[i + j * w] == 0) continue;
            if (by_columns) {
                spatial[j + static_cast<size_t>(n) * i] = z;
            } else {
                spatial[i + static_cast<size_t>(n) * j] = z;
            }
        }
    }
    return spatial_block_level(ctx);
}

}  // namespace sw

#endif  // SHAPEWIENER_SPECTRUM_NOISE_LEVEL_H
