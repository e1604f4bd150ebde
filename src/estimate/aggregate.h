// Weighted, clipped accumulation of each shape's estimate into the output.
#ifndef SHAPEWIENER_ESTIMATE_AGGREGATE_H
#define SHAPEWIENER_ESTIMATE_AGGREGATE_H

#include <cstdint>
#include <cstring>

#include "shape/gather.h"
#include "shape/shape.h"

namespace sw {

// Scatters the packed result (block column b, slots 0 .. column_count[b]-1)
// onto the shape's pixels of `reconstruction` (W x W box coordinates; cleared
// first), then adds dc_estimate to every shape pixel of the clipped box,
// clips to [0, 1] and accumulates value * weight into output, the weight
// 1 / (variance * n) into weight_sum and 1 into coverage_count.
template <class Box>
void aggregate_shape(const Box& box, uint32_t row, uint32_t col, const ClippedBox& clip,
                     const float* packed, const int32_t* column_count, bool by_columns,
                     const uint8_t* shape_mask, float dc_estimate, float estimate_variance,
                     double shape_size, uint32_t m, float* reconstruction, double* output,
                     float* weight_sum, uint16_t* coverage_count) {
    const uint32_t w = box.W();
    const uint32_t reach = box.H() - 1;
    std::memset(reconstruction, 0, sizeof(float) * w * w);
    for (uint32_t b = 0; b < w; ++b) {
        walk_line(w, b, static_cast<uint32_t>(column_count[b]), by_columns, shape_mask,
                  [&](uint32_t slot, uint32_t, uint32_t at) { reconstruction[at] = packed[b * w + slot]; });
    }

    const double weight = 1.0 / (static_cast<double>(estimate_variance) * shape_size);
    for (uint32_t x = clip.c0; x <= clip.c1; ++x) {
        const uint32_t j = x - col + reach;
        for (uint32_t y = clip.r0; y <= clip.r1; ++y) {
            const uint32_t i = y - row + reach;
            if (shape_mask[i + j * w] == 0) continue;
            const float v = dc_estimate + reconstruction[i + j * w];
            double clipped = 0.0;
            if (v > 0.0f) clipped = 1.0f > v ? static_cast<double>(v) : 1.0;
            const size_t p = y + static_cast<size_t>(x) * m;
            output[p] = output[p] + clipped * weight;
            weight_sum[p] = static_cast<float>(static_cast<double>(weight_sum[p]) + weight);
            coverage_count[p] = static_cast<uint16_t>(coverage_count[p] + 1);
        }
    }
}

// Divides every output pixel by its accumulated weight.
inline void normalise_output(double* output, const float* weight_sum, uint32_t pixel_count) {
    for (uint32_t q = 0; q < pixel_count; ++q) {
        output[q] = output[q] / static_cast<double>(weight_sum[q]);
    }
}

}  // namespace sw

#endif  // SHAPEWIENER_ESTIMATE_AGGREGATE_H
