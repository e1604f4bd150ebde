#include "caller/direction_scales.h"

namespace swcaller {

std::vector<double> scale_set(uint32_t h) {
    std::vector<double> scales;
    for (uint32_t s = 1; s <= h; ++s) scales.push_back(static_cast<double>(s));
    return scales;
}

uint32_t scale_length(double value) { return static_cast<uint32_t>(value + 0.5); }

DirectionScaleMap fixed_direction_scales(uint32_t rows, uint32_t cols, uint8_t index) {
    return DirectionScaleMap(rows, cols, index);
}

}  // namespace swcaller
