#include "driver/workspace.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace sw {
namespace {

uint64_t align_up(uint64_t offset, uint64_t alignment) {
    return (offset + alignment - 1) / alignment * alignment;
}

// Offsets of the sixteen regions, in order, and the total size.
struct Layout {
    uint64_t offset[16];
    uint64_t total;
};

Layout layout_of(const WorkspaceSizes& s) {
    const uint64_t n = s.n;
    const uint64_t w = s.w;
    const uint64_t mk = static_cast<uint64_t>(s.m) * s.k;
    const uint64_t half = n / 2 + 1;
    const uint64_t bytes[16] = {
        4 * n * n,           // SpatialBlock
        8 * n * half,        // RowSpectrum
        8 * n * half,        // BlockSpectrum
        4 * w * w,           // noisy gather array
        4 * w * w,           // noisy coefficient block
        4 * w * w,           // pilot gather array
        4 * w * w,           // pilot coefficient block
        4 * w * w,           // CoefficientNoiseLevel
        4 * mk,              // WeightSum
        4 * w,               // ColumnCount
        4 * w,               // RowCount
        4 * w,               // RowCursor
        4 * uint64_t{s.l},   // RoundedScales
        sizeof(double*) * w, // TransformTable
        2 * mk,              // CoverageCount
        w * w,               // ShapeMask
    };
    const uint64_t alignment[16] = {4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4,
                                    alignof(const double*), 2, 1};
    Layout layout{};
    uint64_t at = 0;
    for (int r = 0; r < 16; ++r) {
        at = align_up(at, alignment[r]);
        layout.offset[r] = at;
        at += bytes[r];
    }
    layout.total = at;
    return layout;
}

}  // namespace

uint64_t workspace_bytes(const WorkspaceSizes& sizes) { return layout_of(sizes).total; }

uint64_t workspace_formula_bytes(const WorkspaceSizes& s) {
    const uint64_t n = s.n;
    const uint64_t w = s.w;
    const uint64_t mk = static_cast<uint64_t>(s.m) * s.k;
    return 4 * n * n + 16 * n * (n / 2 + 1) + 21 * w * w + 6 * mk + 12 * w + 4 * uint64_t{s.l} +
           w * sizeof(double*);
}

void twiddle_fill(float* table, uint32_t n) {
    const double inv_n = 1.0 / static_cast<double>(n);
    for (uint32_t j = 0; j < n; ++j) {
        const double theta = (static_cast<double>(j) * 6.283185307179586) * inv_n;
        const double s = std::sin(theta);
        const double c = std::cos(theta);
        double re = 1.0;
        double im = 0.0;
        float* row = table + 2 * static_cast<size_t>(n) * j;
        for (uint32_t k = 0; k < n; ++k) {
            row[2 * k] = static_cast<float>(re);
            row[2 * k + 1] = static_cast<float>(im);
            const double next_re = re * c - s * im;
            const double next_im = im * c + re * s;
            re = next_re;
            im = next_im;
        }
    }
}

bool workspace_create(const WorkspaceSizes& sizes, Workspace* ws) {
    *ws = Workspace{};
    const Layout layout = layout_of(sizes);
    if (layout.total > SIZE_MAX) return false;
    // One byte at least, so that an all-empty layout still gets a block.
    auto* base = static_cast<unsigned char*>(
        std::malloc(layout.total > 0 ? static_cast<size_t>(layout.total) : 1));
    if (base == nullptr) return false;
    ws->block = base;
    if (sizes.n != 32) {
        const uint64_t twiddle_bytes = 8 * uint64_t{sizes.n} * sizes.n;
        ws->twiddle = static_cast<float*>(
            std::malloc(twiddle_bytes > 0 ? static_cast<size_t>(twiddle_bytes) : 1));
        if (ws->twiddle == nullptr) {
            std::free(base);
            *ws = Workspace{};
            return false;
        }
        twiddle_fill(ws->twiddle, sizes.n);
    }
    const uint64_t* at = layout.offset;
    ws->spatial_block = reinterpret_cast<float*>(base + at[0]);
    ws->row_spectrum = reinterpret_cast<float*>(base + at[1]);
    ws->block_spectrum = reinterpret_cast<float*>(base + at[2]);
    ws->noisy_gather = reinterpret_cast<float*>(base + at[3]);
    ws->noisy_coefficients = reinterpret_cast<float*>(base + at[4]);
    ws->pilot_gather = reinterpret_cast<float*>(base + at[5]);
    ws->pilot_coefficients = reinterpret_cast<float*>(base + at[6]);
    ws->coefficient_noise_level = reinterpret_cast<float*>(base + at[7]);
    ws->weight_sum = reinterpret_cast<float*>(base + at[8]);
    ws->column_count = reinterpret_cast<int32_t*>(base + at[9]);
    ws->row_count = reinterpret_cast<int32_t*>(base + at[10]);
    ws->row_cursor = reinterpret_cast<int32_t*>(base + at[11]);
    ws->rounded_scales = reinterpret_cast<uint32_t*>(base + at[12]);
    ws->transform_table = reinterpret_cast<const double**>(base + at[13]);
    ws->coverage_count = reinterpret_cast<uint16_t*>(base + at[14]);
    ws->shape_mask = base + at[15];
    std::memset(ws->spatial_block, 0, 4 * static_cast<size_t>(sizes.n) * sizes.n);
    return true;
}

void workspace_release(Workspace* ws) {
    if (ws->twiddle != nullptr) std::free(ws->twiddle);
    std::free(ws->block);
    *ws = Workspace{};
}

}  // namespace sw
