#include "driver/filter.h"

#include <cstring>
#include <utility>

#include "driver/box.h"
#include "driver/kernels.h"
#include "driver/level_store.h"
#include "driver/parallel.h"
#include "driver/phase_marks.h"
#include "driver/workspace.h"
#include "estimate/aggregate.h"
#include "estimate/wiener.h"
#include "shape/gather.h"
#include "shape/shape.h"
#include "shape/shape_layout.h"
#include "spectrum/noise_level.h"
#include "transform/shape_transform.h"

namespace sw {

Error call_error(ErrorCode code, const char* identifier, const char* message) {
    Error e;
    e.code = code;
    std::strncpy(e.identifier, identifier, sizeof e.identifier - 1);
    std::strncpy(e.message, message, sizeof e.message - 1);
    return e;
}

namespace {

// Releases the workspace however the call leaves.
struct WorkspaceRelease {
    Workspace* ws;
    ~WorkspaceRelease() { workspace_release(ws); }
};

// How often (in list entries) the progress callback is offered a turn.
constexpr uint32_t kProgressInterval = 4096;

// The serial loop, with the reference kernels or the optimised ones.
template <uint32_t HC, class Kernels>
Error serial_filter(const FilterCall& call, double* output, const RunOptions& options, uint32_t h,
                    LevelStore* store) {
    SW_PHASE_MARK(kPhaseSetup);
    const Box<HC> box{h};
    const uint32_t big_h = box.H();
    const uint32_t w = box.W();
    const uint32_t m = static_cast<uint32_t>(call.image_dims.rows());
    const uint32_t k = static_cast<uint32_t>(call.image_dims.cols());
    const uint32_t n = round_to_unsigned(call.dft_size);
    const uint32_t l = static_cast<uint32_t>(call.scale_set.dims.elements());
    const uint32_t coverage_threshold = round_to_unsigned(call.coverage_threshold);
    const uint32_t step = call.entry_step;
    const uint32_t row0 = call.frame.rows > 0 ? call.frame.row0 : 0;
    const uint32_t col0 = call.frame.rows > 0 ? call.frame.col0 : 0;
    const uint32_t pixel_count = m * k;
    const int32_t* processing_pixels = call.processing_list.data;
    const int32_t* processing_keys = processing_pixels + pixel_count;
    double* noisy_image = call.noisy_image;
    double* pilot_image = call.pilot_image;

    const WorkspaceSizes sizes{m, k, w, n, l};
    Workspace ws;
    if (!workspace_create(sizes, 1, &ws)) {
        return call_error(ErrorCode::kOutOfMemory, "shapewiener:memory:outOfMemory",
                          "not enough memory for the working arrays of this call.");
    }
    WorkspaceRelease release{&ws};
    const CallState& cs = ws.call;
    const EntryScratch sc = workspace_scratch(ws, sizes, 0);

    for (uint32_t i = 0; i < w; ++i) cs.transform_table[i] = call.transforms[i].data;
    for (uint32_t i = 0; i < l; ++i) cs.rounded_scales[i] = round_to_unsigned(call.scale_set.data[i]);
    if (pixel_count > 0) {
        std::memset(output, 0, sizeof(double) * pixel_count);
        std::memset(cs.weight_sum, 0, sizeof(float) * pixel_count);
        std::memset(cs.coverage_count, 0, sizeof(uint16_t) * pixel_count);
    }
    dither_call_images(noisy_image, pilot_image, m, k, call.frame);

    const SpectrumContext spectrum{n,           cs.twiddle, sc.spatial_block, sc.row_spectrum,
                                   sc.block_spectrum, call.noise_psd.data, call.noise_level_factor};
    const double* const* table = cs.transform_table;
    float* noisy_gather = sc.noisy_gather;
    float* noisy_coefficients = sc.noisy_coefficients;
    float* pilot_gather = sc.pilot_gather;
    float* pilot_coefficients = sc.pilot_coefficients;

    // State kept across entries.
    int32_t previous_key = 0;
    uint64_t key_number = 0;  // key changes so far
    bool have_shape = false;  // a key 0 on the first accepted entry is a key change
    uint32_t direction_scale[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    bool by_columns = false;
    float dc_noise_level = 0.0f;
    // The listed shape of the optimised path and the clipping it was made for.
    ShapeLayout layout{sc.pixel_offset, sc.packed_slot};
    ClipReach layout_reach{};

    for (uint32_t i = 0; i < pixel_count; ++i) {
        SW_PHASE_MARK(kPhaseLoop);
        if (options.progress && i % kProgressInterval == 0 && i > 0 &&
            !options.progress(static_cast<double>(i) / pixel_count)) {
            return call_error(ErrorCode::kInterrupted, "shapewiener:interrupted",
                              "the call was interrupted.");
        }
        const uint32_t q = static_cast<uint32_t>(processing_pixels[i]) - 1;
        const uint32_t col = q / m;
        const uint32_t row = q - col * m;
        if (cs.coverage_count[q] > coverage_threshold) continue;
        if (step > 1 && ((row + row0) % step != 0 || (col + col0) % step != 0)) continue;

        SW_PHASE_MARK(kPhaseShape);
        const ClippedBox clip = clipped_box(row, col, m, k, big_h);
        const int32_t key = processing_keys[i];
        const bool key_changed = !have_shape || key != previous_key;
        if (key_changed) {
            shape_parameters(call.direction_scale_map.data, q, pixel_count, cs.rounded_scales,
                             direction_scale, &by_columns);
        }
        GatherResult g;
        if constexpr (Kernels::kListedShapes) {
            const ClipReach reach = clip_reach(clip, row, col);
            if (key_changed || !(reach == layout_reach)) {
                const uint8_t* masks[8];
                fetch_sector_masks(call.sector_masks, direction_scale, big_h, masks);
                build_layout(box, row, col, clip, masks, by_columns, m, sc.shape_mask,
                             sc.column_count, &layout);
                layout_reach = reach;
            }
            g = gather_listed(box, clip, layout, noisy_image, pilot_image, m, noisy_gather,
                              pilot_gather, sc.row_count, sc.row_cursor);
            remove_mean_listed(box, layout, g.noisy_mean, noisy_gather, pilot_gather,
                               noisy_coefficients, pilot_coefficients);
        } else {
            const uint8_t* masks[8];
            fetch_sector_masks(call.sector_masks, direction_scale, big_h, masks);
            g = gather_shape(box, row, col, clip, masks, by_columns, noisy_image, pilot_image, m,
                             sc.shape_mask, noisy_gather, pilot_gather, sc.column_count,
                             sc.row_count, sc.row_cursor);
            remove_mean(box, g.noisy_mean, noisy_gather, pilot_gather, noisy_coefficients,
                        pilot_coefficients);
        }

        SW_PHASE_MARK(kPhaseForward);
        Kernels::forward(box, noisy_gather, pilot_gather, noisy_coefficients,
                          pilot_coefficients, sc.column_count, sc.row_count,
                          g.max_column_count, table);

        if (key_changed) {
            SW_PHASE_MARK(kPhaseNoiseLevel);
            if (store == nullptr ||
                !store->load(key_number, noisy_coefficients, sc.coefficient_noise_level,
                                 &dc_noise_level)) {
                dc_noise_level = Kernels::noise_levels(
                    box, spectrum, noisy_coefficients, noisy_gather, sc.column_count,
                    sc.row_count, sc.row_cursor, g.max_column_count, table, sc.shape_mask,
                    by_columns, g.shape_size, sc.coefficient_noise_level);
                if (store != nullptr) store->save(key_number, sc.coefficient_noise_level, dc_noise_level);
            }
            ++key_number;
        }

        SW_PHASE_MARK(kPhaseShrink);
        std::memset(sc.row_cursor, 0, sizeof(int32_t) * w);
        const double shape_size = static_cast<double>(g.shape_size);
        ShrinkResult s;
        if constexpr (Kernels::kListedShapes) {
            s = wiener_shrink_listed(box, sc.row_count, g.max_column_count, noisy_coefficients,
                                     pilot_coefficients, sc.coefficient_noise_level,
                                     dc_noise_level, g.noisy_mean, g.pilot_mean, shape_size,
                                     call.wiener_variance_factor, noisy_gather, pilot_gather);
        } else {
            s = wiener_shrink(box, noisy_coefficients, pilot_coefficients,
                              sc.coefficient_noise_level, dc_noise_level, g.noisy_mean,
                              g.pilot_mean, shape_size, call.wiener_variance_factor, noisy_gather,
                              pilot_gather);
        }

        SW_PHASE_MARK(kPhaseInverse);
        Kernels::inverse(box, noisy_coefficients, noisy_gather, sc.column_count, sc.row_count,
                          sc.row_cursor, g.max_column_count, table);

        SW_PHASE_MARK(kPhaseAggregate);
        if constexpr (Kernels::kListedShapes) {
            aggregate_listed(clip, layout, noisy_gather, s.dc_estimate, s.estimate_variance,
                             shape_size, m, output, cs.weight_sum, cs.coverage_count);
        } else {
            aggregate_shape(box, row, col, clip, noisy_gather, sc.column_count, by_columns,
                            sc.shape_mask, s.dc_estimate, s.estimate_variance, shape_size, m,
                            noisy_coefficients, output, cs.weight_sum, cs.coverage_count);
        }

        // The gather array and the coefficient block of each pair swap roles.
        std::swap(noisy_gather, noisy_coefficients);
        std::swap(pilot_gather, pilot_coefficients);
        previous_key = key;
        have_shape = true;
    }

    SW_PHASE_MARK(kPhaseFinish);
    if (pixel_count > 0) normalise_output(output, cs.weight_sum, pixel_count);
    SW_PHASE_MARK(kPhaseDone);
    return Error();
}

// The reference path, the serial loop with the optimised kernels, or the
// threaded driver, as the options and the memory limit allow.
template <uint32_t HC>
Error run_filter(const FilterCall& call, double* output, const RunOptions& options, uint32_t h,
                 LevelStore* store) {
    if (options.reference) return serial_filter<HC, ReferenceKernels>(call, output, options, h, store);
    const uint32_t m = static_cast<uint32_t>(call.image_dims.rows());
    const uint32_t k = static_cast<uint32_t>(call.image_dims.cols());
    const WorkspaceSizes sizes{m, k, Box<HC>{h}.W(), round_to_unsigned(call.dft_size),
                               static_cast<uint32_t>(call.scale_set.dims.elements())};
    const unsigned threads = affordable_threads(sizes, requested_threads(options));
    if (threads > 1 && m * k > 0) {
        bool ran = false;
        const Error e = run_parallel<HC>(call, output, options, h, threads, store, &ran);
        if (ran) return e;
    }
    return serial_filter<HC, FastKernels>(call, output, options, h, store);
}

template <uint32_t HC>
Error run_unplanned(const FilterCall& call, double* output, const RunOptions& options, uint32_t h) {
    return run_filter<HC>(call, output, options, h, nullptr);
}

template <size_t... I>
FilterEntry entry_for(uint32_t h, std::index_sequence<I...> /*unused*/) {
    FilterEntry entry = &run_unplanned<0>;
    ((h == kSpecialisedScales[I] ? (entry = &run_unplanned<kSpecialisedScales[I]>, 0) : 0), ...);
    return entry;
}

template <size_t... I>
StoredLevelsEntry stored_entry_for(uint32_t h, std::index_sequence<I...> /*unused*/) {
    StoredLevelsEntry entry = &run_filter<0>;
    ((h == kSpecialisedScales[I] ? (entry = &run_filter<kSpecialisedScales[I]>, 0) : 0), ...);
    return entry;
}

}  // namespace

FilterEntry filter_entry(uint32_t h) {
    constexpr size_t count = sizeof kSpecialisedScales / sizeof kSpecialisedScales[0];
    return entry_for(h, std::make_index_sequence<count>{});
}

StoredLevelsEntry stored_levels_entry(uint32_t h) {
    constexpr size_t count = sizeof kSpecialisedScales / sizeof kSpecialisedScales[0];
    return stored_entry_for(h, std::make_index_sequence<count>{});
}

Error run_general(const FilterCall& call, double* output, const RunOptions& options, uint32_t h) {
    return run_filter<0>(call, output, options, h, nullptr);
}


}  // namespace sw
