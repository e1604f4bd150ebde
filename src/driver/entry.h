// One accepted list entry: the body that the serial loop and the threaded
// driver share, for the reference kernels and the optimised ones alike.
//
//   entry_gather    the shape, gather and mean removal
//   entry_forward   forward transform
//   entry_levels    the key's noise levels (at a key change): read from the
//                   plan's store, or computed and stored
//   entry_shrink    Wiener shrinkage
//   entry_inverse   inverse transform
//   entry_aggregate weighted accumulation into the output (serial loop; the
//                   threaded driver keeps the values to commit in list order)
//
// The drivers differ only in what lies between the steps: the serial loop
// runs them one after the other, the threaded driver waits between the
// forward transform and the shrinkage for its key's levels.
#ifndef SHAPEWIENER_DRIVER_ENTRY_H
#define SHAPEWIENER_DRIVER_ENTRY_H

#include <cstdint>
#include <cstring>
#include <vector>

#include "driver/box.h"
#include "driver/level_store.h"
#include "driver/workspace.h"
#include "estimate/aggregate.h"
#include "estimate/listed.h"
#include "estimate/wiener.h"
#include "shape/gather.h"
#include "shape/shape.h"
#include "shape/shape_layout.h"
#include "shapewiener/filter.h"
#include "simd/simd.h"
#include "spectrum/noise_level.h"

namespace sw {

// What every entry of one execution reads.
template <uint32_t HC>
struct EntryInputs {
    Box<HC> box;
    uint32_t m;  // image rows
    uint32_t k;  // image columns
    const FilterCall* call;
    const CallState* state;

    EntryInputs(const FilterCall& c, const CallState& s, uint32_t h)
        : box{h},
          m(static_cast<uint32_t>(c.image_dims.rows())),
          k(static_cast<uint32_t>(c.image_dims.cols())),
          call(&c),
          state(&s) {}
};

// Fills the call's shared state and clears the sums and counts: the set-up
// every execution starts with (the images are dithered in place).
inline void entry_setup(const FilterCall& call, const CallState& cs, uint32_t w, uint32_t l,
                        double* output) {
    const uint32_t m = static_cast<uint32_t>(call.image_dims.rows());
    const uint32_t k = static_cast<uint32_t>(call.image_dims.cols());
    const size_t pixel_count = size_t{m} * k;
    for (uint32_t i = 0; i < w; ++i) cs.transform_table[i] = call.transforms[i].data;
    for (uint32_t i = 0; i < l; ++i) cs.rounded_scales[i] = round_to_unsigned(call.scale_set.data[i]);
    if (pixel_count > 0) {
        std::memset(output, 0, sizeof(double) * pixel_count);
        std::memset(cs.weight_sum, 0, sizeof(float) * pixel_count);
        std::memset(cs.coverage_count, 0, sizeof(uint16_t) * pixel_count);
    }
    dither_call_images(call.noisy_image, call.pilot_image, m, k, call.frame);
}

// A key's shape: its eight scales and packing.
struct KeyShape {
    uint32_t direction_scale[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    bool by_columns = false;
};

// A thread's listed shape (optimised kernels) and the key and clipping it
// was made for.
struct ListedShape {
    ShapeLayout layout;
    uint64_t key = UINT64_MAX;
    ClipReach reach{};
};

// An entry in flight: where it is and what its gather found.
struct EntryState {
    uint32_t row;
    uint32_t col;
    ClippedBox clip;
    GatherResult gather;
};

// Shape, gather and mean removal of the entry at pixel q (0-based) of key
// number `key`, into the scratch set's gather arrays.
template <class Kernels, uint32_t HC>
EntryState entry_gather(const EntryInputs<HC>& in, uint32_t q, uint64_t key, const KeyShape& shape,
                         const EntryScratch& sc, ListedShape* listed) {
    const FilterCall& call = *in.call;
    EntryState e;
    e.col = q / in.m;
    e.row = q - e.col * in.m;
    e.clip = clipped_box(e.row, e.col, in.m, in.k, in.box.H());
    if constexpr (Kernels::kListedShapes) {
        const ClipReach reach = clip_reach(e.clip, e.row, e.col);
        if (listed->key != key || !(listed->reach == reach)) {
            const uint8_t* masks[8];
            fetch_sector_masks(call.sector_masks, shape.direction_scale, in.box.H(), masks);
            build_layout(in.box, e.row, e.col, e.clip, masks, shape.by_columns, in.m, sc.shape_mask,
                         sc.column_count, &listed->layout);
            listed->key = key;
            listed->reach = reach;
        }
        e.gather = gather_listed(in.box, e.clip, listed->layout, call.noisy_image,
                                 call.pilot_image, in.m, sc.noisy_gather, sc.pilot_gather,
                                 sc.row_count, sc.row_cursor);
        remove_mean_listed(in.box, listed->layout, e.gather.noisy_mean, sc.noisy_gather,
                           sc.pilot_gather, sc.noisy_coefficients, sc.pilot_coefficients);
    } else {
        const uint8_t* masks[8];
        fetch_sector_masks(call.sector_masks, shape.direction_scale, in.box.H(), masks);
        e.gather = gather_shape(in.box, e.row, e.col, e.clip, masks, shape.by_columns,
                                call.noisy_image, call.pilot_image, in.m, sc.shape_mask,
                                sc.noisy_gather, sc.pilot_gather, sc.column_count, sc.row_count,
                                sc.row_cursor);
        remove_mean(in.box, e.gather.noisy_mean, sc.noisy_gather, sc.pilot_gather,
                    sc.noisy_coefficients, sc.pilot_coefficients);
    }
    return e;
}

// The forward transform into the scratch set's coefficient blocks.
template <class Kernels, uint32_t HC>
void entry_forward(const EntryInputs<HC>& in, const EntryState& e, const EntryScratch& sc) {
    if constexpr (Kernels::kListedShapes) {
        Kernels::forward(in.box, sc.noisy_gather, sc.pilot_gather, sc.noisy_coefficients,
                         sc.pilot_coefficients, sc.column_count, sc.row_count,
                         e.gather.max_column_count, in.state->transform_table, simd::active(),
                         !in.call->float_sums);
    } else {
        Kernels::forward(in.box, sc.noisy_gather, sc.pilot_gather, sc.noisy_coefficients,
                         sc.pilot_coefficients, sc.column_count, sc.row_count,
                         e.gather.max_column_count, in.state->transform_table);
    }
}

// The levels of key number `key` from its first accepted entry (just
// transformed): from `store` when it has them, else computed (and stored).
// Returns the mean's level.
template <class Kernels, uint32_t HC>
float entry_levels(const EntryInputs<HC>& in, const EntryState& e, uint64_t key,
                   const KeyShape& shape, const EntryScratch& sc, LevelStore* store,
                   float* levels) {
    float dc_level = 0.0f;
    if (store != nullptr && store->load(key, sc.noisy_coefficients, levels, &dc_level)) {
        return dc_level;
    }
    const FilterCall& call = *in.call;
    // Every coefficient of the shape (LevelRule::kShapeLevels): the levels
    // are asked for where the forward transform puts coefficients, r * W + k
    // for k < row_count[r], whatever their values. The pilot gather array
    // holds the flags: it is not read again before the shrinkage clears it.
    const float* wanted = sc.noisy_coefficients;
    if (store != nullptr && store->shape_levels) {
        const uint32_t w = in.box.W();
        std::memset(sc.pilot_gather, 0, sizeof(float) * w * w);
        for (uint32_t r = 0; r < static_cast<uint32_t>(e.gather.max_column_count); ++r) {
            for (int32_t k = 0; k < sc.row_count[r]; ++k) sc.pilot_gather[r * w + k] = 1.0f;
        }
        wanted = sc.pilot_gather;
    }
    const SpectrumContext spectrum{round_to_unsigned(call.dft_size), in.state->twiddle,
                                   sc.spatial_block, sc.row_spectrum, sc.block_spectrum,
                                   call.noise_psd.data, call.noise_level_factor};
    const uint8_t* mask = sc.shape_mask;
    const int32_t* column_count = sc.column_count;
    bool by_columns = shape.by_columns;
    // Keys that share their levels compute them on the common geometry:
    // lines as block columns, mirrored across the lines where the store says.
    std::vector<uint8_t> common_mask;
    std::vector<int32_t> common_count;
    if (store != nullptr && !store->slot_of_key.empty()) {
        const uint32_t w = in.box.W();
        const bool mirror = store->mirror(key);
        common_mask.assign(static_cast<size_t>(w) * w, 0);
        common_count.assign(w, 0);
        for (uint32_t line = 0; line < w; ++line) {
            const uint32_t to = mirror ? w - 1 - line : line;
            common_count[to] = sc.column_count[line];
            for (uint32_t along = 0; along < w; ++along) {
                common_mask[along + to * w] =
                    sc.shape_mask[by_columns ? along + line * w : line + along * w];
            }
        }
        mask = common_mask.data();
        column_count = common_count.data();
        by_columns = true;
    }
    dc_level = Kernels::noise_levels(in.box, spectrum, wanted, sc.noisy_gather, column_count,
                                     sc.row_count, sc.row_cursor, e.gather.max_column_count,
                                     in.state->transform_table, mask, by_columns,
                                     e.gather.shape_size, levels);
    if (store != nullptr) store->save(key, wanted, levels, dc_level);
    return dc_level;
}

// Shrinkage of the coefficients (clears both gather arrays).
template <class Kernels, uint32_t HC>
ShrinkResult entry_shrink(const EntryInputs<HC>& in, const EntryState& e, const EntryScratch& sc,
                          const float* levels, float dc_level) {
    const uint32_t w = in.box.W();
    const double lambda = in.call->wiener_variance_factor;
    std::memset(sc.row_cursor, 0, sizeof(int32_t) * w);
    const double shape_size = static_cast<double>(e.gather.shape_size);
    ShrinkResult s;
    if constexpr (Kernels::kListedShapes) {
        s = wiener_shrink_listed(in.box, sc.row_count, e.gather.max_column_count,
                                 sc.noisy_coefficients, sc.pilot_coefficients, levels, dc_level,
                                 e.gather.noisy_mean, e.gather.pilot_mean, shape_size, lambda,
                                 sc.noisy_gather, sc.pilot_gather);
    } else {
        s = wiener_shrink(in.box, sc.noisy_coefficients, sc.pilot_coefficients, levels, dc_level,
                          e.gather.noisy_mean, e.gather.pilot_mean, shape_size, lambda,
                          sc.noisy_gather, sc.pilot_gather);
    }
    return s;
}

// The inverse transform: the entry's estimate ends in the noisy gather
// array (packed).
template <class Kernels, uint32_t HC>
void entry_inverse(const EntryInputs<HC>& in, const EntryState& e, const EntryScratch& sc) {
    if constexpr (Kernels::kListedShapes) {
        Kernels::inverse(in.box, sc.noisy_coefficients, sc.noisy_gather, sc.column_count,
                         sc.row_count, sc.row_cursor, e.gather.max_column_count,
                         in.state->transform_table, simd::active(), !in.call->float_sums);
    } else {
        Kernels::inverse(in.box, sc.noisy_coefficients, sc.noisy_gather, sc.column_count,
                         sc.row_count, sc.row_cursor, e.gather.max_column_count,
                         in.state->transform_table);
    }
}

// Adds the entry's estimate into output, weight sums and coverage counts.
template <class Kernels, uint32_t HC>
void entry_aggregate(const EntryInputs<HC>& in, const EntryState& e, const KeyShape& shape,
                     const EntryScratch& sc, const ListedShape& listed, const ShrinkResult& s,
                     double* output) {
    const CallState& cs = *in.state;
    const double shape_size = static_cast<double>(e.gather.shape_size);
    if constexpr (Kernels::kListedShapes) {
        (void)shape;
        aggregate_listed(e.clip, listed.layout, sc.noisy_gather, s.dc_estimate,
                         s.estimate_variance, shape_size, in.m, output, cs.weight_sum,
                         cs.coverage_count);
    } else {
        (void)listed;
        aggregate_shape(in.box, e.row, e.col, e.clip, sc.noisy_gather, sc.column_count,
                        shape.by_columns, sc.shape_mask, s.dc_estimate, s.estimate_variance,
                        shape_size, in.m, sc.noisy_coefficients, output, cs.weight_sum,
                        cs.coverage_count);
    }
}

}  // namespace sw

#endif  // SHAPEWIENER_DRIVER_ENTRY_H
