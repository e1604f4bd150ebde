#include "driver/workspace.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace sw {
namespace {

constexpr uint64_t kAlign = 64;  // every region starts on a cache line

uint64_t align_up(uint64_t offset) { return (offset + kAlign - 1) / kAlign * kAlign; }

// Byte offsets of the regions, the stride of one scratch set and the total.
struct Layout {
    uint64_t shared[4];   // weight_sum, coverage_count, rounded_scales, transform_table
    uint64_t scratch[14]; // within one scratch set, in EntryScratch order
    uint64_t scratch_start;
    uint64_t scratch_stride;
    uint64_t total;
    uint64_t twiddle;
};

Layout layout_of(const WorkspaceSizes& s, unsigned scratch_count) {
    const uint64_t n = s.n;
    const uint64_t w = s.w;
    const uint64_t mk = static_cast<uint64_t>(s.m) * s.k;
    const uint64_t half = n / 2 + 1;
    const uint64_t shared_bytes[4] = {4 * mk, 2 * mk, 4 * uint64_t{s.l}, sizeof(double*) * w};
    const uint64_t scratch_bytes[14] = {
        4 * n * n,     // SpatialBlock
        8 * n * half,  // RowSpectrum
        8 * n * half,  // BlockSpectrum
        4 * w * w,     // noisy gather array
        4 * w * w,     // noisy coefficient block
        4 * w * w,     // pilot gather array
        4 * w * w,     // pilot coefficient block
        4 * w * w,     // CoefficientNoiseLevel
        4 * w,         // ColumnCount
        4 * w,         // RowCount
        4 * w,         // RowCursor
        w * w,         // ShapeMask
        4 * w * w,     // pixel offsets of the shape layout
        4 * w * w,     // packed slots of the shape layout
    };
    Layout layout{};
    uint64_t at = 0;
    for (int r = 0; r < 4; ++r) {
        layout.shared[r] = at;
        at = align_up(at + shared_bytes[r]);
    }
    layout.scratch_start = at;
    uint64_t in = 0;
    for (int r = 0; r < 14; ++r) {
        layout.scratch[r] = in;
        in = align_up(in + scratch_bytes[r]);
    }
    layout.scratch_stride = in;
    layout.total = at + in * scratch_count;
    layout.twiddle = n == 32 ? 0 : 8 * n * n;
    return layout;
}

}  // namespace

uint64_t workspace_bytes(const WorkspaceSizes& sizes, unsigned scratch_count) {
    const Layout layout = layout_of(sizes, scratch_count);
    return layout.total + layout.twiddle;
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

bool workspace_create(const WorkspaceSizes& sizes, unsigned scratch_count, Workspace* ws) {
    *ws = Workspace{};
    const Layout layout = layout_of(sizes, scratch_count);
    if (layout.total > SIZE_MAX - kAlign || layout.twiddle > SIZE_MAX) return false;
    // One byte at least, so that an all-empty layout still gets a block.
    void* base = std::aligned_alloc(
        kAlign, static_cast<size_t>(layout.total > 0 ? align_up(layout.total) : kAlign));
    if (base == nullptr) return false;
    ws->block = base;
    if (sizes.n != 32) {
        ws->twiddle = static_cast<float*>(
            std::malloc(layout.twiddle > 0 ? static_cast<size_t>(layout.twiddle) : 1));
        if (ws->twiddle == nullptr) {
            std::free(base);
            *ws = Workspace{};
            return false;
        }
        twiddle_fill(ws->twiddle, sizes.n);
    }
    auto* bytes = static_cast<unsigned char*>(base);
    ws->call.twiddle = ws->twiddle;
    ws->call.weight_sum = reinterpret_cast<float*>(bytes + layout.shared[0]);
    ws->call.coverage_count = reinterpret_cast<uint16_t*>(bytes + layout.shared[1]);
    ws->call.rounded_scales = reinterpret_cast<uint32_t*>(bytes + layout.shared[2]);
    ws->call.transform_table = reinterpret_cast<const double**>(bytes + layout.shared[3]);
    ws->scratch_count = scratch_count;
    ws->scratch_base = bytes + layout.scratch_start;
    ws->scratch_stride = static_cast<size_t>(layout.scratch_stride);
    for (unsigned i = 0; i < scratch_count; ++i) {
        std::memset(workspace_scratch(*ws, sizes, i).spatial_block, 0,
                    4 * static_cast<size_t>(sizes.n) * sizes.n);
    }
    return true;
}

EntryScratch workspace_scratch(const Workspace& ws, const WorkspaceSizes& sizes, unsigned i) {
    const Layout layout = layout_of(sizes, 1);
    unsigned char* at = ws.scratch_base + ws.scratch_stride * i;
    const uint64_t* r = layout.scratch;
    EntryScratch s;
    s.spatial_block = reinterpret_cast<float*>(at + r[0]);
    s.row_spectrum = reinterpret_cast<float*>(at + r[1]);
    s.block_spectrum = reinterpret_cast<float*>(at + r[2]);
    s.noisy_gather = reinterpret_cast<float*>(at + r[3]);
    s.noisy_coefficients = reinterpret_cast<float*>(at + r[4]);
    s.pilot_gather = reinterpret_cast<float*>(at + r[5]);
    s.pilot_coefficients = reinterpret_cast<float*>(at + r[6]);
    s.coefficient_noise_level = reinterpret_cast<float*>(at + r[7]);
    s.column_count = reinterpret_cast<int32_t*>(at + r[8]);
    s.row_count = reinterpret_cast<int32_t*>(at + r[9]);
    s.row_cursor = reinterpret_cast<int32_t*>(at + r[10]);
    s.shape_mask = at + r[11];
    s.pixel_offset = reinterpret_cast<uint32_t*>(at + r[12]);
    s.packed_slot = reinterpret_cast<uint32_t*>(at + r[13]);
    return s;
}

void workspace_release(Workspace* ws) {
    if (ws->twiddle != nullptr) std::free(ws->twiddle);
    std::free(ws->block);
    *ws = Workspace{};
}

}  // namespace sw
