// The module's entry point. The gateway checks what only a dynamically typed
// host can get wrong (argument count, classes, complex or sparse arrays,
// empty scalars, cells), describes the arrays as a FilterCall, lets the
// library check the contract, dispatches on the maximum scale, creates the
// output and runs. Errors leave through mexErrMsgIdAndTxt only after every
// object of the gateway has been released, so that a host which leaves the
// call without unwinding leaks nothing.
#include "mex/gateway.h"

#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

#include "driver/check.h"
#include "driver/filter.h"
#include "mex/host_interrupt.h"
#include "shapewiener/filter.h"


namespace sw {
namespace {

double first_element(const mxArray* a) { return *static_cast<const double*>(mxGetData(a)); }

Dims dims_of(const mxArray* a) {
    const mwSize nd = mxGetNumberOfDimensions(a);
    const mwSize* d = mxGetDimensions(a);
    Dims dims;
    dims.count = nd < 2 ? 2 : (nd > Dims::kMaxDims ? Dims::kMaxDims : static_cast<int>(nd));
    for (int i = 0; i < Dims::kMaxDims; ++i) dims.size[i] = 1;
    for (mwSize i = 0; i < nd; ++i) {
        const int at = i < Dims::kMaxDims ? static_cast<int>(i) : Dims::kMaxDims - 1;
        if (i < Dims::kMaxDims) {
            dims.size[at] = static_cast<uint64_t>(d[i]);
        } else {
            dims.size[at] *= static_cast<uint64_t>(d[i]);
        }
    }
    return dims;
}

// A view of a numeric array; of a cell (or unset) array only its dimensions,
// which is all the library looks at of cells that it does not read.
template <class T>
ArrayView<T> view_of(const mxArray* a) {
    ArrayView<T> v;
    if (a == nullptr) return v;
    v.dims = dims_of(a);
    if (!mxIsCell(a) && mxGetClassID(a) != mxSTRUCT_CLASS) {
        v.data = static_cast<const T*>(mxGetData(a));
    }
    return v;
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
        const int written = std::snprintf(buf + used, size - used, i == 0 ? "%zu" : "x%zu",
                                          static_cast<size_t>(d[i]));
        if (written < 0) break;
        used += static_cast<size_t>(written);
    }
    return buf;
}

// Class, realness and fullness of a numeric argument (or cell, with label).
Error check_numeric(int k, const mxArray* a, const char* label, mxClassID expected,
                    const char* expectation) {
    char dims[64];
    if (mxGetClassID(a) != expected) {
        const ErrorCode code = expected == mxDOUBLE_CLASS  ? ErrorCode::kNotDouble
                               : expected == mxUINT8_CLASS ? ErrorCode::kNotUint8
                                                           : ErrorCode::kNotInt32;
        return make_error(code, k, nullptr, "%s must be %s; got a %s %s array.", label, expectation,
                          dims_text(a, dims, sizeof dims), class_name(mxGetClassID(a)));
    }
    if (mxIsComplex(a)) {
        return make_error(ErrorCode::kComplex, k, nullptr, "%s must be real; got a complex %s array.",
                          label, class_name(expected));
    }
    if (mxIsSparse(a)) {
        return make_error(ErrorCode::kSparse, k, nullptr, "%s must be a full (not sparse) array.",
                          label);
    }
    return Error();
}

struct Label {
    char text[128];
};

Label label_of(int k) {
    Label l;
    std::snprintf(l.text, sizeof l.text, "argument %d (%s)", k + 1, argument_name(k));
    return l;
}

Label cell_label(int k, size_t index) {
    Label l;
    std::snprintf(l.text, sizeof l.text, "argument %d (%s), cell %zu,", k + 1, argument_name(k),
                  index + 1);
    return l;
}

#define SW_RETURN_IF(expr)      \
    do {                        \
        Error e_ = (expr);      \
        if (e_) return e_;      \
    } while (0)

// What the library's check cannot see: the host's classes and cells.
Error check_host(int nlhs, int nrhs, const mxArray* const* prhs) {
    if (nrhs < kArgumentCount) {
        return make_error(ErrorCode::kTooFew, -1, "nrhs", "expected at least %d input arguments; got %d.",
                          kArgumentCount, nrhs);
    }
    if (nlhs > 1) {
        return make_error(ErrorCode::kTooMany, -1, "nlhs", "returns one output; %d were requested.",
                          nlhs);
    }
    SW_RETURN_IF(check_numeric(kArgNoisyImage, prhs[kArgNoisyImage], label_of(kArgNoisyImage).text,
                               mxDOUBLE_CLASS, "a real double matrix"));
    SW_RETURN_IF(check_numeric(kArgPilotImage, prhs[kArgPilotImage], label_of(kArgPilotImage).text,
                               mxDOUBLE_CLASS, "a real double matrix"));
    for (int k : {kArgMaxScale, kArgDftSize, kArgNoiseLevelFactor, kArgWienerVarianceFactor,
                  kArgCoverageThreshold}) {
        const Label label = label_of(k);
        SW_RETURN_IF(check_numeric(k, prhs[k], label.text, mxDOUBLE_CLASS, "a real double scalar"));
        if (mxGetNumberOfElements(prhs[k]) == 0) {
            return make_error(ErrorCode::kEmpty, k, nullptr,
                              "%s must be a real double scalar; got an empty array.", label.text);
        }
    }
    SW_RETURN_IF(check_numeric(kArgScaleSet, prhs[kArgScaleSet], label_of(kArgScaleSet).text,
                               mxDOUBLE_CLASS, "a real double vector"));
    SW_RETURN_IF(check_numeric(kArgNoisePsd, prhs[kArgNoisePsd], label_of(kArgNoisePsd).text,
                               mxDOUBLE_CLASS, "a real double matrix"));

    // The cells that the call reads: W transforms, H*H*8 masks. An H that
    // the library will reject reads none.
    const double h_value = first_element(prhs[kArgMaxScale]);
    const uint32_t h = h_value == h_value && h_value < 1e300 ? round_to_unsigned(h_value) : 0;
    const uint64_t w = h >= 1 ? 2 * uint64_t{h} - 1 : 0;
    char dims[64];
    for (int k : {kArgTransformBank, kArgSectorMaskBank}) {
        const mxArray* bank = prhs[k];
        const Label label = label_of(k);
        if (!mxIsCell(bank)) {
            return make_error(ErrorCode::kNotCell, k, nullptr, "%s must be a cell array; got a %s array.",
                              label.text, class_name(mxGetClassID(bank)));
        }
        const size_t cells = mxGetNumberOfElements(bank);
        const bool masks = k == kArgSectorMaskBank;
        size_t read = 0;
        if (!masks) {
            read = w <= cells ? static_cast<size_t>(w) : 0;  // too few: the library says so
        } else if (h >= 1 && h < (1u << 20) && cells == 8 * uint64_t{h} * h) {
            read = cells;
        }
        for (size_t c = 0; c < read; ++c) {
            const mxArray* cell = mxGetCell(bank, c);
            const Label cl = cell_label(k, c);
            if (cell == nullptr) {
                if (masks) {
                    return make_error(ErrorCode::kEmptyCell, k, nullptr,
                                      "%s must hold a %llux%llu uint8 mask; it is unset.", cl.text,
                                      static_cast<unsigned long long>(w),
                                      static_cast<unsigned long long>(w));
                }
                return make_error(ErrorCode::kEmptyCell, k, nullptr,
                                  "%s must hold a %zux%zu real double matrix; it is unset.", cl.text,
                                  c + 1, c + 1);
            }
            SW_RETURN_IF(masks ? check_numeric(k, cell, cl.text, mxUINT8_CLASS, "a uint8 mask")
                               : check_numeric(k, cell, cl.text, mxDOUBLE_CLASS, "a real double matrix"));
        }
    }
    (void)dims;
    SW_RETURN_IF(check_numeric(kArgProcessingList, prhs[kArgProcessingList],
                               label_of(kArgProcessingList).text, mxINT32_CLASS, "an int32 matrix"));
    SW_RETURN_IF(check_numeric(kArgDirectionScaleMap, prhs[kArgDirectionScaleMap],
                               label_of(kArgDirectionScaleMap).text, mxUINT8_CLASS, "a uint8 array"));
    return Error();
}

// The arrays of one call and the tables of cell views it points into.
struct HostCall {
    FilterCall call;
    std::vector<ArrayView<double>> transforms;
    std::vector<ArrayView<uint8_t>> masks;
};

void describe(const mxArray* const* prhs, HostCall* hc) {
    FilterCall& c = hc->call;
    c.scale_set = view_of<double>(prhs[kArgScaleSet]);
    c.direction_scale_map = view_of<uint8_t>(prhs[kArgDirectionScaleMap]);
    const mxArray* transforms = prhs[kArgTransformBank];
    hc->transforms.resize(mxGetNumberOfElements(transforms));
    for (size_t i = 0; i < hc->transforms.size(); ++i) {
        hc->transforms[i] = view_of<double>(mxGetCell(transforms, i));
    }
    c.transforms = hc->transforms.data();
    c.transform_count = hc->transforms.size();
    const mxArray* masks = prhs[kArgSectorMaskBank];
    hc->masks.resize(mxGetNumberOfElements(masks));
    for (size_t i = 0; i < hc->masks.size(); ++i) {
        hc->masks[i] = view_of<uint8_t>(mxGetCell(masks, i));
    }
    c.sector_masks = hc->masks.data();
    c.sector_mask_count = hc->masks.size();
    c.dft_size = first_element(prhs[kArgDftSize]);
    c.noise_psd = view_of<double>(prhs[kArgNoisePsd]);
    c.noisy_image = static_cast<double*>(mxGetData(prhs[kArgNoisyImage]));
    c.image_dims = dims_of(prhs[kArgNoisyImage]);
    c.processing_list = view_of<int32_t>(prhs[kArgProcessingList]);
    c.noise_level_factor = first_element(prhs[kArgNoiseLevelFactor]);
    c.max_scale = first_element(prhs[kArgMaxScale]);
    c.pilot_image = static_cast<double*>(mxGetData(prhs[kArgPilotImage]));
    c.pilot_dims = dims_of(prhs[kArgPilotImage]);
    c.wiener_variance_factor = first_element(prhs[kArgWienerVarianceFactor]);
    c.coverage_threshold = first_element(prhs[kArgCoverageThreshold]);
}

[[noreturn]] void raise(const Error& e) {
    mexErrMsgIdAndTxt(e.identifier, "%s", e.message);
    std::abort();  // not reached: the host leaves the call above
}

// Describes, runs `entry` and leaves the output in plhs[0]. Returns the
// error instead of raising it, with everything of its own released.
Error run_module(mxArray* plhs[], const mxArray* const* prhs, FilterEntry entry, uint32_t h) {
    const mxArray* image = prhs[kArgNoisyImage];
    plhs[0] = mxCreateDoubleMatrix(mxGetM(image), mxGetN(image), mxREAL);
    HostCall hc;
    describe(prhs, &hc);
    RunOptions options;
    options.progress = [](double) { return !swmex::interrupt_requested(); };
    const Error e = entry(hc.call, mxGetPr(plhs[0]), options, h);
    if (e) {
        mxDestroyArray(plhs[0]);
        plhs[0] = nullptr;
    }
    return e;
}

void finish(const Error& e) {
    if (!e) return;
    if (e.code == ErrorCode::kInterrupted) swmex::pass_interrupt_on();
    raise(e);
}

template <size_t... I>
MexEntry variant_in_list(uint32_t h, std::index_sequence<I...> /*unused*/) {
    MexEntry entry = nullptr;
    ((h == kSpecialisedScales[I] ? (entry = &mexFunction_h<kSpecialisedScales[I]>, 0) : 0), ...);
    return entry;
}

}  // namespace

template <uint32_t H>
void mexFunction_h(int, mxArray* plhs[], int, const mxArray* prhs[]) {
    finish(run_module(plhs, prhs, filter_entry(H), H));
}

Error mex_check(int nlhs, int nrhs, const mxArray* const* prhs) {
    Error e = check_host(nlhs, nrhs, prhs);
    if (e) return e;
    HostCall hc;
    describe(prhs, &hc);
    return check(hc.call);
}

void mex_run_general(mxArray* plhs[], const mxArray* const* prhs, uint32_t h) {
    finish(run_module(plhs, prhs, run_general, h));
}

MexEntry variant_for(uint32_t h) {
    constexpr size_t count = sizeof kSpecialisedScales / sizeof kSpecialisedScales[0];
    return variant_in_list(h, std::make_index_sequence<count>{});
}

}  // namespace sw

void mexFunction(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]) {
    const sw::Error e = sw::mex_check(nlhs, nrhs, prhs);
    if (e) sw::raise(e);
    const uint32_t h = sw::round_to_unsigned(sw::first_element(prhs[sw::kArgMaxScale]));
    if (sw::MexEntry variant = sw::variant_for(h)) {
        variant(nlhs, plhs, nrhs, prhs);
        return;
    }
    sw::mex_run_general(plhs, prhs, h);
}
