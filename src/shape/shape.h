// Sector-union shapes: the eight directional scales of a pixel, the packing
// orientation, the sector masks and the clipped box around the pixel.
#ifndef SHAPEWIENER_SHAPE_SHAPE_H
#define SHAPEWIENER_SHAPE_SHAPE_H

#include <cstdint>

#include "shapewiener/filter.h"

namespace sw {

// Image rows r0..r1 and columns c0..c1 of the box around a pixel that lie
// inside the image, inclusive.
struct ClippedBox {
    uint32_t r0;
    uint32_t r1;
    uint32_t c0;
    uint32_t c1;
};

// The box of half-width h - 1 around (row, col), cut to an m x k image.
inline ClippedBox clipped_box(uint32_t row, uint32_t col, uint32_t m, uint32_t k, uint32_t h) {
    const uint32_t reach = h - 1;
    ClippedBox b;
    b.r0 = row > reach ? row - reach : 0;
    b.c0 = col > reach ? col - reach : 0;
    b.r1 = (m - 1 - row) > reach ? row + reach : m - 1;
    b.c1 = (k - 1 - col) > reach ? col + reach : k - 1;
    return b;
}

// Orientation from the eight raw DirectionScaleMap indices: pack by columns
// when q0 + q4 < q2 + q6 (signed arithmetic; equal sums give false).
inline bool pack_by_columns(const uint8_t q[8]) {
    const int32_t diff = static_cast<int32_t>(q[0]) + static_cast<int32_t>(q[4]) -
                         static_cast<int32_t>(q[2]) - static_cast<int32_t>(q[6]);
    return diff < 0;
}

// Reads the pixel's eight raw indices (plane d at offset d*plane_size) and
// turns them into scales and the orientation.
inline void shape_parameters(const uint8_t* direction_scale_map, uint32_t pixel,
                             uint32_t plane_size, const uint32_t* rounded_scales,
                             uint32_t direction_scale[8], bool* by_columns) {
    uint8_t q[8];
    for (uint32_t d = 0; d < 8; ++d) {
        q[d] = direction_scale_map[pixel + d * plane_size];
        direction_scale[d] = rounded_scales[q[d] - 1];
    }
    *by_columns = pack_by_columns(q);
}

// 0-based SectorMaskBank cell of sector d: the scales of planes (d+4) mod 8
// and (d+5) mod 8 select the first two cell coordinates.
inline uint32_t sector_cell_index(uint32_t d, const uint32_t direction_scale[8], uint32_t h) {
    const uint32_t a = direction_scale[(d + 4) % 8];
    const uint32_t b = direction_scale[(d + 5) % 8];
    return (a - 1) + (b - 1) * h + d * h * h;
}

// Data pointers of the eight sector masks for the current scales.
inline void fetch_sector_masks(const ArrayView<uint8_t>* sector_mask_bank,
                               const uint32_t direction_scale[8], uint32_t h,
                               const uint8_t* masks[8]) {
    for (uint32_t d = 0; d < 8; ++d) {
        masks[d] = sector_mask_bank[sector_cell_index(d, direction_scale, h)].data;
    }
}

// The shape's value at offset `at` of the W x W box: the union of the eight
// sectors' values (non-zero where any sector holds the pixel).
inline uint8_t sector_union_at(const uint8_t* const masks[8], uint32_t at) {
    return static_cast<uint8_t>(masks[0][at] | masks[1][at] | masks[2][at] | masks[3][at] |
                                masks[4][at] | masks[5][at] | masks[6][at] | masks[7][at]);
}

}  // namespace sw

#endif  // SHAPEWIENER_SHAPE_SHAPE_H
