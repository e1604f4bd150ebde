// shapewiener: the noise of an image estimated from the image itself, for
// denoising when the caller has no description of the noise.
#ifndef SHAPEWIENER_NOISE_H
#define SHAPEWIENER_NOISE_H

#include <cstdint>
#include <vector>

#include "shapewiener/denoise.h"

namespace sw {

struct NoiseEstimateOptions {
    // Worker threads as in DenoiseOptions (0: SHAPEWIENER_THREADS or all).
    // The result has the same bits for every count.
    unsigned threads = 0;
};

// The estimated noise. The noise is taken to be stationary: one power
// spectrum for the whole image.
struct NoiseEstimate {
    uint32_t rows = 0;  // the image's size
    uint32_t cols = 0;
    // Full-size power spectrum in the convention of NoiseModel::from_psd:
    // rows x cols, column-major, DC at (0, 0), unshifted, in the image's
    // units, its mean the per-pixel variance.
    std::vector<double> psd;
    double sigma = 0.0;  // per-pixel standard deviation, sqrt(mean(psd))
    // Side of the square blocks the spectrum was read from (32 for images
    // of at least 64 x 64 pixels, down to 8): the spectrum's resolution is
    // about 1 / block cycles per pixel, interpolated in between.
    uint32_t block = 0;
    // Fraction of the blocks whose content looks like noise alone: near 1
    // for pure noise, small for an image with few flat parts (then the
    // estimate leans on few blocks and may read texture as noise).
    double usable_fraction = 0.0;
    // Whether the spectrum is flat within its sampling error.
    bool white = false;

    NoiseModel model() const { return NoiseModel::from_psd(psd); }
};

// Estimates the noise of `image` (at least 16 x 16 pixels, NaN/Inf-free).
// Method: the image is cut into half-overlapping blocks; each block's
// window-weighted least-squares plane is removed and its windowed
// periodogram taken. The blocks whose periodograms lie lowest against a
// per-frequency low quantile (the flattest blocks, judged over all
// frequencies at once) are averaged, with a fixed factor that undoes the
// bias of choosing the lowest, and the block-sized spectrum is
// interpolated to the image's size. Texture, which the flattest blocks can
// still hold, is told from noise by its fourth cumulant over the blocks (a
// noise coefficient's is zero) and taken off where it is significant.
// Narrow peaks, which the blocks blur, each get a Gaussian fitted to the
// whole image's periodogram above the image's own level. Without such peaks,
// a spectrum flat above 0.14 cycles per pixel is taken as white noise (its
// rise towards DC as the image's own structure) and made flat. On a
// quantised image (all values on a lattice of step q, e.g. 8-bit data) an
// estimate below 2 q is taken as no noise: psd all zero, sigma 0, and
// denoise_blind returns the image unchanged.
// Progress phase: "noise estimate". Throws DenoiseError:
// "shapewiener:image:<reason>" (empty, size, notFinite, tooLarge, tooSmall),
// "shapewiener:denoise:interrupted".
NoiseEstimate estimate_noise(const Image& image,
                             const NoiseEstimateOptions& options = NoiseEstimateOptions(),
                             const Progress& progress = Progress());

// Denoises `image` without a description of its noise: estimate_noise with
// options.threads, then denoise with the estimate's psd model. The result
// equals, bit for bit, denoise(image, estimate_noise(image).model(), options)
// whenever that spectrum is not all zero; an image whose estimate is all zero
// (a constant one, say) has no noise to remove and comes back unchanged.
// Progress: the phase "noise estimate" (the first tenth), then denoise's
// phases. `estimate`, when given, receives the estimate. Throws DenoiseError
// as estimate_noise and denoise, and "shapewiener:options:tile" for a tile
// (a tile's noise is its frame's: estimate it on the frame and pass the psd).
Image denoise_blind(const Image& image, const DenoiseOptions& options = DenoiseOptions(),
                    const Progress& progress = Progress(), DenoiseReport* report = nullptr,
                    NoiseEstimate* estimate = nullptr);

}  // namespace sw

#endif  // SHAPEWIENER_NOISE_H
