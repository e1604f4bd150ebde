#include "caller/shape_arguments.h"

#include <stdexcept>
#include <utility>

namespace swcaller {

ShapeArguments make_shape_arguments(uint32_t h, std::vector<double> scale_set,
                                    DirectionScaleMap direction_scales, bool group_by_union,
                                    GroupTies ties) {
    if (h < 1 || 2 * h - 1 > kSpectrumGrid) {
        throw std::invalid_argument("the maximum scale must lie in 1..16");
    }
    ShapeArguments s;
    s.h = h;
    s.scale_set = std::move(scale_set);
    s.direction_scales = std::move(direction_scales);
    s.transforms = dct_bank(2 * h - 1);
    s.sector_masks = sector_mask_bank(h);
    s.list = group_by_union
                 ? build_shape_list(h, s.scale_set, s.direction_scales, s.sector_masks, ties)
                 : build_processing_list(h, s.scale_set, s.direction_scales, s.sector_masks);
    return s;
}

ShapeArguments fixed_square_shapes(uint32_t rows, uint32_t cols, uint32_t h, uint32_t scale) {
    if (scale < 1 || scale > h) throw std::invalid_argument("the scale must lie in 1..h");
    // ScaleSet is 1..h, so index `scale` selects length `scale`.
    return make_shape_arguments(h, swcaller::scale_set(h),
                                fixed_direction_scales(rows, cols, static_cast<uint8_t>(scale)));
}

}  // namespace swcaller
