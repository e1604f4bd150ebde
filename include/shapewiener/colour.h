// shapewiener: colour images. Three channels (RGB), or four with the fourth
// (alpha) passed through untouched.
//
// The channels are first rotated by an orthonormal colour transform into a
// luminance-like channel and two chrominance channels; the shapes are
// chosen once, on the luminance channel, where the image's structure is,
// and shared by all three; each rotated channel is filtered with the
// spectrum of the noise it actually holds (the rotation applied exactly to
// the noise description), and the result is rotated back. Most of the
// noise of an image with little colour detail thus lands where the
// shrinkage can remove it.
#ifndef SHAPEWIENER_COLOUR_H
#define SHAPEWIENER_COLOUR_H

#include <array>
#include <cstdint>
#include <vector>

#include "shapewiener/denoise.h"

namespace sw {

// rows x cols pixels of `channels` values (3 or 4); the channels are planes
// one after another, each rows x cols column-major: value (r, c) of channel
// k is pixels[r + c * rows + k * rows * cols] (MATLAB's M x N x 3 layout).
struct ColourImage {
    uint32_t rows = 0;
    uint32_t cols = 0;
    uint32_t channels = 0;
    std::vector<double> pixels;
};

// The noise of a colour image, in the image's units. Three forms:
// - same: models[0] in every channel, independently (the usual camera
//   noise description, and the default of every front end);
// - per channel: models[k] in channel k, independent between channels;
// - correlated: the noise of channels i and j has the cross-spectrum
//   covariance[i][j] * P / mean(P), P the spectrum of models[0] (only its
//   shape counts: sigma is ignored); covariance (3 x 3, row-major,
//   symmetric, positive semi-definite) is thus the per-pixel covariance of
//   the channels' noise;
// - estimated: unknown, taken to be the same in every channel; its
//   spectrum is estimated from the image (estimate_noise on each rotated
//   channel, at least 16 x 16 pixels; at each frequency the smallest of the
//   three, since texture mistaken for noise can only raise an estimate).
struct ColourNoise {
    enum class Kind { kSame, kPerChannel, kCorrelated, kEstimated };
    Kind kind = Kind::kSame;
    std::vector<NoiseModel> models;
    std::array<double, 9> covariance{};

    static ColourNoise same(NoiseModel model);
    static ColourNoise per_channel(std::vector<NoiseModel> models);
    static ColourNoise correlated(NoiseModel spatial, const std::array<double, 9>& covariance);
    static ColourNoise estimated();
};

// The colour rotation. kOpponent: luminance (R + G + B) / sqrt 3 and the
// two opponent differences (R - B) / sqrt 2, (R - 2G + B) / sqrt 6.
// kNoise: the eigenbasis of the channel covariance of correlated noise
// (then the rotated channels' noise is uncorrelated), its luminance-like
// channel the eigenvector closest to grey; for the other noise forms the
// same as kOpponent.
enum class ColourBasis { kOpponent, kNoise };

struct ColourOptions {
    ColourBasis basis = ColourBasis::kOpponent;
    // false: denoise each channel on its own, with its own shapes (for
    // comparison; the noise across channels is then ignored).
    bool joint = true;
};

// The 3 x 3 rotation (row-major; row 0 the luminance-like channel) used for
// this noise and these options. Throws DenoiseError for a bad noise
// description (see denoise_colour).
std::array<double, 9> colour_basis(const ColourNoise& noise, const ColourOptions& colour);

// Denoises a colour image. Returns the estimate: same size and channels,
// double, not clipped; a fourth channel is copied unchanged. Options as for
// denoise() (options.tile is not supported: tiles must be whole images);
// the progress fraction runs over the three channels in turn. Same inputs,
// same bits, whatever options.threads. Throws DenoiseError as denoise(),
// and "shapewiener:image:channels" (not 3 or 4 channels),
// "shapewiener:noise:channels" (per-channel models not 3),
// "shapewiener:noise:covariance" (not finite, symmetric, positive
// semi-definite or not zero); estimated noise as estimate_noise.
ColourImage denoise_colour(const ColourImage& image, const ColourNoise& noise,
                           const DenoiseOptions& options = DenoiseOptions(),
                           const ColourOptions& colour = ColourOptions(),
                           const Progress& progress = Progress(),
                           DenoiseReport* report = nullptr);

}  // namespace sw

#endif  // SHAPEWIENER_COLOUR_H
