#include "driver/filter.h"

#include <cstring>
#include <utility>

#include "driver/box.h"
#include "driver/phase_marks.h"
#include "driver/workspace.h"
#include "estimate/aggregate.h"
#include "estimate/wiener.h"
#include "mex/arguments.h"
#include "shape/gather.h"
#include "shape/shape.h"
#include "spectrum/levels_fast.h"
#include "spectrum/noise_level.h"
#include "transform/shape_transform.h"
#include "transform/transform_fast.h"

namespace sw {
namespace {

// Releases the workspace when the call leaves, also by an error raised
// through the host (an allocation failure of the output, say).
struct WorkspaceRelease {
    Workspace* ws;
    ~WorkspaceRelease() { workspace_release(ws); }
};

}  // namespace

template <uint32_t HC>
void run_filter(mxArray** plhs, const mxArray* const* prhs, uint32_t h) {
    SW_PHASE_MARK(kPhaseSetup);
    const Box<HC> box{h};
    const uint32_t big_h = box.H();
    const uint32_t w = box.W();
    const CallArguments a = read_arguments(prhs);
    const uint32_t m = a.m;
    const uint32_t pixel_count = a.m * a.k;

    Workspace ws;
    if (!workspace_create(WorkspaceSizes{a.m, a.k, w, a.n, a.l}, &ws)) {
        mexErrMsgIdAndTxt("shapewiener:memory:outOfMemory",
                          "not enough memory for the working arrays of this call.");
    }
    WorkspaceRelease release{&ws};

    plhs[0] = mxCreateDoubleMatrix(a.m, a.k, mxREAL);
    double* output = mxGetPr(plhs[0]);
    for (uint32_t i = 0; i < w; ++i) {
        ws.transform_table[i] = static_cast<const double*>(mxGetData(mxGetCell(a.transform_bank, i)));
    }
    for (uint32_t i = 0; i < a.l; ++i) ws.rounded_scales[i] = round_to_unsigned(a.scale_set[i]);
    if (pixel_count > 0) {
        std::memset(output, 0, sizeof(double) * pixel_count);
        std::memset(ws.weight_sum, 0, sizeof(float) * pixel_count);
        std::memset(ws.coverage_count, 0, sizeof(uint16_t) * pixel_count);
    }
    dither_images(a.noisy_image, a.pilot_image, pixel_count);

    const SpectrumContext spectrum{a.n,          ws.twiddle,  ws.spatial_block,
                                   ws.row_spectrum, ws.block_spectrum, a.noise_psd,
                                   a.noise_level_factor};
    const double* const* table = ws.transform_table;
    float* noisy_gather = ws.noisy_gather;
    float* noisy_coefficients = ws.noisy_coefficients;
    float* pilot_gather = ws.pilot_gather;
    float* pilot_coefficients = ws.pilot_coefficients;

    // State kept across entries.
    int32_t previous_key = 0;
    bool have_shape = false;  // a key 0 on the first accepted entry is a key change
    uint32_t direction_scale[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    bool by_columns = false;
    float dc_noise_level = 0.0f;

    for (uint32_t i = 0; i < pixel_count; ++i) {
        SW_PHASE_MARK(kPhaseLoop);
        const uint32_t q = static_cast<uint32_t>(a.processing_pixels[i]) - 1;
        const uint32_t col = q / m;
        const uint32_t row = q - col * m;
        if (ws.coverage_count[q] > a.coverage_threshold) continue;

        SW_PHASE_MARK(kPhaseShape);
        const ClippedBox clip = clipped_box(row, col, m, a.k, big_h);
        const int32_t key = a.processing_keys[i];
        const bool key_changed = !have_shape || key != previous_key;
        if (key_changed) {
            shape_parameters(a.direction_scale_map, q, pixel_count, ws.rounded_scales,
                             direction_scale, &by_columns);
        }
        const uint8_t* masks[8];
        fetch_sector_masks(a.sector_mask_bank, direction_scale, big_h, masks);
        const GatherResult g =
            gather_shape(box, row, col, clip, masks, by_columns, a.noisy_image, a.pilot_image, m,
                         ws.shape_mask, noisy_gather, pilot_gather, ws.column_count,
                         ws.row_count, ws.row_cursor);
        remove_mean(box, g.noisy_mean, noisy_gather, pilot_gather, noisy_coefficients,
                    pilot_coefficients);

        SW_PHASE_MARK(kPhaseForward);
        forward_transform_fast(box, noisy_gather, pilot_gather, noisy_coefficients,
                          pilot_coefficients, ws.column_count, ws.row_count,
                          g.max_column_count, table);

        if (key_changed) {
            SW_PHASE_MARK(kPhaseNoiseLevel);
            dc_noise_level = noise_levels_fast(box, spectrum, noisy_coefficients, noisy_gather,
                                          ws.column_count, ws.row_count, ws.row_cursor,
                                          g.max_column_count, table, ws.shape_mask, by_columns,
                                          g.shape_size, ws.coefficient_noise_level);
        }

        SW_PHASE_MARK(kPhaseShrink);
        std::memset(ws.row_cursor, 0, sizeof(int32_t) * w);
        const double shape_size = static_cast<double>(g.shape_size);
        const ShrinkResult s = wiener_shrink(
            box, noisy_coefficients, pilot_coefficients, ws.coefficient_noise_level,
            dc_noise_level, g.noisy_mean, g.pilot_mean, shape_size, a.wiener_variance_factor,
            noisy_gather, pilot_gather);

        SW_PHASE_MARK(kPhaseInverse);
        inverse_transform_fast(box, noisy_coefficients, noisy_gather, ws.column_count, ws.row_count,
                          ws.row_cursor, g.max_column_count, table);

        SW_PHASE_MARK(kPhaseAggregate);
        aggregate_shape(box, row, col, clip, noisy_gather, ws.column_count, by_columns,
                        ws.shape_mask, s.dc_estimate, s.estimate_variance, shape_size, m,
                        noisy_coefficients, output, ws.weight_sum, ws.coverage_count);

        // The gather array and the coefficient block of each pair swap roles.
        std::swap(noisy_gather, noisy_coefficients);
        std::swap(pilot_gather, pilot_coefficients);
        previous_key = key;
        have_shape = true;
    }

    SW_PHASE_MARK(kPhaseFinish);
    if (pixel_count > 0) normalise_output(output, ws.weight_sum, pixel_count);
    SW_PHASE_MARK(kPhaseDone);
}

template void run_filter<0>(mxArray**, const mxArray* const*, uint32_t);
template void run_filter<4>(mxArray**, const mxArray* const*, uint32_t);
template void run_filter<5>(mxArray**, const mxArray* const*, uint32_t);
template void run_filter<6>(mxArray**, const mxArray* const*, uint32_t);
template void run_filter<7>(mxArray**, const mxArray* const*, uint32_t);
template void run_filter<8>(mxArray**, const mxArray* const*, uint32_t);
template void run_filter<9>(mxArray**, const mxArray* const*, uint32_t);
template void run_filter<10>(mxArray**, const mxArray* const*, uint32_t);
template void run_filter<11>(mxArray**, const mxArray* const*, uint32_t);

}  // namespace sw
