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

struct Kernel {
    void (*sums)(const SpectrumSumsJob&, double*);
    void (*lay_out)(const ResponseLayout&, const ResponseRun*, uint32_t, float*);
    void (*clear_out)(const ResponseLayout&, const ResponseRun*, uint32_t, float*);
    uint32_t lanes;
};

#define SHAPEWIENER_KERNEL(ns) {ns::spectrum_sums, ns::lay_out, ns::clear_out, ns::kLanes}

Kernel kernel_for(simd::Level level) {
    switch (simd::supported(level) ? level : simd::Level::scalar) {
#if SHAPEWIENER_X86_SIMD
        case simd::Level::sse2: return SHAPEWIENER_KERNEL(spectrum_sse2);
        case simd::Level::avx2: return SHAPEWIENER_KERNEL(spectrum_avx2);
        case simd::Level::avx512: return SHAPEWIENER_KERNEL(spectrum_avx512);
#endif
        default: return SHAPEWIENER_KERNEL(spectrum_scalar);
    }
}

#undef SHAPEWIENER_KERNEL

bool all_finite(const double* m, uint32_t len) {
    const size_t count = static_cast<size_t>(len) * len;
    for (size_t i = 0; i < count; ++i) {
        if (!std::isfinite(m[i])) return false;
    }
    return true;
}

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
        uint32_t* along = carve.take<uint32_t>(area);        // along[j * w + s]
        uint32_t* line_length = carve.take<uint32_t>(w);     // slots laid out per line
        uint32_t* feed_column = carve.take<uint32_t>(area);  // feeds of row group r from r * w
        uint32_t* feed_index = carve.take<uint32_t>(area);
        uint32_t* feed_count = carve.take<uint32_t>(w);
        uint32_t* targets = carve.take<uint32_t>(area);      // coefficient positions with a level
        uint32_t* target_index = carve.take<uint32_t>(area);  // their index k in the row group
        ResponseRun* runs = carve.take<ResponseRun>(lanes);
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
                feed_column[r * w + feed_count[r]] = j;
                feed_index[r * w + feed_count[r]] = static_cast<uint32_t>(f);
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
        const ResponseLayout layout{w,           n,           in.transform_table, in.column_count,
                                    in.row_count, feed_column, feed_index,         along,
                                    line_length};

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
                targets[target_count] = t;
                target_index[target_count] = t % w;
                ++target_count;
            }
        }

        SpectrumSumsJob job{n, w, in.ctx->twiddle, weight, blocks, scratch, false};
        const size_t column_stride = static_cast<size_t>(n) * lanes;
        std::memset(blocks, 0, sizeof(float) * w * column_stride);
        // The DC block: 1/sqrt(n) on every shape pixel, in the lane after
        // the last coefficient.
        const float z = static_cast<float>(1.0 / std::sqrt(static_cast<double>(in.shape_size)));
        auto dc_block = [&](float* lane, float value) {
            for (uint32_t j = 0; j < w; ++j) {
                for (uint32_t i = 0; i < w; ++i) {
                    if (in.shape_mask[i + j * w] == 0) continue;
                    const uint32_t a = in.by_columns ? j : i;
                    const uint32_t b = in.by_columns ? i : j;
                    lane[b * column_stride + static_cast<size_t>(a) * lanes] = value;
                }
            }
        };
        for (uint32_t first = 0; first <= target_count; first += lanes) {
            const uint32_t count = target_count + 1 - first < lanes ? target_count + 1 - first : lanes;
            // Runs of lanes whose coefficients share a row group (targets
            // come in order of position); coefficients outside the support
            // have a zero response and stay in no run.
            uint32_t run_count = 0;
            for (uint32_t i = 0; i < count && first + i < target_count; ++i) {
                const uint32_t r = targets[first + i] / w;
                if (r >= static_cast<uint32_t>(mcc) ||
                    target_index[first + i] >= static_cast<uint32_t>(in.row_count[r])) {
                    continue;
                }
                if (run_count > 0 && runs[run_count - 1].row == r &&
                    runs[run_count - 1].first + runs[run_count - 1].count == i) {
                    runs[run_count - 1].count += 1;
                } else {
                    runs[run_count++] = {r, i, 1, target_index + first + i};
                }
            }
            const bool with_dc = first + count > target_count;
            kernel.lay_out(layout, runs, run_count, blocks);
            if (with_dc) dc_block(blocks + (target_count - first), z);
            kernel.sums(job, sums);
            job.same_scratch = true;
            kernel.clear_out(layout, runs, run_count, blocks);
            if (with_dc) dc_block(blocks + (target_count - first), 0.0f);
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
