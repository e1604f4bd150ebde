// The optimised path's gathering and centring through a list of the shape's
// pixels (its shrinkage and aggregation: estimate/listed.h).
//
// Consecutive entries of one key whose boxes are clipped alike have the same
// shape in box coordinates: the same shape mask, column counts and packing.
// build_layout() forms these once, as gather_shape() does, and lists every
// shape pixel in gather_shape()'s visiting order (box columns outer, rows
// inner) with its image offset from the clipped box's first pixel and its
// slot in the packed block. Gathering and
// aggregating then visit only the listed pixels, with the same operations
// in the same order as gather_shape() and aggregate_shape() (every pixel is
// touched once per entry, so the order of the image updates is free).
#ifndef SHAPEWIENER_SHAPE_SHAPE_LAYOUT_H
#define SHAPEWIENER_SHAPE_SHAPE_LAYOUT_H

#include <cstdint>
#include <cstring>

#include "shape/gather.h"
#include "shape/shape.h"

namespace sw {

// How the box around (row, col) is clipped: its reach up, down, left and
// right. Entries of one key with equal reaches share a layout.
struct ClipReach {
    uint32_t up, down, left, right;
    bool operator==(const ClipReach& o) const {
        return up == o.up && down == o.down && left == o.left && right == o.right;
    }
};

inline ClipReach clip_reach(const ClippedBox& clip, uint32_t row, uint32_t col) {
    return {row - clip.r0, clip.r1 - row, col - clip.c0, clip.c1 - col};
}

// The listed pixels (arrays of W*W) and what gather_shape() reports of the
// shape alone.
struct ShapeLayout {
    uint32_t* pixel_offset;  // (y - r0) + (x - c0) * m
    uint32_t* packed_slot;   // b * W + slot
    uint32_t size = 0;
    int32_t max_column_count = 0;
};

// Forms shape_mask and column_count as gather_shape() does (both stay valid
// while the layout is used) and lists the shape's pixels.
template <class Box>
void build_layout(const Box& box, uint32_t row, uint32_t col, const ClippedBox& clip,
                  const uint8_t* const masks[8], bool by_columns, uint32_t m,
                  uint8_t* shape_mask, int32_t* column_count, ShapeLayout* layout) {
    const uint32_t w = box.W();
    const uint32_t reach = box.H() - 1;
    std::memset(shape_mask, 0, w * w);
    std::memset(column_count, 0, sizeof(int32_t) * w);
    uint32_t n = 0;
    int32_t max_count = 0;
    for (uint32_t x = clip.c0; x <= clip.c1; ++x) {
        const uint32_t j = x - col + reach;
        for (uint32_t y = clip.r0; y <= clip.r1; ++y) {
            const uint32_t i = y - row + reach;
            const uint32_t at = i + j * w;
            const uint8_t byte = sector_union_at(masks, at);
            shape_mask[at] = byte;
            if (byte == 0) continue;
            const uint32_t b = by_columns ? j : i;
            layout->pixel_offset[n] = (y - clip.r0) + (x - clip.c0) * m;
            layout->packed_slot[n] = b * w + static_cast<uint32_t>(column_count[b]);
            column_count[b] = column_count[b] + 1;
            if (column_count[b] > max_count) max_count = column_count[b];
            n = n + 1;
        }
    }
    layout->size = n;
    layout->max_column_count = max_count;
}

// gather_shape() for a shape listed in `layout` (with its shape mask and
// column counts already in place): clears both gather arrays, row_count and
// row_cursor, packs the values and takes the means.
template <class Box>
GatherResult gather_listed(const Box& box, const ClippedBox& clip, const ShapeLayout& layout,
                           const double* noisy, const double* pilot, uint32_t m,
                           float* noisy_gather, float* pilot_gather, int32_t* row_count,
                           int32_t* row_cursor) {
    const uint32_t w = box.W();
    std::memset(noisy_gather, 0, sizeof(float) * w * w);
    std::memset(pilot_gather, 0, sizeof(float) * w * w);
    std::memset(row_count, 0, sizeof(int32_t) * w);
    std::memset(row_cursor, 0, sizeof(int32_t) * w);
    const size_t first = clip.r0 + static_cast<size_t>(clip.c0) * m;
    const double* noisy_at = noisy + first;
    const double* pilot_at = pilot + first;
    float sum_noisy = 0.0f;
    float sum_pilot = 0.0f;
    for (uint32_t e = 0; e < layout.size; ++e) {
        const uint32_t p = layout.pixel_offset[e];
        const uint32_t t = layout.packed_slot[e];
        const float nv = static_cast<float>(noisy_at[p]);
        const float pv = static_cast<float>(pilot_at[p]);
        noisy_gather[t] = nv;
        pilot_gather[t] = pv;
        sum_noisy = sum_noisy + nv;
        sum_pilot = sum_pilot + pv;
    }
    GatherResult result;
    result.max_column_count = layout.max_column_count;
    result.shape_size = layout.size;
    const double size = static_cast<double>(layout.size);
    result.noisy_mean = static_cast<float>(static_cast<double>(sum_noisy) / size);
    result.pilot_mean = static_cast<float>(static_cast<double>(sum_pilot) / size);
    return result;
}

// remove_mean() for a listed shape: every other slot of the gather arrays
// holds 0, which remove_mean() leaves as it is.
template <class Box>
void remove_mean_listed(const Box& box, const ShapeLayout& layout, float noisy_mean,
                        float* noisy_gather, float* pilot_gather, float* noisy_coefficients,
                        float* pilot_coefficients) {
    const uint32_t area = box.W() * box.W();
    std::memset(noisy_coefficients, 0, sizeof(float) * area);
    std::memset(pilot_coefficients, 0, sizeof(float) * area);
    const double mean = static_cast<double>(noisy_mean);
    for (uint32_t e = 0; e < layout.size; ++e) {
        const uint32_t t = layout.packed_slot[e];
        if (noisy_gather[t] != 0.0f) {
            const double td = static_cast<double>(t);
            noisy_gather[t] =
                static_cast<float>(static_cast<double>(noisy_gather[t]) - (td * 1e-17 + mean));
            pilot_gather[t] = static_cast<float>(static_cast<double>(pilot_gather[t]) -
                                                 ((td + 2.0) * 1e-17 + mean));
        }
    }
}

}  // namespace sw

#endif  // SHAPEWIENER_SHAPE_SHAPE_LAYOUT_H
