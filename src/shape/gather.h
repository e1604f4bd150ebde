// Gathering of image values on a shape, the tie-breaking dither of the input
// images and the mean removal.
//
// Packed block layout (W x W floats, column-major): block column b holds the
// shape's pixels of box column b (packing by columns) or box row b (packing
// by rows), in the order of increasing box coordinate along the line, in
// slots 0 .. column_count[b] - 1; every other slot is exactly 0.
#ifndef SHAPEWIENER_SHAPE_GATHER_H
#define SHAPEWIENER_SHAPE_GATHER_H

#include <cstdint>
#include <cstring>

#include "shape/shape.h"
#include "shapewiener/filter.h"

namespace sw {

// Per-entry results of the gather.
struct GatherResult {
    int32_t max_column_count;  // largest column_count, 0 for an empty shape
    uint32_t shape_size;       // number of shape pixels
    float noisy_mean;
    float pilot_mean;
};

// Adds the index-dependent dither to both images in place: walking from the
// last pixel, step k adds (k mod 256) * 3e-17 to the noisy image and
// ((k mod 256) + 13) * 3e-17 to the pilot image.
inline void dither_images(double* noisy, double* pilot, uint32_t pixel_count) {
    for (uint32_t k = 0; k < pixel_count; ++k) {
        const uint32_t q = pixel_count - 1 - k;
        const uint32_t step = k % 256;
        noisy[q] = noisy[q] + static_cast<double>(step) * 3e-17;
        pilot[q] = pilot[q] + static_cast<double>(step + 13) * 3e-17;
    }
}

// The dither of an M x K image that is the window at (row0, col0) of a
// frame_rows x frame_cols image: each pixel gets the step of its position
// in the frame, counted from the frame's last pixel. For the window that is
// the whole frame this is dither_images.
inline void dither_window(double* noisy, double* pilot, uint32_t m, uint32_t k, uint32_t row0,
                          uint32_t col0, uint32_t frame_rows, uint32_t frame_cols) {
    const uint64_t last = uint64_t{frame_rows} * frame_cols - 1;
    for (uint32_t j = 0; j < k; ++j) {
        for (uint32_t i = 0; i < m; ++i) {
            const uint64_t q = (row0 + uint64_t{i}) + (col0 + uint64_t{j}) * frame_rows;
            const uint32_t step = static_cast<uint32_t>((last - q) % 256);
            const size_t at = i + size_t{j} * m;
            noisy[at] = noisy[at] + static_cast<double>(step) * 3e-17;
            pilot[at] = pilot[at] + static_cast<double>(step + 13) * 3e-17;
        }
    }
}

// The dither of a call's M x K images: of their place in the call's frame
// when it has one, else dither_images.
inline void dither_call_images(double* noisy, double* pilot, uint32_t m, uint32_t k,
                               const FilterCall::Frame& frame) {
    if (frame.rows > 0) {
        dither_window(noisy, pilot, m, k, frame.row0, frame.col0, frame.rows, frame.cols);
    } else {
        dither_images(noisy, pilot, m * k);
    }
}

// Visits the first `len` shape pixels of line `line` in packing order (box
// column `line` by increasing row when by_columns, box row `line` by
// increasing column otherwise): visit(slot, along, position) with the
// pixel's slot in its block column, its coordinate along the line and its
// box position i + j*W. This is the inverse of the packing of gather_shape.
template <class Visit>
inline void walk_line(uint32_t w, uint32_t line, uint32_t len, bool by_columns,
                      const uint8_t* shape_mask, Visit visit) {
    uint32_t slot = 0;
    for (uint32_t along = 0; along < w && slot < len; ++along) {
        const uint32_t at = by_columns ? along + line * w : line + along * w;
        if (shape_mask[at] == 0) continue;
        visit(slot, along, at);
        ++slot;
    }
}

// Clears the per-entry arrays, forms the shape mask as the OR of the eight
// sector masks inside the clipped box, and packs the noisy and pilot values
// of the shape's pixels. `box` supplies H and W; (row, col) is the pixel.
template <class Box>
GatherResult gather_shape(const Box& box, uint32_t row, uint32_t col, const ClippedBox& clip,
                          const uint8_t* const masks[8], bool by_columns, const double* noisy,
                          const double* pilot, uint32_t m, uint8_t* shape_mask,
                          float* noisy_gather, float* pilot_gather, int32_t* column_count,
                          int32_t* row_count, int32_t* row_cursor) {
    const uint32_t w = box.W();
    const uint32_t reach = box.H() - 1;
    std::memset(noisy_gather, 0, sizeof(float) * w * w);
    std::memset(pilot_gather, 0, sizeof(float) * w * w);
    std::memset(shape_mask, 0, w * w);
    std::memset(column_count, 0, sizeof(int32_t) * w);
    std::memset(row_count, 0, sizeof(int32_t) * w);
    std::memset(row_cursor, 0, sizeof(int32_t) * w);

    float sum_noisy = 0.0f;
    float sum_pilot = 0.0f;
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
            const uint32_t t = b * w + static_cast<uint32_t>(column_count[b]);
            const size_t pixel = y + static_cast<size_t>(x) * m;
            noisy_gather[t] = static_cast<float>(noisy[pixel]);
            pilot_gather[t] = static_cast<float>(pilot[pixel]);
            sum_noisy = sum_noisy + noisy_gather[t];
            sum_pilot = sum_pilot + pilot_gather[t];
            column_count[b] = column_count[b] + 1;
            if (column_count[b] > max_count) max_count = column_count[b];
            n = n + 1;
        }
    }
    GatherResult result;
    result.max_column_count = max_count;
    result.shape_size = n;
    const double size = static_cast<double>(n);
    result.noisy_mean = static_cast<float>(static_cast<double>(sum_noisy) / size);
    result.pilot_mean = static_cast<float>(static_cast<double>(sum_pilot) / size);
    return result;
}

// Centres every occupied slot (non-zero noisy value; NaN counts as
// occupied) on the noisy mean with a tiny position ramp: slot t of the noisy
// array loses t*1e-17 + mean, of the pilot array (t+2)*1e-17 + mean, in
// double, rounded once. Clears both coefficient blocks in the same sweep.
template <class Box>
void remove_mean(const Box& box, float noisy_mean, float* noisy_gather, float* pilot_gather,
                 float* noisy_coefficients, float* pilot_coefficients) {
    const uint32_t area = box.W() * box.W();
    const double mean = static_cast<double>(noisy_mean);
    for (uint32_t t = 0; t < area; ++t) {
        if (noisy_gather[t] != 0.0f) {
            const double td = static_cast<double>(t);
            noisy_gather[t] =
                static_cast<float>(static_cast<double>(noisy_gather[t]) - (td * 1e-17 + mean));
            pilot_gather[t] = static_cast<float>(static_cast<double>(pilot_gather[t]) -
                                                 ((td + 2.0) * 1e-17 + mean));
        }
        noisy_coefficients[t] = 0.0f;
        pilot_coefficients[t] = 0.0f;
    }
}

}  // namespace sw

#endif  // SHAPEWIENER_SHAPE_GATHER_H
