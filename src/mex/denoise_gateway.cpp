// The denoiser's entry point for Octave and MATLAB (the unit rule of
// shapewiener/units.h: values used as stored, noise in their units, integer
// classes returned in their class through sw::to_type):
//   OUT = shapewiener_denoise(Z, 'sigma', S)
//   OUT = shapewiener_denoise(Z, 'kernel', K, 'sigma', S)
//   OUT = shapewiener_denoise(Z, 'psd', P)
//   [OUT, NOISE] = shapewiener_denoise(Z)       (no noise: estimated)
//   NOISE = shapewiener_denoise(Z, 'estimateOnly', true)
// with the options 'preset' ('fast', 'default') and 'threads'. A thin
// adapter over sw::denoise and sw::denoise_blind / sw::estimate_noise
// (include/shapewiener/denoise.h, noise.h): it reads the host's arrays,
// runs, and copies the results out. Errors leave through
// mexErrMsgIdAndTxt only after every object of the gateway is released.
#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mex.h"
#include "mex/host_interrupt.h"
#include "shapewiener/colour.h"
#include "shapewiener/denoise.h"
#include "shapewiener/noise.h"
#include "shapewiener/units.h"

namespace {

sw::Error make(const char* identifier, const std::string& message,
               sw::ErrorCode code = sw::ErrorCode::kInvalid) {
    sw::Error e;
    e.code = code;
    std::snprintf(e.identifier, sizeof e.identifier, "%s", identifier);
    std::snprintf(e.message, sizeof e.message, "%s", message.c_str());
    return e;
}

// Any real numeric array, as doubles in column-major order (logical arrays
// hold no image and are refused), its size checked before any copy.
// With `channels`, an M x N x 3 or M x N x 4 array is read too (its planes
// one after another) and *channels set to its third size.
sw::Error read_matrix(const mxArray* a, const char* what, uint32_t* rows, uint32_t* cols,
                      std::vector<double>* values, uint32_t* channels = nullptr) {
    const std::string name(what);
    if (!mxIsNumeric(a) || mxIsComplex(a) || mxIsSparse(a)) {
        return make(("shapewiener:" + name + ":notReal").c_str(),
                    "the " + name + " must be a real full numeric matrix; got a " +
                        mxGetClassName(a) + (mxIsComplex(a) ? " complex" : "") + " array.");
    }
    const size_t dims = mxGetNumberOfDimensions(a);
    if (channels != nullptr) *channels = dims == 3 ? static_cast<uint32_t>(mxGetDimensions(a)[2]) : 1;
    if (channels != nullptr && dims == 3 && *channels != 3 && *channels != 4) {
        return make(("shapewiener:" + name + ":channels").c_str(),
                    "a colour " + name + " is M x N x 3 (RGB) or M x N x 4 (RGB and alpha); got " +
                        std::to_string(*channels) + " channels.");
    }
    if (dims != 2 && (channels == nullptr || dims != 3)) {
        return make(("shapewiener:" + name + ":size").c_str(),
                    "the " + name + (channels != nullptr ? " must be M x N, M x N x 3 or M x N x 4."
                                                         : " must be a 2-D matrix."));
    }
    const size_t n = mxGetNumberOfElements(a);
    const size_t m = mxGetM(a);
    if (n > 2147483647u) {
        return make(("shapewiener:" + name + ":tooLarge").c_str(),
                    "the " + name + " has " + std::to_string(m) + " x " + std::to_string(mxGetN(a)) +
                        " values; the limit is 2^31 - 1.");
    }
    *rows = static_cast<uint32_t>(m);
    *cols = static_cast<uint32_t>(dims == 3 ? mxGetDimensions(a)[1] : mxGetN(a));
    values->resize(n);
    const void* data = mxGetData(a);
    switch (mxGetClassID(a)) {
#define SW_CASE(id, type) \
    case id: for (size_t i = 0; i < n; ++i) (*values)[i] = static_cast<double>(static_cast<const type*>(data)[i]); break;
        SW_CASE(mxDOUBLE_CLASS, double)
        SW_CASE(mxSINGLE_CLASS, float)
        SW_CASE(mxINT8_CLASS, int8_t)
        SW_CASE(mxUINT8_CLASS, uint8_t)
        SW_CASE(mxINT16_CLASS, int16_t)
        SW_CASE(mxUINT16_CLASS, uint16_t)
        SW_CASE(mxINT32_CLASS, int32_t)
        SW_CASE(mxUINT32_CLASS, uint32_t)
        SW_CASE(mxINT64_CLASS, int64_t)
        SW_CASE(mxUINT64_CLASS, uint64_t)
#undef SW_CASE
        default:
            return make(("shapewiener:" + name + ":notReal").c_str(),
                        "the " + name + " must be a real numeric matrix.");
    }
    // 64-bit integers beyond 2^53 would lose their last digits.
    const mxClassID id = mxGetClassID(a);
    for (size_t i = 0; (id == mxINT64_CLASS || id == mxUINT64_CLASS) && i < n; ++i) {
        const std::string refusal = id == mxINT64_CLASS
                                        ? sw::inexact_integer(static_cast<const int64_t*>(data)[i])
                                        : sw::inexact_integer(static_cast<const uint64_t*>(data)[i]);
        if (!refusal.empty()) {
            return make(("shapewiener:" + name + ":inexact").c_str(), "the " + name + " holds " + refusal);
        }
    }
    return sw::Error();
}

sw::Error read_scalar(const mxArray* a, const char* option, double* value) {
    if (!mxIsNumeric(a) || mxIsComplex(a) || mxGetNumberOfElements(a) != 1) {
        return make((std::string("shapewiener:") + option + ":notScalar").c_str(),
                    std::string("'") + option + "' takes a real numeric scalar.");
    }
    *value = mxGetScalar(a);
    return sw::Error();
}

// How a numeric class stores its values.
sw::SampleType sample_type(mxClassID id) {
    switch (id) {
        case mxINT8_CLASS: return sw::SampleType::kInt8;
        case mxUINT8_CLASS: return sw::SampleType::kUint8;
        case mxINT16_CLASS: return sw::SampleType::kInt16;
        case mxUINT16_CLASS: return sw::SampleType::kUint16;
        case mxINT32_CLASS: return sw::SampleType::kInt32;
        case mxUINT32_CLASS: return sw::SampleType::kUint32;
        case mxINT64_CLASS: return sw::SampleType::kInt64;
        case mxUINT64_CLASS: return sw::SampleType::kUint64;
        case mxSINGLE_CLASS: return sw::SampleType::kFloat32;
        default: return sw::SampleType::kFloat64;
    }
}

// The estimate as an array of the input's class: integer classes get
// sw::to_type's rounding and clipping, single and double the values.
mxArray* output_of(const sw::ColourImage& out, mxClassID id) {
    const sw::SampleType type = sample_type(id);
    const mwSize dims[3] = {out.rows, out.cols, out.channels};
    const mwSize count = out.channels > 1 ? 3 : 2;
    if (!sw::is_integer(type)) {
        mxArray* a = mxCreateNumericArray(count, dims, mxDOUBLE_CLASS, mxREAL);
        if (!out.pixels.empty()) {
            std::memcpy(mxGetPr(a), out.pixels.data(), sizeof(double) * out.pixels.size());
        }
        return a;
    }
    mxArray* a = mxCreateNumericArray(count, dims, id, mxREAL);
    void* data = mxGetData(a);
    const size_t n = out.pixels.size();
    switch (id) {
#define SW_CASE(id, type)                                                                  \
    case id:                                                                               \
        for (size_t i = 0; i < n; ++i) {                                                   \
            static_cast<type*>(data)[i] = static_cast<type>(sw::to_type(out.pixels[i], sample_type(id))); \
        }                                                                                  \
        break;
        SW_CASE(mxINT8_CLASS, int8_t)
        SW_CASE(mxUINT8_CLASS, uint8_t)
        SW_CASE(mxINT16_CLASS, int16_t)
        SW_CASE(mxUINT16_CLASS, uint16_t)
        SW_CASE(mxINT32_CLASS, int32_t)
        SW_CASE(mxUINT32_CLASS, uint32_t)
        SW_CASE(mxINT64_CLASS, int64_t)
        SW_CASE(mxUINT64_CLASS, uint64_t)
#undef SW_CASE
        default: break;
    }
    return a;
}

// The noise estimate as a struct: sigma, psd, usable_fraction, white, block.
mxArray* estimate_of(const sw::NoiseEstimate& e) {
    const char* fields[] = {"sigma", "psd", "usable_fraction", "white", "block"};
    mxArray* s = mxCreateStructMatrix(1, 1, 5, fields);
    mxArray* psd = mxCreateDoubleMatrix(e.rows, e.cols, mxREAL);
    if (!e.psd.empty()) std::memcpy(mxGetPr(psd), e.psd.data(), sizeof(double) * e.psd.size());
    mxSetField(s, 0, "sigma", mxCreateDoubleScalar(e.sigma));
    mxSetField(s, 0, "psd", psd);
    mxSetField(s, 0, "usable_fraction", mxCreateDoubleScalar(e.usable_fraction));
    mxSetField(s, 0, "white", mxCreateLogicalScalar(e.white));
    mxSetField(s, 0, "block", mxCreateDoubleScalar(e.block));
    return s;
}

// A colour image's noise estimate as a struct: sigma (1 x 3), psd
// (M x N x 3, the channels' spectra), covariance (3 x 3), shape (M x N, mean
// 1), usable_fraction, white. shapewiener_denoise(Z) without a noise
// description equals shapewiener_denoise(Z, 'psd', shape,
// 'channel_covariance', covariance).
mxArray* colour_estimate_of(const sw::ColourNoiseEstimate& e) {
    const char* fields[] = {"sigma", "psd", "covariance", "shape", "usable_fraction", "white"};
    mxArray* s = mxCreateStructMatrix(1, 1, 6, fields);
    const size_t plane = static_cast<size_t>(e.rows) * e.cols;
    const mwSize dims[3] = {e.rows, e.cols, 3};
    mxArray* psd = mxCreateNumericArray(3, dims, mxDOUBLE_CLASS, mxREAL);
    mxArray* shape = mxCreateDoubleMatrix(e.rows, e.cols, mxREAL);
    mxArray* sigma = mxCreateDoubleMatrix(1, 3, mxREAL);
    mxArray* covariance = mxCreateDoubleMatrix(3, 3, mxREAL);
    for (size_t k = 0; k < 3; ++k) {
        const double variance = e.covariance[k * 3 + k];
        mxGetPr(sigma)[k] = std::sqrt(variance);
        for (size_t j = 0; j < 3; ++j) mxGetPr(covariance)[k + j * 3] = e.covariance[k * 3 + j];
        for (size_t f = 0; f < plane && f < e.shape.size(); ++f) {
            mxGetPr(psd)[f + k * plane] = e.shape[f] * variance;
        }
    }
    if (!e.shape.empty()) std::memcpy(mxGetPr(shape), e.shape.data(), sizeof(double) * plane);
    mxSetField(s, 0, "sigma", sigma);
    mxSetField(s, 0, "psd", psd);
    mxSetField(s, 0, "covariance", covariance);
    mxSetField(s, 0, "shape", shape);
    mxSetField(s, 0, "usable_fraction", mxCreateDoubleScalar(e.usable_fraction));
    mxSetField(s, 0, "white", mxCreateLogicalScalar(e.white));
    return s;
}

std::string text_of(const mxArray* a) {
    if (!mxIsChar(a)) return std::string();
    char* s = mxArrayToString(a);
    std::string text = s != nullptr ? s : "";
    mxFree(s);
    return text;
}

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

struct Planes {
    std::vector<double> values;
    uint32_t rows = 0, cols = 0, channels = 1;
};

// The colour call: the same noise in every channel ('sigma', 'kernel', an
// M x N 'psd'), a spectrum per channel (an M x N x 3 'psd'), noise
// correlated across the channels ('channel_covariance', its spatial shape
// white or that of 'kernel' or 'psd'), or, with no noise given, estimated.
sw::Error run_colour(mxArray* plhs[], const mxArray* input, const sw::ColourImage& image,
                     bool have_sigma, double sigma, bool have_kernel, Planes kernel, bool have_psd,
                     Planes psd, bool have_covariance, const std::vector<double>& covariance,
                     const sw::DenoiseOptions& options) {
    if (image.channels == 1) {
        return make("shapewiener:noise:covariance",
                    "'channel_covariance' is for colour images (M x N x 3 or M x N x 4).");
    }
    if ((have_psd && (have_sigma || have_kernel)) || (have_covariance && have_sigma)) {
        return make("shapewiener:noise:conflict",
                    "give the noise as 'sigma', as 'kernel' and 'sigma', as 'psd' alone, or as "
                    "'channel_covariance' with at most a 'kernel' or 'psd' for its spatial shape.");
    }
    if (have_kernel && !have_sigma && !have_covariance) {
        return make("shapewiener:noise:missing", "'kernel' needs 'sigma' (or 'channel_covariance').");
    }
    if (have_psd && (psd.rows != image.rows || psd.cols != image.cols ||
                     (psd.channels != 1 && (psd.channels != 3 || have_covariance)))) {
        return make("shapewiener:noise:psdSize",
                    "the power spectrum must be M x N (every channel) or M x N x 3 (one per "
                    "channel), M x N the image's size.");
    }
    const double scale = have_sigma ? sigma : 1.0;
    sw::NoiseModel spatial = sw::NoiseModel::white(scale);
    if (have_psd && psd.channels == 1) spatial = sw::NoiseModel::from_psd(std::move(psd.values));
    if (have_kernel) spatial = sw::NoiseModel::from_kernel(std::move(kernel.values), kernel.rows, kernel.cols, scale);
    sw::ColourNoise noise;
    if (have_covariance) {
        std::array<double, 9> c;
        for (size_t i = 0; i < 3; ++i) {
            for (size_t j = 0; j < 3; ++j) c[i * 3 + j] = covariance[i + j * 3];
        }
        noise = sw::ColourNoise::correlated(std::move(spatial), c);
    } else if (have_psd && psd.channels == 3) {
        const size_t plane = static_cast<size_t>(psd.rows) * psd.cols;
        std::vector<sw::NoiseModel> models;
        for (size_t k = 0; k < 3; ++k) {
            models.push_back(sw::NoiseModel::from_psd(
                std::vector<double>(psd.values.begin() + k * plane, psd.values.begin() + (k + 1) * plane)));
        }
        noise = sw::ColourNoise::per_channel(std::move(models));
    } else if (have_sigma || have_psd) {
        noise = sw::ColourNoise::same(std::move(spatial));
    } else {
        noise = sw::ColourNoise::estimated();
    }
    const std::string refusal = sw::size_refusal(
        image.rows, image.cols, sw::denoise_bytes_per_pixel(options.preset) + 16 * image.channels);
    if (!refusal.empty()) return make("shapewiener:image:tooLarge", "the image has " + refusal + ".");
    const mxClassID id = mxGetClassID(input);
    const sw::Progress progress = [](double, const char*) { return !swmex::interrupt_requested(); };
    try {
        const sw::ColourImage out = sw::denoise_colour(image, noise, options, sw::ColourOptions(), progress);
        plhs[0] = output_of(out, id);
    } catch (const sw::DenoiseError& error) {
        return error.error();
    } catch (const std::bad_alloc&) {
        return make("shapewiener:memory:outOfMemory", "not enough memory.", sw::ErrorCode::kOutOfMemory);
    }
    return sw::Error();
}

// Reads the call, runs the denoiser, leaves the estimate in plhs[0].
sw::Error run(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]) {
    if (nrhs < 1) return make("shapewiener:nrhs:tooFew", "expected an image and the noise.");
    if (nlhs > 2) return make("shapewiener:nlhs:tooMany", "returns at most two outputs.");
    if (nrhs % 2 == 0) {
        return make("shapewiener:options:pairs",
                    "the options after the image come in name-value pairs.");
    }
    sw::ColourImage image;
    sw::Error e = read_matrix(prhs[0], "image", &image.rows, &image.cols, &image.pixels, &image.channels);
    if (e) return e;

    bool have_sigma = false, have_kernel = false, have_psd = false, estimate_only = false;
    bool have_covariance = false;
    double sigma = 0.0;
    uint32_t kernel_rows = 0, kernel_cols = 0, psd_rows = 0, psd_cols = 0, psd_channels = 1;
    std::vector<double> kernel, psd, covariance;
    sw::DenoiseOptions options;
    for (int i = 1; i + 1 < nrhs; i += 2) {
        const std::string name = lower(text_of(prhs[i]));
        const mxArray* value = prhs[i + 1];
        if (name == "sigma") {
            e = read_scalar(value, "sigma", &sigma);
            have_sigma = true;
        } else if (name == "kernel") {
            e = read_matrix(value, "kernel", &kernel_rows, &kernel_cols, &kernel);
            have_kernel = true;
        } else if (name == "psd") {
            e = read_matrix(value, "psd", &psd_rows, &psd_cols, &psd, &psd_channels);
            have_psd = true;
        } else if (name == "channel_covariance") {
            uint32_t r = 0, c = 0;
            e = read_matrix(value, "covariance", &r, &c, &covariance);
            if (!e && (r != 3 || c != 3)) {
                return make("shapewiener:noise:covariance", "'channel_covariance' takes a 3 x 3 matrix.");
            }
            have_covariance = true;
        } else if (name == "preset") {
            if (!mxIsChar(value)) {
                return make("shapewiener:preset:notText", "'preset' takes 'fast' or 'default'.");
            }
            options.preset = text_of(value);
        } else if (name == "estimateonly") {  // shapewiener_estimate_noise
            double flag = 0.0;
            if (mxIsLogicalScalar(value)) {
                flag = mxIsLogicalScalarTrue(value) ? 1.0 : 0.0;
            } else {
                e = read_scalar(value, "estimateOnly", &flag);
            }
            estimate_only = flag != 0.0;
        } else if (name == "threads") {
            double t = 0.0;
            e = read_scalar(value, "threads", &t);
            if (!e && !(t >= 0.0 && t <= 4096.0 && t == static_cast<double>(static_cast<unsigned>(t)))) {
                return make("shapewiener:threads:outOfRange",
                            "'threads' takes a whole number from 0 (all cores) to 4096.");
            }
            options.threads = static_cast<unsigned>(t);
        } else {
            return make("shapewiener:options:unknown",
                        "unknown option '" + text_of(prhs[i]) +
                            "'; the options are 'sigma', 'kernel', 'psd', 'channel_covariance', "
                            "'preset' and 'threads' (none of the noise options: the noise is "
                            "estimated).");
        }
        if (e) return e;
    }
    if ((image.channels > 1 || have_covariance) && !estimate_only) {
        if (nlhs > 1) return make("shapewiener:nlhs:tooMany", "a colour call returns one output.");
        return run_colour(plhs, prhs[0], image, have_sigma, sigma, have_kernel,
                          {std::move(kernel), kernel_rows, kernel_cols}, have_psd,
                          {std::move(psd), psd_rows, psd_cols, psd_channels}, have_covariance,
                          covariance, options);
    }
    if (image.channels > 1) {  // the estimate alone, of a colour image
        if (have_psd || have_sigma || have_kernel || have_covariance) {
            return make("shapewiener:noise:conflict", "the noise estimate takes no noise description.");
        }
        if (nlhs > 1) return make("shapewiener:nlhs:tooMany", "the estimate alone is one output.");
        sw::NoiseEstimateOptions eo;
        eo.threads = options.threads;
        try {
            plhs[0] = colour_estimate_of(sw::estimate_colour_noise(
                image, eo, [](double, const char*) { return !swmex::interrupt_requested(); }));
        } catch (const sw::DenoiseError& error) {
            return error.error();
        } catch (const std::bad_alloc&) {
            return make("shapewiener:memory:outOfMemory", "not enough memory.", sw::ErrorCode::kOutOfMemory);
        }
        return sw::Error();
    }
    if (have_psd && psd_channels != 1) {
        return make("shapewiener:noise:psdSize", "a power spectrum per channel is for colour images.");
    }
    // No noise given (or the estimate asked for alone): it is estimated.
    const bool blind = !have_psd && !have_sigma && !have_kernel;
    if (estimate_only && !blind) {
        return make("shapewiener:noise:conflict", "the noise estimate takes no noise description.");
    }
    if (nlhs > (blind && !estimate_only ? 2 : 1)) {
        return make("shapewiener:nlhs:tooMany",
                    blind ? "the estimate alone is one output."
                          : "returns one output; the second, the estimated noise, is for a call "
                            "without a noise description.");
    }
    const sw::Progress progress = [](double, const char*) { return !swmex::interrupt_requested(); };
    if (blind) {
        const mxClassID id = mxGetClassID(prhs[0]);
        const std::string refusal =
            sw::size_refusal(image.rows, image.cols, sw::denoise_bytes_per_pixel(options.preset));
        if (!refusal.empty()) return make("shapewiener:image:tooLarge", "the image has " + refusal + ".");
        const sw::Image grey{image.rows, image.cols, image.pixels};
        try {
            sw::NoiseEstimate estimate;
            if (estimate_only) {
                sw::NoiseEstimateOptions eo;
                eo.threads = options.threads;
                estimate = sw::estimate_noise(grey, eo, progress);
                plhs[0] = estimate_of(estimate);
            } else {
                const sw::Image out = sw::denoise_blind(grey, options, progress, nullptr, &estimate);
                plhs[0] = output_of({out.rows, out.cols, 1, out.pixels}, id);
                if (nlhs > 1) plhs[1] = estimate_of(estimate);
            }
        } catch (const sw::DenoiseError& error) {
            return error.error();
        } catch (const std::bad_alloc&) {
            return make("shapewiener:memory:outOfMemory", "not enough memory.", sw::ErrorCode::kOutOfMemory);
        }
        return sw::Error();
    }
    sw::NoiseModel noise;
    if (have_psd) {
        if (have_sigma || have_kernel) {
            return make("shapewiener:noise:conflict",
                        "give the noise as 'sigma', as 'kernel' and 'sigma', or as 'psd' alone.");
        }
        if (psd_rows != image.rows || psd_cols != image.cols) {
            return make("shapewiener:noise:psdSize",
                        "the power spectrum must have the image's size, " +
                            std::to_string(image.rows) + " x " + std::to_string(image.cols) + ".");
        }
        noise = sw::NoiseModel::from_psd(std::move(psd));
    } else if (!have_sigma) {
        return make("shapewiener:noise:missing",
                    "a 'kernel' needs 'sigma' (give no noise at all to have it estimated).");
    } else if (have_kernel) {
        noise = sw::NoiseModel::from_kernel(std::move(kernel), kernel_rows, kernel_cols, sigma);
    } else {
        noise = sw::NoiseModel::white(sigma);
    }

    const std::string refusal =
        sw::size_refusal(image.rows, image.cols, sw::denoise_bytes_per_pixel(options.preset));
    if (!refusal.empty()) return make("shapewiener:image:tooLarge", "the image has " + refusal + ".");
    const mxClassID id = mxGetClassID(prhs[0]);
    if (!image.pixels.empty()) {
        const auto [lo, hi] = std::minmax_element(image.pixels.begin(), image.pixels.end());
        const std::string warning = sw::noise_warning(*lo, *hi, sample_type(id), noise);
        if (!warning.empty()) mexWarnMsgIdAndTxt("shapewiener:noise:implausible", "%s", warning.c_str());
    }

    try {
        const sw::Image out = sw::denoise({image.rows, image.cols, std::move(image.pixels)}, noise,
                                          options, progress);
        plhs[0] = output_of({out.rows, out.cols, 1, out.pixels}, id);
    } catch (const sw::DenoiseError& error) {
        return error.error();
    } catch (const std::bad_alloc&) {
        return make("shapewiener:memory:outOfMemory", "not enough memory.", sw::ErrorCode::kOutOfMemory);
    }
    return sw::Error();
}

}  // namespace

void mexFunction(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]) {
    const sw::Error e = run(nlhs, plhs, nrhs, prhs);
    if (!e) return;
    // Ctrl-C: let the host end the command as it does for an interrupt.
    if (e.code == sw::ErrorCode::kInterrupted) swmex::pass_interrupt_on();
    mexErrMsgIdAndTxt(e.identifier, "%s", e.message);
    std::abort();  // not reached
}
