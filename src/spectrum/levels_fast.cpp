#include "spectrum/levels_fast.h"

#include <cmath>
#include <cstddef>
#include <cstring>
#include <new>

#include "simd/thread_buffer.h"
#include "spectrum/spectrum_kernels.h"
#include "transform/shape_transform.h"

namespace sw {
namespace {

using SumsFunction = void (*)(const SpectrumSumsJob&, double*);

struct Kernel {
    SumsFunction sums;
    uint32_t lanes;
};

Kernel kernel_for(simd::Level level) {
    switch (level) {
#if SHAPEWIENER_X86_SIMD
        case simd::Level::sse2:
            return {spectrum_sse2::spectrum_sums, spectrum_sse2::kLanes};
        case simd::Level::avx2:
            return {spectrum_avx2::spectrum_sums, spectrum_avx2::kLanes};
        case simd::Level::avx512:
            return {spectrum_avx512::spectrum_sums, spectrum_avx512::kLanes};
#endif
        default:
            return {spectrum_scalar::spectrum_sums, spectrum_scalar::kLanes};
    }
}

bool all_finite(const double* m, uint32_t len) {
    const size_t count = static_cast<size_t>(len) * len;
    for (size_t i = 0; i < count; ++i) {
        if (!std::isfinite(m[i])) return false;
    }
    return true;
}

// Where the impulse response of one coefficient lives: block column j
// (one of the columns feeding row group r) holds a * T_{L_j}(f, s) at slot s.
struct Feed {
    uint32_t column;  // j
    uint32_t index;   // f, the column's first-stage index in the row group
};

}  // namespace

bool noise_levels_lanes(const ShapeLevelsInput& in, simd::Level level,
                        float* coefficient_noise_level, float* dc_level) {
    const uint32_t w = in.w;
    const uint32_t n = in.ctx->n;
    const uint32_t area = w * w;
    const int32_t mcc = in.max_column_count;
    if (w == 0 || n < w || mcc < 0 || static_cast<uint32_t>(mcc) > w) return false;
    if (n != 32 && in.ctx->twiddle == nullptr) return false;

    const Kernel kernel = kernel_for(level);
    const uint32_t lanes = kernel.lanes;
    const uint32_t rows = n / 2 + 1;

    // Per-thread scratch.
    static thread_local simd::ThreadBuffer buffer;
    unsigned char* base = nullptr;
    for (int pass = 0; pass < 2; ++pass) {
        simd::Carver carve(base);
        double* weight = carve.take<double>(static_cast<size_t>(rows) * n);
        float* blocks = carve.take<float>(static_cast<size_t>(w) * n * lanes);
        float* scratch = carve.take<float>(spectrum_scratch_floats(n, w, lanes));
        uint32_t* along = carve.take<uint32_t>(area);      // along[c * w + s]
        uint32_t* line_length = carve.take<uint32_t>(w);   // values laid out per line
        Feed* feeds = carve.take<Feed>(area);              // feeds of row group r from r * w
        uint32_t* feed_count = carve.take<uint32_t>(w);
        uint32_t* targets = carve.take<uint32_t>(area);    // coefficient positions with a level
        double* sums = carve.take<double>(lanes);
        if (pass == 0) {
            base = buffer.get(carve.used());
            if (base == nullptr) return false;
            continue;
        }

        // The shape's structure: which block column feeds which row group,
        // and the box coordinate of every laid-out slot.
        std::memset(feed_count, 0, sizeof(uint32_t) * w);
        for (uint32_t j = 0; j < w; ++j) {
            const int32_t len = in.column_count[j];
            if (len < 0 || len > mcc) return false;
            if (len > 0 && !all_finite(in.transform_table[len - 1], static_cast<uint32_t>(len))) {
                return false;
            }
            for (int32_t f = 0; f < len; ++f) {
                const uint32_t r = row_group(mcc, f, len);
                feeds[r * w + feed_count[r]] = {j, static_cast<uint32_t>(f)};
                feed_count[r] = feed_count[r] + 1;
            }
            uint32_t laid = 0;
            walk_line(w, j, static_cast<uint32_t>(len), in.by_columns, in.shape_mask,
                      [&](uint32_t slot, uint32_t coordinate, uint32_t) {
                          along[j * w + slot] = coordinate;
                          laid = slot + 1;
                      });
            line_length[j] = laid;
        }
        for (uint32_t r = 0; r < static_cast<uint32_t>(mcc); ++r) {
            const int32_t len = in.row_count[r];
            if (len < 0 || static_cast<uint32_t>(len) != feed_count[r]) return false;
            if (len > 0 && !all_finite(in.transform_table[len - 1], static_cast<uint32_t>(len))) {
                return false;
            }
        }

        // Weights of the half-plane sum, per column v.
        const uint32_t half = n / 2;
        for (uint32_t v = 0; v < n; ++v) {
            const double* psd = in.ctx->noise_psd + static_cast<size_t>(n) * v;
            for (uint32_t u = 0; u <= half; ++u) {
                weight[static_cast<size_t>(rows) * v + u] =
                    (u == 0 || u == half) ? psd[u] : psd[u] + psd[u];
            }
        }

        // Positions that get a level; the rest get 0.
        uint32_t target_count = 0;
        for (uint32_t t = 0; t < area; ++t) {
            if (in.noisy_coefficients[t] == 0.0f) {
                coefficient_noise_level[t] = 0.0f;
            } else {
                targets[target_count++] = t;
            }
        }

        const SpectrumSumsJob job{n, w, in.ctx->twiddle, weight, blocks, scratch};
        const size_t block_floats = static_cast<size_t>(w) * n * lanes;
        const size_t column_stride = static_cast<size_t>(n) * lanes;
        // The DC block rides in the lane after the last coefficient.
        for (uint32_t first = 0; first <= target_count; first += lanes) {
            std::memset(blocks, 0, sizeof(float) * block_floats);
            const uint32_t count = target_count + 1 - first < lanes ? target_count + 1 - first : lanes;
            for (uint32_t i = 0; i < count; ++i) {
                float* lane = blocks + i;
                if (first + i == target_count) {
                    const float z = static_cast<float>(1.0 / std::sqrt(static_cast<double>(in.shape_size)));
                    for (uint32_t j = 0; j < w; ++j) {
                        for (uint32_t ii = 0; ii < w; ++ii) {
                            if (in.shape_mask[ii + j * w] == 0) continue;
                            const uint32_t a = in.by_columns ? j : ii;
                            const uint32_t b = in.by_columns ? ii : j;
                            lane[b * column_stride + static_cast<size_t>(a) * lanes] = z;
                        }
                    }
                    continue;
                }
                const uint32_t t = targets[first + i];
                const uint32_t r = t / w;
                const uint32_t k = t - r * w;
                if (r >= static_cast<uint32_t>(mcc) || k >= static_cast<uint32_t>(in.row_count[r])) {
                    continue;  // outside the support: the response is zero
                }
                const uint32_t len_r = static_cast<uint32_t>(in.row_count[r]);
                const double* t_r = in.transform_table[len_r - 1];
                for (uint32_t p = 0; p < len_r; ++p) {
                    const Feed feed = feeds[r * w + p];
                    const uint32_t j = feed.column;
                    const uint32_t len = static_cast<uint32_t>(in.column_count[j]);
                    const double* t_j = in.transform_table[len - 1];
                    const double value = static_cast<double>(static_cast<float>(t_r[p * len_r + k]));
                    const uint32_t* coordinate = along + j * w;
                    float* row = lane + static_cast<size_t>(j) * lanes;
                    for (uint32_t s = 0; s < line_length[j]; ++s) {
                        row[coordinate[s] * column_stride] =
                            static_cast<float>(value * t_j[feed.index + s * len]);
                    }
                }
            }
            kernel.sums(job, sums);
            for (uint32_t i = 0; i < count; ++i) {
                const float level_value = level_from_sum(sums[i], n, in.ctx->noise_level_factor);
                if (first + i == target_count) {
                    *dc_level = level_value;
                } else {
                    coefficient_noise_level[targets[first + i]] = level_value;
                }
            }
        }
    }
    return true;
}

}  // namespace sw
