// Scales per pixel and direction: the ScaleSet of lengths and the
// DirectionScaleMap of 1-based indices into it.
//
// For now every pixel gets one fixed scale in all eight directions; a
// per-pixel selection fills the same map (set one index per pixel and
// plane), and everything downstream takes the map as it is.
#ifndef SHAPEWIENER_CALLER_DIRECTION_SCALES_H
#define SHAPEWIENER_CALLER_DIRECTION_SCALES_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace swcaller {

// The scale lengths 1, 2, ..., h: index v selects length v.
std::vector<double> scale_set(uint32_t h);

// A ScaleSet value as the module turns it into a length: rounded to the
// nearest integer, halves up (values are never negative here).
uint32_t scale_length(double value);

// rows x cols x 8 bytes, column-major: the index of pixel (row, col) in
// plane d (see sector_masks.h for the planes) at row + col * rows + d * rows * cols.
struct DirectionScaleMap {
    uint32_t rows = 0;
    uint32_t cols = 0;
    std::vector<uint8_t> indices;

    DirectionScaleMap() = default;
    DirectionScaleMap(uint32_t r, uint32_t c, uint8_t index)
        : rows(r), cols(c), indices(static_cast<size_t>(r) * c * 8, index) {}

    size_t plane_size() const { return static_cast<size_t>(rows) * cols; }
    uint8_t& at(uint32_t row, uint32_t col, uint32_t plane) {
        return indices[row + static_cast<size_t>(col) * rows + plane * plane_size()];
    }
    uint8_t at(uint32_t row, uint32_t col, uint32_t plane) const {
        return indices[row + static_cast<size_t>(col) * rows + plane * plane_size()];
    }
};

// Every pixel and direction at ScaleSet index `index`.
DirectionScaleMap fixed_direction_scales(uint32_t rows, uint32_t cols, uint8_t index);

}  // namespace swcaller

#endif  // SHAPEWIENER_CALLER_DIRECTION_SCALES_H
