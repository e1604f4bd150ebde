#include "mex/validate.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "driver/workspace.h"
#include "mex/arguments.h"

namespace sw {
namespace {

// Names by which errors refer to the arguments, by 0-based position.
const char* const kArgumentNames[kArgumentCount] = {
    "ScaleSet",       "DirectionScaleMap", "TransformBank",    "SectorMaskBank",
    "Unused5",        "Unused6",           "DftSize",          "NoisePsd",
    "NoisyImage",     "ProcessingList",    "NoiseLevelFactor", "Unused12",
    "MaxScale",       "PilotImage",        "WienerVarianceFactor", "CoverageThreshold",
};

// Raises "shapewiener:<what>:<reason>" with a formatted message. Everything
// is formatted into stack buffers, so nothing needs freeing when the host
// leaves the call.
[[noreturn]] void fail(const char* what, const char* reason, const char* fmt, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 3, 4)))
#endif
    ;

void fail(const char* what, const char* reason, const char* fmt, ...) {
    char identifier[96];
    std::snprintf(identifier, sizeof identifier, "shapewiener:%s:%s", what, reason);
    char message[512];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(message, sizeof message, fmt, args);
    va_end(args);
    mexErrMsgIdAndTxt(identifier, "%s", message);
    std::abort();  // not reached: the host leaves the call above
}

const char* class_name(mxClassID id) {
    switch (id) {
        case mxCELL_CLASS: return "cell";
        case mxSTRUCT_CLASS: return "struct";
        case mxLOGICAL_CLASS: return "logical";
        case mxCHAR_CLASS: return "char";
        case mxDOUBLE_CLASS: return "double";
        case mxSINGLE_CLASS: return "single";
        case mxINT8_CLASS: return "int8";
        case mxUINT8_CLASS: return "uint8";
        case mxINT16_CLASS: return "int16";
        case mxUINT16_CLASS: return "uint16";
        case mxINT32_CLASS: return "int32";
        case mxUINT32_CLASS: return "uint32";
        case mxINT64_CLASS: return "int64";
        case mxUINT64_CLASS: return "uint64";
        case mxFUNCTION_CLASS: return "function_handle";
        default: return "unknown";
    }
}

// "3x4x8" into buf.
const char* dims_text(const mxArray* a, char* buf, size_t size) {
    const mwSize nd = mxGetNumberOfDimensions(a);
    const mwSize* d = mxGetDimensions(a);
    size_t used = 0;
    buf[0] = '\0';
    for (mwSize i = 0; i < nd && used < size; ++i) {
        int written = std::snprintf(buf + used, size - used, i == 0 ? "%zu" : "x%zu",
                                    static_cast<size_t>(d[i]));
        if (written < 0) break;
        used += static_cast<size_t>(written);
    }
    return buf;
}

// One argument (or one cell of a cell argument) under check.
struct Subject {
    const mxArray* array;
    const char* what;   // identifier part: the argument's name
    char label[128];    // message part: "argument 9 (NoisyImage)" or "... cell 3"
};

Subject argument(const mxArray* const* prhs, int k) {
    Subject s;
    s.array = prhs[k];
    s.what = kArgumentNames[k];
    std::snprintf(s.label, sizeof s.label, "argument %d (%s)", k + 1, kArgumentNames[k]);
    return s;
}

Subject cell_of(const Subject& parent, const mxArray* cell, size_t index) {
    Subject s;
    s.array = cell;
    s.what = parent.what;
    std::snprintf(s.label, sizeof s.label, "%.64s, cell %zu,", parent.label, index + 1);
    return s;
}

// Class, realness and fullness of a numeric argument.
void require_numeric(const Subject& s, mxClassID expected, const char* expectation) {
    char dims[64];
    if (mxGetClassID(s.array) != expected) {
        const char* reason = expected == mxDOUBLE_CLASS  ? "notDouble"
                             : expected == mxUINT8_CLASS ? "notUint8"
                                                         : "notInt32";
        fail(s.what, reason, "%s must be %s; got a %s %s array.", s.label, expectation,
             dims_text(s.array, dims, sizeof dims), class_name(mxGetClassID(s.array)));
    }
    if (mxIsComplex(s.array)) {
        fail(s.what, "complex", "%s must be real; got a complex %s array.", s.label,
             class_name(expected));
    }
    if (mxIsSparse(s.array)) {
        fail(s.what, "sparse", "%s must be a full (not sparse) array.", s.label);
    }
}

void require_size(const Subject& s, size_t rows, size_t cols, const char* expectation) {
    char dims[64];
    if (mxGetNumberOfDimensions(s.array) != 2 || mxGetM(s.array) != rows ||
        mxGetN(s.array) != cols) {
        fail(s.what, "size", "%s must be %zux%zu (%s); got %s.", s.label, rows, cols, expectation,
             dims_text(s.array, dims, sizeof dims));
    }
}

// A scalar argument: a real full double array whose first element is read.
double require_scalar(const Subject& s, bool finite) {
    require_numeric(s, mxDOUBLE_CLASS, "a real double scalar");
    if (mxGetNumberOfElements(s.array) == 0) {
        fail(s.what, "empty", "%s must be a real double scalar; got an empty array.", s.label);
    }
    const double value = first_element(s.array);
    if (finite && !std::isfinite(value)) {
        fail(s.what, "notFinite", "%s must be finite; got %g.", s.label, value);
    }
    return value;
}

}  // namespace

void validate_arguments(int nlhs, int nrhs, const mxArray* const* prhs) {
    if (nrhs < kArgumentCount) {
        fail("nrhs", "tooFew", "expected at least %d input arguments; got %d.", kArgumentCount, nrhs);
    }
    if (nlhs > 1) {
        fail("nlhs", "tooMany", "returns one output; %d were requested.", nlhs);
    }

    // The images fix M and K.
    const Subject noisy = argument(prhs, kArgNoisyImage);
    require_numeric(noisy, mxDOUBLE_CLASS, "a real double matrix");
    char dims[64];
    if (mxGetNumberOfDimensions(noisy.array) != 2) {
        fail(noisy.what, "size", "%s must be a 2-D matrix; got %s.", noisy.label,
             dims_text(noisy.array, dims, sizeof dims));
    }
    const size_t m = mxGetM(noisy.array);
    const size_t k = mxGetN(noisy.array);
    const uint64_t pixels = static_cast<uint64_t>(m) * k;
    if (m > UINT32_MAX || k > UINT32_MAX || pixels > INT32_MAX) {
        fail(noisy.what, "tooLarge", "%s has %zux%zu pixels; at most %d pixels are supported.",
             noisy.label, m, k, INT32_MAX);
    }
    const Subject pilot = argument(prhs, kArgPilotImage);
    require_numeric(pilot, mxDOUBLE_CLASS, "a real double matrix");
    require_size(pilot, m, k, "the size of the noisy image");

    // Scalars.
    const double h_value = require_scalar(argument(prhs, kArgMaxScale), true);
    const double n_value = require_scalar(argument(prhs, kArgDftSize), true);
    require_scalar(argument(prhs, kArgNoiseLevelFactor), false);
    require_scalar(argument(prhs, kArgWienerVarianceFactor), false);
    require_scalar(argument(prhs, kArgCoverageThreshold), false);
    const uint32_t h = round_to_unsigned(h_value);
    const uint32_t n = round_to_unsigned(n_value);
    const Subject h_arg = argument(prhs, kArgMaxScale);
    if (h < 1) {
        fail(h_arg.what, "outOfRange", "%s must round to at least 1; got %g.", h_arg.label,
             h_value);
    }
    const uint64_t w = 2 * uint64_t{h} - 1;
    const Subject n_arg = argument(prhs, kArgDftSize);
    if (n < w) {
        fail(n_arg.what, "tooSmall",
             "%s must round to at least the box side 2*H-1 = %llu; got %g.", n_arg.label,
             static_cast<unsigned long long>(w), n_value);
    }
    if (n % 2 != 0) {
        fail(n_arg.what, "odd", "%s must round to an even number; got %g (rounds to %u).",
             n_arg.label, n_value, n);
    }

    // ScaleSet fixes L.
    const Subject scales = argument(prhs, kArgScaleSet);
    require_numeric(scales, mxDOUBLE_CLASS, "a real double vector");
    // The length read is the larger dimension: it must be the element count
    // (a 0 x 5 array has none of its 5 elements).
    const size_t l = std::max(mxGetM(scales.array), mxGetN(scales.array));
    if (mxGetNumberOfDimensions(scales.array) != 2 || mxGetNumberOfElements(scales.array) != l) {
        fail(scales.what, "notVector",
             "%s must be a vector (its length, the larger of rows and columns, must be its "
             "number of elements); got %s.",
             scales.label,
             dims_text(scales.array, dims, sizeof dims));
    }

    // Everything the call allocates must be addressable in 32 bits.
    const WorkspaceSizes sizes{static_cast<uint32_t>(m), static_cast<uint32_t>(k),
                               static_cast<uint32_t>(w < UINT32_MAX ? w : UINT32_MAX), n,
                               static_cast<uint32_t>(l < UINT32_MAX ? l : UINT32_MAX)};
    if (w >= UINT32_MAX || l >= UINT32_MAX || workspace_formula_bytes(sizes) > UINT32_MAX) {
        fail("sizes", "tooLarge",
             "the working arrays for a %zux%zu image, H = %u, DFT size %u and %zu scales "
             "exceed 4 GiB.",
             m, k, h, n, l);
    }

    const Subject psd = argument(prhs, kArgNoisePsd);
    require_numeric(psd, mxDOUBLE_CLASS, "a real double matrix");
    require_size(psd, n, n, "DFT size by DFT size");

    const Subject transforms = argument(prhs, kArgTransformBank);
    if (!mxIsCell(transforms.array)) {
        fail(transforms.what, "notCell", "%s must be a cell array; got a %s array.",
             transforms.label, class_name(mxGetClassID(transforms.array)));
    }
    if (mxGetNumberOfElements(transforms.array) < w) {
        fail(transforms.what, "tooFewCells",
             "%s must hold at least 2*H-1 = %llu cells (one matrix per length); got %zu.",
             transforms.label, static_cast<unsigned long long>(w),
             mxGetNumberOfElements(transforms.array));
    }
    for (size_t c = 0; c < w; ++c) {
        const Subject cell = cell_of(transforms, mxGetCell(transforms.array, c), c);
        if (cell.array == nullptr) {
            fail(cell.what, "emptyCell", "%s must hold a %zux%zu real double matrix; it is unset.",
                 cell.label, c + 1, c + 1);
        }
        require_numeric(cell, mxDOUBLE_CLASS, "a real double matrix");
        require_size(cell, c + 1, c + 1, "the transform of that length");
    }

    const Subject sectors = argument(prhs, kArgSectorMaskBank);
    if (!mxIsCell(sectors.array)) {
        fail(sectors.what, "notCell", "%s must be a cell array; got a %s array.", sectors.label,
             class_name(mxGetClassID(sectors.array)));
    }
    const uint64_t sector_cells = 8 * uint64_t{h} * h;
    if (mxGetNumberOfElements(sectors.array) != sector_cells) {
        fail(sectors.what, "cellCount", "%s must hold H x H x 8 = %llu cells; got %zu.",
             sectors.label, static_cast<unsigned long long>(sector_cells),
             mxGetNumberOfElements(sectors.array));
    }
    for (size_t c = 0; c < sector_cells; ++c) {
        const Subject cell = cell_of(sectors, mxGetCell(sectors.array, c), c);
        if (cell.array == nullptr) {
            fail(cell.what, "emptyCell", "%s must hold a %llux%llu uint8 mask; it is unset.",
                 cell.label, static_cast<unsigned long long>(w),
                 static_cast<unsigned long long>(w));
        }
        require_numeric(cell, mxUINT8_CLASS, "a uint8 mask");
        require_size(cell, w, w, "the box side 2*H-1 squared");
    }

    const Subject list = argument(prhs, kArgProcessingList);
    require_numeric(list, mxINT32_CLASS, "an int32 matrix");
    require_size(list, static_cast<size_t>(pixels), 2, "one row per pixel: index and key");
    const int32_t* entries = static_cast<const int32_t*>(mxGetData(list.array));
    for (uint64_t i = 0; i < pixels; ++i) {
        const int32_t p = entries[i];
        if (p < 1 || static_cast<uint64_t>(p) > pixels) {
            fail(list.what, "pixelOutOfRange",
                 "%s: entry %llu has pixel index %d; pixel indices must lie in 1..%llu.",
                 list.label, static_cast<unsigned long long>(i + 1), p,
                 static_cast<unsigned long long>(pixels));
        }
    }

    const Subject map = argument(prhs, kArgDirectionScaleMap);
    require_numeric(map, mxUINT8_CLASS, "a uint8 array");
    {
        const mwSize* d = mxGetDimensions(map.array);
        if (mxGetNumberOfDimensions(map.array) != 3 || static_cast<size_t>(d[0]) != m ||
            static_cast<size_t>(d[1]) != k || static_cast<size_t>(d[2]) != 8) {
            fail(map.what, "size", "%s must be %zux%zux8 (one plane per direction); got %s.",
                 map.label, m, k, dims_text(map.array, dims, sizeof dims));
        }
    }
    // Which byte values are usable: 1..L, selecting a scale that rounds into 1..H.
    const double* scale_values = static_cast<const double*>(mxGetData(scales.array));
    bool usable[256];
    usable[0] = false;
    for (int v = 1; v < 256; ++v) {
        usable[v] = static_cast<size_t>(v) <= l && round_to_unsigned(scale_values[v - 1]) >= 1 &&
                    round_to_unsigned(scale_values[v - 1]) <= h;
    }
    const uint8_t* bytes = static_cast<const uint8_t*>(mxGetData(map.array));
    const uint64_t count = 8 * pixels;
    for (uint64_t i = 0; i < count; ++i) {
        const uint8_t v = bytes[i];
        if (usable[v]) continue;
        const uint64_t pixel = i % (pixels == 0 ? 1 : pixels);
        const unsigned long long plane = i / (pixels == 0 ? 1 : pixels);
        const unsigned long long row = pixel % m + 1;
        const unsigned long long col = pixel / m + 1;
        if (v == 0 || v > l) {
            fail(map.what, "indexOutOfRange",
                 "%s holds %u at (%llu, %llu, %llu); its values index ScaleSet and must lie in "
                 "1..%zu.",
                 map.label, v, row, col, plane + 1, l);
        }
        fail(map.what, "scaleOutOfRange",
             "%s holds %u at (%llu, %llu, %llu), selecting ScaleSet element %u = %g, which "
             "rounds to %u; selected scales must round into 1..H = 1..%u.",
             map.label, v, row, col, plane + 1, v, scale_values[v - 1],
             round_to_unsigned(scale_values[v - 1]), h);
    }
}

}  // namespace sw
