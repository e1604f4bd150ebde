// The shapes of one image as the filter module takes them: scales per pixel
// and direction, transforms, sector masks and the processing list. Nothing
// here depends on a host: the denoiser builds its calls from these.
#ifndef SHAPEWIENER_CALLER_SHAPE_ARGUMENTS_H
#define SHAPEWIENER_CALLER_SHAPE_ARGUMENTS_H

#include <cstdint>
#include <vector>

#include "caller/direction_scales.h"
#include "caller/image.h"
#include "caller/processing_list.h"
#include "caller/sector_masks.h"
#include "caller/transform_bank.h"

namespace swcaller {

// Side of the noise spectrum grid; 32 selects the module's fast spectrum path.
constexpr uint32_t kSpectrumGrid = 32;

// A coverage threshold above any count the module can reach: no pixel is
// ever skipped.
constexpr double kNeverSkip = 1e9;

// Everything the shapes decide: the maximum scale, the scales per pixel and
// direction, the transforms, the sector masks and the processing list. The
// same set-up serves both passes.
struct ShapeArguments {
    uint32_t h = 0;
    std::vector<double> scale_set;
    DirectionScaleMap direction_scales;
    TransformBank transforms;
    SectorMaskBank sector_masks;
    ProcessingList list;
};

// Builds transforms, masks and list for the given scales (h must be at most
// 16, so that the box fits the spectrum grid); the list by
// build_shape_list (with `ties`) when `group_by_union`, else by
// build_processing_list.
ShapeArguments make_shape_arguments(uint32_t h, std::vector<double> scale_set,
                                    DirectionScaleMap direction_scales,
                                    bool group_by_union = false,
                                    GroupTies ties = GroupTies::kFirstPixel);

// Square shapes of side 2 * scale - 1 for a rows x cols image: every
// direction of every pixel at `scale` (1 .. h).
ShapeArguments fixed_square_shapes(uint32_t rows, uint32_t cols, uint32_t h, uint32_t scale);

}  // namespace swcaller

#endif  // SHAPEWIENER_CALLER_SHAPE_ARGUMENTS_H
