// The argument contract of a call, checked before anything is allocated or
// written. Each violation becomes an Error "shapewiener:<argument>:<reason>"
// with a message that names the argument as the user counts it.
#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>

#include "driver/check.h"
#include "cancel/cancel.h"
#include "driver/workspace.h"

namespace sw {
namespace {

const char* const kArgumentNames[kArgumentCount] = {
    "ScaleSet",       "DirectionScaleMap", "TransformBank",    "SectorMaskBank",
    "Unused5",        "Unused6",           "DftSize",          "NoisePsd",
    "NoisyImage",     "ProcessingList",    "NoiseLevelFactor", "Unused12",
    "MaxScale",       "PilotImage",        "WienerVarianceFactor", "CoverageThreshold",
};

const char* reason_text(ErrorCode code) {
    switch (code) {
        case ErrorCode::kSize: return "size";
        case ErrorCode::kNotVector: return "notVector";
        case ErrorCode::kNotFinite: return "notFinite";
        case ErrorCode::kTooFew: return "tooFew";
        case ErrorCode::kTooMany: return "tooMany";
        case ErrorCode::kNotDouble: return "notDouble";
        case ErrorCode::kNotUint8: return "notUint8";
        case ErrorCode::kNotInt32: return "notInt32";
        case ErrorCode::kNotCell: return "notCell";
        case ErrorCode::kComplex: return "complex";
        case ErrorCode::kSparse: return "sparse";
        case ErrorCode::kEmpty: return "empty";
        case ErrorCode::kEmptyCell: return "emptyCell";
        case ErrorCode::kOutOfRange: return "outOfRange";
        case ErrorCode::kTooSmall: return "tooSmall";
        case ErrorCode::kOdd: return "odd";
        case ErrorCode::kTooFewCells: return "tooFewCells";
        case ErrorCode::kCellCount: return "cellCount";
        case ErrorCode::kPixelOutOfRange: return "pixelOutOfRange";
        case ErrorCode::kIndexOutOfRange: return "indexOutOfRange";
        case ErrorCode::kScaleOutOfRange: return "scaleOutOfRange";
        case ErrorCode::kTooLarge: return "tooLarge";
        case ErrorCode::kOutOfMemory: return "outOfMemory";
        case ErrorCode::kInterrupted: return "interrupted";
        default: return "invalid";
    }
}

// "3x4x8" into buf.
const char* dims_text(const Dims& d, char* buf, size_t size) {
    size_t used = 0;
    buf[0] = '\0';
    for (int i = 0; i < d.count && used < size; ++i) {
        const int written = std::snprintf(buf + used, size - used, i == 0 ? "%llu" : "x%llu",
                                          static_cast<unsigned long long>(d.size[i]));
        if (written < 0) break;
        used += static_cast<size_t>(written);
    }
    return buf;
}

// The argument (or one cell of it) under check: how errors name it.
struct Subject {
    int argument;
    char label[128];  // "argument 9 (NoisyImage)" or "argument 3 (TransformBank), cell 3,"
};

Subject argument(int k) {
    Subject s;
    s.argument = k;
    std::snprintf(s.label, sizeof s.label, "argument %d (%s)", k + 1, kArgumentNames[k]);
    return s;
}

Subject cell_of(int k, size_t index) {
    Subject s = argument(k);
    std::snprintf(s.label, sizeof s.label, "argument %d (%s), cell %zu,", k + 1, kArgumentNames[k],
                  index + 1);
    return s;
}

bool is_matrix(const Dims& d, uint64_t rows, uint64_t cols) {
    return d.count == 2 && d.size[0] == rows && d.size[1] == cols;
}

}  // namespace

const char* argument_name(int k) { return k >= 0 && k < kArgumentCount ? kArgumentNames[k] : "call"; }

Error make_error(ErrorCode code, int argument, const char* what, const char* fmt, ...) {
    Error e;
    e.code = code;
    e.argument = argument;
    std::snprintf(e.identifier, sizeof e.identifier, "shapewiener:%s:%s",
                  what != nullptr ? what : argument_name(argument), reason_text(code));
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(e.message, sizeof e.message, fmt, args);
    va_end(args);
    return e;
}

Error check(const FilterCall& call) {
    char dims[64];
#define SW_FAIL(code, subject, ...) return make_error(code, (subject).argument, nullptr, __VA_ARGS__)

    // The images fix M and K.
    const Subject noisy = argument(kArgNoisyImage);
    if (call.image_dims.count != 2) {
        SW_FAIL(ErrorCode::kSize, noisy, "%s must be a 2-D matrix; got %s.", noisy.label,
                dims_text(call.image_dims, dims, sizeof dims));
    }
    const uint64_t m = call.image_dims.rows();
    const uint64_t k = call.image_dims.cols();
    const uint64_t pixels = m * k;
    if (m > UINT32_MAX || k > UINT32_MAX || pixels > INT32_MAX) {
        SW_FAIL(ErrorCode::kTooLarge, noisy, "%s has %llux%llu pixels; at most %d pixels are supported.",
                noisy.label, static_cast<unsigned long long>(m), static_cast<unsigned long long>(k),
                INT32_MAX);
    }
    const Subject pilot = argument(kArgPilotImage);
    if (!is_matrix(call.pilot_dims, m, k)) {
        SW_FAIL(ErrorCode::kSize, pilot, "%s must be %llux%llu (%s); got %s.", pilot.label,
                static_cast<unsigned long long>(m), static_cast<unsigned long long>(k),
                "the size of the noisy image", dims_text(call.pilot_dims, dims, sizeof dims));
    }

    // A frame (tiled processing) must hold the image.
    const FilterCall::Frame& f = call.frame;
    if (f.rows > 0 && (uint64_t{f.row0} + m > f.rows || uint64_t{f.col0} + k > f.cols ||
                       uint64_t{f.rows} * f.cols > INT32_MAX)) {
        return make_error(ErrorCode::kInvalid, -1, "frame",
                          "the %llux%llu image at (%u, %u) does not lie inside its %ux%u frame "
                          "of at most %d pixels.",
                          static_cast<unsigned long long>(m), static_cast<unsigned long long>(k),
                          f.row0, f.col0, f.rows, f.cols, INT32_MAX);
    }

    // Scalars.
    const Subject h_arg = argument(kArgMaxScale);
    const Subject n_arg = argument(kArgDftSize);
    if (!std::isfinite(call.max_scale)) {
        SW_FAIL(ErrorCode::kNotFinite, h_arg, "%s must be finite; got %g.", h_arg.label, call.max_scale);
    }
    if (!std::isfinite(call.dft_size)) {
        SW_FAIL(ErrorCode::kNotFinite, n_arg, "%s must be finite; got %g.", n_arg.label, call.dft_size);
    }
    const uint32_t h = round_to_unsigned(call.max_scale);
    const uint32_t n = round_to_unsigned(call.dft_size);
    if (h < 1) {
        SW_FAIL(ErrorCode::kOutOfRange, h_arg, "%s must round to at least 1; got %g.", h_arg.label,
                call.max_scale);
    }
    const uint64_t w = 2 * uint64_t{h} - 1;
    if (n < w) {
        SW_FAIL(ErrorCode::kTooSmall, n_arg,
                "%s must round to at least the box side 2*H-1 = %llu; got %g.", n_arg.label,
                static_cast<unsigned long long>(w), call.dft_size);
    }
    if (n % 2 != 0) {
        SW_FAIL(ErrorCode::kOdd, n_arg, "%s must round to an even number; got %g (rounds to %u).",
                n_arg.label, call.dft_size, n);
    }

    // ScaleSet fixes L: the length read is the larger dimension, which must
    // be the element count (a 0 x 5 array has none of its 5 elements).
    const Subject scales = argument(kArgScaleSet);
    const Dims& sd = call.scale_set.dims;
    const uint64_t l = std::max(sd.size[0], sd.count >= 2 ? sd.size[1] : 0);
    if (sd.count != 2 || sd.elements() != l) {
        SW_FAIL(ErrorCode::kNotVector, scales,
                "%s must be a vector (its length, the larger of rows and columns, must be its "
                "number of elements); got %s.",
                scales.label, dims_text(sd, dims, sizeof dims));
    }

    // Everything the call allocates must stay within 4 GiB.
    const WorkspaceSizes sizes{static_cast<uint32_t>(m), static_cast<uint32_t>(k),
                               static_cast<uint32_t>(w < UINT32_MAX ? w : UINT32_MAX), n,
                               static_cast<uint32_t>(l < UINT32_MAX ? l : UINT32_MAX)};
    if (w >= UINT32_MAX || l >= UINT32_MAX || workspace_bytes(sizes, 1) > UINT32_MAX) {
        return make_error(ErrorCode::kTooLarge, -1, "sizes",
                          "the working arrays for a %llux%llu image, H = %u, DFT size %u and %llu "
                          "scales exceed 4 GiB.",
                          static_cast<unsigned long long>(m), static_cast<unsigned long long>(k), h, n,
                          static_cast<unsigned long long>(l));
    }

    const Subject psd = argument(kArgNoisePsd);
    if (!is_matrix(call.noise_psd.dims, n, n)) {
        SW_FAIL(ErrorCode::kSize, psd, "%s must be %ux%u (%s); got %s.", psd.label, n, n,
                "DFT size by DFT size", dims_text(call.noise_psd.dims, dims, sizeof dims));
    }

    const Subject transforms = argument(kArgTransformBank);
    if (call.transform_count < w) {
        SW_FAIL(ErrorCode::kTooFewCells, transforms,
                "%s must hold at least 2*H-1 = %llu cells (one matrix per length); got %zu.",
                transforms.label, static_cast<unsigned long long>(w), call.transform_count);
    }
    for (size_t c = 0; c < w; ++c) {
        if (!is_matrix(call.transforms[c].dims, c + 1, c + 1)) {
            const Subject cell = cell_of(kArgTransformBank, c);
            SW_FAIL(ErrorCode::kSize, cell, "%s must be %zux%zu (%s); got %s.", cell.label, c + 1,
                    c + 1, "the transform of that length",
                    dims_text(call.transforms[c].dims, dims, sizeof dims));
        }
    }

    const Subject sectors = argument(kArgSectorMaskBank);
    const uint64_t sector_cells = 8 * uint64_t{h} * h;
    if (call.sector_mask_count != sector_cells) {
        SW_FAIL(ErrorCode::kCellCount, sectors, "%s must hold H x H x 8 = %llu cells; got %zu.",
                sectors.label, static_cast<unsigned long long>(sector_cells), call.sector_mask_count);
    }
    for (size_t c = 0; c < sector_cells; ++c) {
        if (!is_matrix(call.sector_masks[c].dims, w, w)) {
            const Subject cell = cell_of(kArgSectorMaskBank, c);
            SW_FAIL(ErrorCode::kSize, cell, "%s must be %llux%llu (%s); got %s.", cell.label,
                    static_cast<unsigned long long>(w), static_cast<unsigned long long>(w),
                    "the box side 2*H-1 squared",
                    dims_text(call.sector_masks[c].dims, dims, sizeof dims));
        }
    }

    const Subject list = argument(kArgProcessingList);
    if (!is_matrix(call.processing_list.dims, pixels, 2)) {
        SW_FAIL(ErrorCode::kSize, list, "%s must be %llux%llu (%s); got %s.", list.label,
                static_cast<unsigned long long>(pixels), 2ull, "one row per pixel: index and key",
                dims_text(call.processing_list.dims, dims, sizeof dims));
    }
    const int32_t* entries = call.processing_list.data;
    for (uint64_t i = 0; i < pixels; ++i) {
        if ((i & 0xfffff) == 0) swcancel::cancel_point();
        const int32_t p = entries[i];
        if (p < 1 || static_cast<uint64_t>(p) > pixels) {
            SW_FAIL(ErrorCode::kPixelOutOfRange, list,
                    "%s: entry %llu has pixel index %d; pixel indices must lie in 1..%llu.",
                    list.label, static_cast<unsigned long long>(i + 1), p,
                    static_cast<unsigned long long>(pixels));
        }
    }

    const Subject map = argument(kArgDirectionScaleMap);
    const Dims& md = call.direction_scale_map.dims;
    if (md.count != 3 || md.size[0] != m || md.size[1] != k || md.size[2] != 8) {
        SW_FAIL(ErrorCode::kSize, map, "%s must be %llux%llux8 (one plane per direction); got %s.",
                map.label, static_cast<unsigned long long>(m), static_cast<unsigned long long>(k),
                dims_text(md, dims, sizeof dims));
    }
    // Which byte values are usable: 1..L, selecting a scale that rounds into 1..H.
    const double* scale_values = call.scale_set.data;
    bool usable[256];
    usable[0] = false;
    for (int v = 1; v < 256; ++v) {
        usable[v] = static_cast<uint64_t>(v) <= l && round_to_unsigned(scale_values[v - 1]) >= 1 &&
                    round_to_unsigned(scale_values[v - 1]) <= h;
    }
    const uint8_t* bytes = call.direction_scale_map.data;
    const uint64_t count = 8 * pixels;
    for (uint64_t i = 0; i < count; ++i) {
        if ((i & 0xfffff) == 0) swcancel::cancel_point();
        const uint8_t v = bytes[i];
        if (usable[v]) continue;
        const uint64_t pixel = i % (pixels == 0 ? 1 : pixels);
        const unsigned long long plane = i / (pixels == 0 ? 1 : pixels);
        const unsigned long long row = pixel % m + 1;
        const unsigned long long col = pixel / m + 1;
        if (v == 0 || v > l) {
            SW_FAIL(ErrorCode::kIndexOutOfRange, map,
                    "%s holds %u at (%llu, %llu, %llu); its values index ScaleSet and must lie in "
                    "1..%llu.",
                    map.label, v, row, col, plane + 1, static_cast<unsigned long long>(l));
        }
        SW_FAIL(ErrorCode::kScaleOutOfRange, map,
                "%s holds %u at (%llu, %llu, %llu), selecting ScaleSet element %u = %g, which "
                "rounds to %u; selected scales must round into 1..H = 1..%u.",
                map.label, v, row, col, plane + 1, v, scale_values[v - 1],
                round_to_unsigned(scale_values[v - 1]), h);
    }
#undef SW_FAIL
    return Error();
}

}  // namespace sw
