// Denoising without a description of the noise: the estimate, then the
// denoiser with its spectrum.
#include <algorithm>
#include <new>
#include <string>
#include <utility>

#include "cancel/cancel.h"
#include "denoise/fail.h"
#include "shapewiener/noise.h"

namespace sw {

Image denoise_blind(const Image& image, const DenoiseOptions& options, const Progress& progress,
                    DenoiseReport* report, NoiseEstimate* estimate) {
    if (options.tile.rows > 0) {
        swdenoise::fail("shapewiener:options:tile",
                        "a tile cannot estimate its own noise: estimate it on the whole image and "
                        "give every tile that power spectrum.");
    }
    // The estimate takes the first tenth of the progress, the denoiser the rest.
    const double share = 0.1;
    const char* const phase = "noise estimate";
    const auto cancelled = [] {
        swdenoise::fail("shapewiener:denoise:interrupted", "the denoiser was cancelled.",
                        ErrorCode::kInterrupted);
    };
    NoiseEstimate found;
    try {
        double at = 0.0;
        const Progress scaled = [&](double fraction, const char* name) {
            at = share * fraction;
            return !progress || progress(at, name);
        };
        // The estimator's longer loops poll through their cancel points.
        const swcancel::CancelScope scope([&] {
            if (progress && !progress(at, phase)) cancelled();
        });
        NoiseEstimateOptions eo;
        eo.threads = options.threads;
        found = estimate_noise(image, eo, progress ? scaled : Progress());
    } catch (const std::bad_alloc&) {
        swdenoise::fail("shapewiener:memory:allocation",
                        "cannot allocate the memory the noise estimate of a " +
                            std::to_string(image.rows) + " x " + std::to_string(image.cols) +
                            " image needs.",
                        ErrorCode::kOutOfMemory);
    }
    const bool silent = std::all_of(found.psd.begin(), found.psd.end(), [](double v) { return v == 0.0; });
    Image out;
    if (silent) {
        if (progress && !progress(1.0, "done")) cancelled();
        out = image;
        if (report != nullptr) *report = DenoiseReport();
    } else {
        const Progress rest = [&](double fraction, const char* name) {
            return !progress || progress(share + (1.0 - share) * fraction, name);
        };
        out = denoise(image, NoiseModel::from_psd(found.psd), options, progress ? rest : Progress(),
                      report);
    }
    if (estimate != nullptr) *estimate = std::move(found);
    return out;
}

}  // namespace sw
