// The order in which the module visits the pixels, and the ShapeKeys that
// let it reuse the per-shape noise levels.
//
// The module computes a shape's noise levels when the key changes and reuses
// them for every following entry with the same key; for those entries it
// also keeps the scales (and so the sectors) of the entry where the key
// changed, cut to each entry's own box. Pixels share a key only when that
// reproduces their own shape exactly.
#ifndef SHAPEWIENER_CALLER_PROCESSING_LIST_H
#define SHAPEWIENER_CALLER_PROCESSING_LIST_H

#include <cstdint>
#include <vector>

#include "caller/direction_scales.h"
#include "caller/sector_masks.h"

namespace swcaller {

// Two planes of rows * cols entries each: the 1-based pixel indices and the
// ShapeKeys (never 0). Every pixel appears once.
struct ProcessingList {
    std::vector<int32_t> pixels;
    std::vector<int32_t> keys;
    uint32_t key_changes = 0;  // consecutive runs of one key; = distinct keys
};

// The union of the eight sector masks for the scales of planes 0..7
// (lengths, not indices), over the whole W x W box.
Mask sector_union(uint32_t h, const SectorMaskBank& bank, const uint32_t scales[8]);

// `mask` with every position outside the image zeroed, for the box around
// pixel (row, col) of a rows x cols image.
Mask clip_to_image(const Mask& mask, uint32_t h, uint32_t row, uint32_t col, uint32_t rows,
                   uint32_t cols);

// Groups the pixels by shape: the union of their sectors inside the clipped
// box together with the packing orientation. Each group gets consecutive
// entries and one key; groups come in order of their first pixel
// (column-major), pixels within a group in increasing order. When the
// sectors of a run's first pixel, cut to another member's box, do not give
// that member's shape (possible only near the border, where the two boxes
// are cut differently and the scales differ), the member opens a further run
// of the group with a key of its own; with one scale set for all pixels this
// never happens.
ProcessingList build_processing_list(uint32_t h, const std::vector<double>& scale_set,
                                     const DirectionScaleMap& map, const SectorMaskBank& bank);

// The list the denoiser uses: one group, and one key, per distinct union of
// sectors, packing orientation and effective border clipping (the union cut
// to the pixel's box; a cut that removes nothing counts as none). Groups
// come by increasing area of the uncut union, ties in order of their first
// pixel; pixels within a group in increasing (column-major) order. Interior
// pixels cost one hash look-up; only pixels within h - 1 of the border have
// their cut union compared.
//
// `ties` orders groups of equal area: by their first pixel, or by their
// content (the union's bytes, then the orientation and the cut union), which
// depends on no pixel's position: a window of an image then visits its groups
// in the order the whole image visits them (tiled processing).
enum class GroupTies { kFirstPixel, kContent };
ProcessingList build_shape_list(uint32_t h, const std::vector<double>& scale_set,
                                const DirectionScaleMap& map, const SectorMaskBank& bank,
                                GroupTies ties = GroupTies::kFirstPixel);

}  // namespace swcaller

#endif  // SHAPEWIENER_CALLER_PROCESSING_LIST_H
