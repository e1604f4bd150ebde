#include "driver/filter.h"

#include <cstring>
#include <utility>

#include "driver/box.h"
#include "driver/entry.h"
#include "driver/kernels.h"
#include "driver/level_store.h"
#include "driver/parallel.h"
#include "driver/phase_marks.h"
#include "driver/workspace.h"

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
    const uint32_t m = static_cast<uint32_t>(call.image_dims.rows());
    const uint32_t k = static_cast<uint32_t>(call.image_dims.cols());
    const uint32_t w = Box<HC>{h}.W();
    const uint32_t l = static_cast<uint32_t>(call.scale_set.dims.elements());
    const uint32_t coverage_threshold = round_to_unsigned(call.coverage_threshold);
    const uint32_t step = call.entry_step;
    const uint32_t row0 = call.frame.rows > 0 ? call.frame.row0 : 0;
    const uint32_t col0 = call.frame.rows > 0 ? call.frame.col0 : 0;
    const uint32_t pixel_count = m * k;
    const int32_t* processing_pixels = call.processing_list.data;
    const int32_t* processing_keys = processing_pixels + pixel_count;

    const WorkspaceSizes sizes{m, k, w, round_to_unsigned(call.dft_size), l};
    Workspace ws;
    if (!workspace_create(sizes, 1, &ws)) {
        return call_error(ErrorCode::kOutOfMemory, "shapewiener:memory:outOfMemory",
                          "not enough memory for the working arrays of this call.");
    }
    WorkspaceRelease release{&ws};
    const CallState& cs = ws.call;
    const EntryScratch sc = workspace_scratch(ws, sizes, 0);
    entry_setup(call, cs, w, l, output);
    const EntryInputs<HC> in(call, cs, h);

    // State kept across entries.
    int32_t previous_key = 0;
    uint64_t key_count = 0;   // key changes so far
    bool have_shape = false;  // a key 0 on the first accepted entry is a key change
    KeyShape shape;
    float dc_level = 0.0f;
    ListedShape listed{{sc.pixel_offset, sc.packed_slot}};

    for (uint32_t i = 0; i < pixel_count; ++i) {
        SW_PHASE_MARK(kPhaseLoop);
        if (options.progress && i % kProgressInterval == 0 && i > 0 &&
            !options.progress(static_cast<double>(i) / pixel_count)) {
            return call_error(ErrorCode::kInterrupted, "shapewiener:interrupted",
                              "the call was interrupted.");
        }
        const uint32_t q = static_cast<uint32_t>(processing_pixels[i]) - 1;
        if (cs.coverage_count[q] > coverage_threshold) continue;
        if (!on_entry_lattice(q % m + row0, q / m + col0, step, call.entry_diagonal)) continue;

        SW_PHASE_MARK(kPhaseShape);
        const int32_t key = processing_keys[i];
        const bool key_changed = !have_shape || key != previous_key;
        if (key_changed) {
            shape_parameters(call.direction_scale_map.data, q, pixel_count, cs.rounded_scales,
                             shape.direction_scale, &shape.by_columns);
            ++key_count;
        }
        const EntryState e = entry_gather<Kernels>(in, q, key_count - 1, shape, sc, &listed);
        SW_PHASE_MARK(kPhaseForward);
        entry_forward<Kernels>(in, e, sc);
        if (key_changed) {
            SW_PHASE_MARK(kPhaseNoiseLevel);
            dc_level = entry_levels<Kernels>(in, e, key_count - 1, shape, sc, store,
                                             sc.coefficient_noise_level);
        }
        SW_PHASE_MARK(kPhaseShrink);
        const ShrinkResult s = entry_shrink<Kernels>(in, e, sc, sc.coefficient_noise_level, dc_level);
        SW_PHASE_MARK(kPhaseInverse);
        entry_inverse<Kernels>(in, e, sc);
        SW_PHASE_MARK(kPhaseAggregate);
        entry_aggregate<Kernels>(in, e, shape, sc, listed, s, output);
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
