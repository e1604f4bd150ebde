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
#include "shapewiener/noise.h"

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
// - estimated: unknown; estimated from the image (estimate_colour_noise, at
//   least 16 x 16 pixels) as one spatial shape times a channel covariance.
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
    // For a tile (DenoiseOptions::tile set; its value_min and value_max are
    // not used): the frame's smallest and largest value of each channel
    // that is filtered, {min0, max0, min1, max1, min2, max2}, as
    // colour_ranges gives them for the whole image.
    std::array<double, 6> tile_ranges{};
};

// The 3 x 3 rotation (row-major; row 0 the luminance-like channel) used for
// this noise and these options. Throws DenoiseError for a bad noise
// description (see denoise_colour).
std::array<double, 9> colour_basis(const ColourNoise& noise, const ColourOptions& colour);

// The smallest and largest value of each channel denoise_colour filters
// (the rotated channels; R, G and B when not joint), {min0, max0, min1,
// max1, min2, max2}: what a tile of `image` needs in ColourOptions. Throws
// as colour_basis, and for a bad image as denoise_colour.
std::array<double, 6> colour_ranges(const ColourImage& image, const ColourNoise& noise,
                                    const ColourOptions& colour = ColourOptions());

// The noise of a colour image, estimated from the image itself: one
// spatial shape times a channel covariance (the correlated form of
// ColourNoise).
struct ColourNoiseEstimate {
    uint32_t rows = 0;  // the image's size
    uint32_t cols = 0;
    // The spatial shape: rows x cols, column-major, DC at (0, 0), mean 1.
    std::vector<double> shape;
    // The per-pixel covariance of R, G and B's noise (row-major): the
    // cross-spectrum of channels i and j is covariance[i * 3 + j] * shape.
    std::array<double, 9> covariance{};
    // The smallest usable fraction of the estimates read (see
    // NoiseEstimate), and whether they all found white noise.
    double usable_fraction = 0.0;
    bool white = false;
    // The noise denoise_colour uses when given ColourNoise::estimated():
    // ColourNoise::correlated with this shape and covariance; no model
    // (models empty) when no noise was found.
    ColourNoise noise;
};

// Estimates the noise of a colour image (at least 16 x 16 pixels; a fourth
// channel is ignored). The channels are rotated as denoise_colour rotates
// them (luminance and two opponent differences) and each rotated channel's
// spectrum estimated (estimate_noise). The shape is read from all three:
// at each frequency, the mean of their spectra (each divided by its level)
// that lie near the smallest, since structure mistaken for noise (the
// luminance's detail, a colourful image's colour detail) raises some
// channels at some frequencies, while the noise has one shape in all. Each
// rotated channel's variance is the median, over the frequencies, of its
// spectrum's ratio to that shape, and each pair's covariance is read the
// same way from the spectrum of the pair's sum. Same image, same bits, whatever
// options.threads.
// Progress phase: "noise estimate". Throws as estimate_noise and, for a bad
// image, as denoise_colour.
ColourNoiseEstimate estimate_colour_noise(const ColourImage& image,
                                          const NoiseEstimateOptions& options = NoiseEstimateOptions(),
                                          const Progress& progress = Progress());

// Denoises a colour image. Returns the estimate: same size and channels,
// double, not clipped; a fourth channel is copied unchanged. Options as for
// denoise(); a tile (options.tile) also needs colour.tile_ranges and a
// noise description (not estimated: a tile's noise is its frame's). The
// progress fraction runs over the three channels in turn. Estimated noise:
// denoise_colour(image, estimate_colour_noise(image).noise) bit for bit,
// and the image unchanged when that estimate is all zero. Same inputs,
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
