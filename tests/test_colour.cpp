// Colour images: refusals, and the channel models against cases whose
// answer is known without the denoiser.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "shapewiener/colour.h"

namespace {

constexpr uint32_t kSide = 40;

// A smooth colour image with an edge, plus white noise of `sigma` that is
// the same in all three channels when `shared`, independent otherwise.
sw::ColourImage test_image(uint32_t channels, double sigma, bool shared, unsigned seed = 7,
                           uint32_t side = kSide) {
    sw::ColourImage im{side, side, channels, {}};
    const size_t plane = size_t{side} * side;
    im.pixels.resize(plane * channels);
    std::mt19937 gen(seed);
    std::normal_distribution<double> n(0.0, sigma);
    for (size_t p = 0; p < plane; ++p) {
        const double r = static_cast<double>(p % side), c = static_cast<double>(p / side);
        const double common = n(gen);
        const double base[4] = {0.3 + 0.4 * (c > 20), 0.2 + 0.01 * r, 0.7 - 0.3 * (r + c > 40), 0.25 * (p % 5)};
        for (uint32_t k = 0; k < channels; ++k) {
            im.pixels[p + k * plane] = base[std::min(k, 3u)] + (k < 3 ? (shared ? common : n(gen)) : 0.0);
        }
    }
    return im;
}

std::string refusal(const sw::ColourImage& im, const sw::ColourNoise& noise,
                    const sw::DenoiseOptions& options = sw::DenoiseOptions()) {
    try {
        sw::denoise_colour(im, noise, options);
    } catch (const sw::DenoiseError& e) {
        return e.error().identifier;
    }
    return "accepted";
}

TEST(Colour, Refusals) {
    const sw::NoiseModel white = sw::NoiseModel::white(0.1);
    const std::array<double, 9> unit = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    sw::DenoiseOptions tiled;  // the channels' ranges left at 0: the tile lies outside them
    tiled.tile = {80, 80, 0, 0, 0.0, 1.0};
    struct Case {
        const char* what;
        sw::ColourImage image;
        sw::ColourNoise noise;
        sw::DenoiseOptions options;
        const char* identifier;
    } cases[] = {
        {"two channels", test_image(2, 0.1, false), sw::ColourNoise::same(white), {}, "shapewiener:image:channels"},
        {"five channels", test_image(5, 0.1, false), sw::ColourNoise::same(white), {}, "shapewiener:image:channels"},
        {"values short", [] { auto im = test_image(3, 0.1, false); im.pixels.pop_back(); return im; }(),
         sw::ColourNoise::same(white), {}, "shapewiener:image:size"},
        {"two models", test_image(3, 0.1, false), sw::ColourNoise::per_channel({white, white}), {},
         "shapewiener:noise:channels"},
        {"bad model", test_image(3, 0.1, false), sw::ColourNoise::per_channel({white, white, sw::NoiseModel::white(-1)}),
         {}, "shapewiener:noise:sigma"},
        {"not symmetric", test_image(3, 0.1, false), sw::ColourNoise::correlated(white, {1, 0.5, 0, 0, 1, 0, 0, 0, 1}),
         {}, "shapewiener:noise:covariance"},
        {"indefinite", test_image(3, 0.1, false), sw::ColourNoise::correlated(white, {1, 2, 0, 2, 1, 0, 0, 0, 1}),
         {}, "shapewiener:noise:covariance"},
        {"zero", test_image(3, 0.1, false), sw::ColourNoise::correlated(white, {}), {}, "shapewiener:noise:covariance"},
        {"NaN", test_image(3, 0.1, false), sw::ColourNoise::correlated(white, {NAN, 0, 0, 0, 1, 0, 0, 0, 1}), {},
         "shapewiener:noise:covariance"},
        {"tile outside its ranges", test_image(3, 0.1, false), sw::ColourNoise::correlated(white, unit), tiled,
         "shapewiener:tile:range"},
        {"tile, noise estimated", test_image(3, 0.1, false), sw::ColourNoise::estimated(), tiled,
         "shapewiener:options:tile"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(refusal(c.image, c.noise, c.options), c.identifier);
    }
}

// The noise basis decorrelates: A C A^T is diagonal and A orthonormal, its
// first row the direction nearest grey.
TEST(Colour, NoiseBasisDiagonalises) {
    const std::array<double, 9> covariances[] = {
        {4, 1, 0.5, 1, 3, 0.2, 0.5, 0.2, 2},
        {1, 0.9, 0.9, 0.9, 1, 0.9, 0.9, 0.9, 1},  // mostly grey noise
        {2, 0, 0, 0, 2, 0, 0, 0, 2},              // every basis diagonalises
    };
    sw::ColourOptions o;
    o.basis = sw::ColourBasis::kNoise;
    for (const auto& c : covariances) {
        const auto a = sw::colour_basis(sw::ColourNoise::correlated(sw::NoiseModel::white(1), c), o);
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j) {
                double aat = 0, aca = 0;
                for (int k = 0; k < 3; ++k) {
                    aat += a[i * 3 + k] * a[j * 3 + k];
                    for (int l = 0; l < 3; ++l) aca += a[i * 3 + k] * c[k * 3 + l] * a[j * 3 + l];
                }
                EXPECT_NEAR(aat, i == j ? 1.0 : 0.0, 1e-12);
                if (i != j) {
                    EXPECT_NEAR(aca, 0.0, 1e-12);
                }
            }
        }
        const double grey0 = std::fabs(a[0] + a[1] + a[2]);
        EXPECT_GE(grey0 + 1e-12, std::fabs(a[3] + a[4] + a[5]));
        EXPECT_GE(grey0 + 1e-12, std::fabs(a[6] + a[7] + a[8]));
    }
}

// Noise that is the same in every channel (covariance s^2 in every entry)
// lives in the luminance alone: the channel differences come back as they
// went in, and the luminance is denoised.
TEST(Colour, GreyNoiseLeavesColourDifferences) {
    const double s = 0.05;
    const sw::ColourImage noisy = test_image(4, s, true);
    const sw::ColourImage clean = test_image(4, 0.0, true);
    const size_t plane = size_t{kSide} * kSide;
    for (sw::ColourBasis basis : {sw::ColourBasis::kOpponent, sw::ColourBasis::kNoise}) {
        sw::ColourOptions o;
        o.basis = basis;
        const sw::ColourImage out = sw::denoise_colour(
            noisy, sw::ColourNoise::correlated(sw::NoiseModel::white(1), {s * s, s * s, s * s, s * s, s * s, s * s, s * s, s * s, s * s}),
            sw::DenoiseOptions(), o);
        double before = 0, after = 0;
        for (size_t p = 0; p < plane; ++p) {
            for (uint32_t k = 1; k < 3; ++k) {
                EXPECT_NEAR(out.pixels[p + k * plane] - out.pixels[p],
                            noisy.pixels[p + k * plane] - noisy.pixels[p], 1e-12);
            }
            before += std::pow(noisy.pixels[p] - clean.pixels[p], 2);
            after += std::pow(out.pixels[p] - clean.pixels[p], 2);
            EXPECT_EQ(out.pixels[p + 3 * plane], noisy.pixels[p + 3 * plane]);  // alpha, bit for bit
        }
        EXPECT_LT(after, 0.5 * before);
    }
}

// A grey image in three identical channels with grey noise is the grey
// denoiser's case: each channel comes back as the grey result.
TEST(Colour, GreyImageIsTheGreyCase) {
    const double s = 0.05;
    const sw::ColourImage noisy = test_image(3, s, true);
    sw::Image grey{kSide, kSide, {}};
    const size_t plane = size_t{kSide} * kSide;
    sw::ColourImage same = noisy;
    for (uint32_t k = 1; k < 3; ++k) std::copy_n(noisy.pixels.begin(), plane, same.pixels.begin() + k * plane);
    grey.pixels.assign(noisy.pixels.begin(), noisy.pixels.begin() + plane);
    const sw::Image expected = sw::denoise(grey, sw::NoiseModel::white(s));
    const double v = s * s;
    const sw::ColourImage out =
        sw::denoise_colour(same, sw::ColourNoise::correlated(sw::NoiseModel::white(1), {v, v, v, v, v, v, v, v, v}));
    for (uint32_t k = 0; k < 3; ++k) {
        for (size_t p = 0; p < plane; ++p) EXPECT_NEAR(out.pixels[p + k * plane], expected.pixels[p], 1e-9);
    }
}

// Tiles of a colour image, grown by the halo and denoised as parts of the
// whole (its channel ranges), give the whole image's bits: two tiles of
// rows, the second starting at an odd row; noise correlated across the
// channels, so the rotated channels' levels differ; the default preset.
TEST(Colour, TilesGiveTheWholeImagesBits) {
    const uint32_t side = 80;
    const sw::ColourImage noisy = test_image(3, 0.05, false, 7, side);
    const sw::ColourNoise noise =
        sw::ColourNoise::correlated(sw::NoiseModel::white(1), {4e-3, 2e-3, 1e-3, 2e-3, 3e-3, 1e-3, 1e-3, 1e-3, 2e-3});
    const sw::ColourImage whole = sw::denoise_colour(noisy, noise);
    const uint32_t halo = sw::tile_halo("default"), split = 41;
    const size_t plane = size_t{side} * side;
    sw::ColourOptions colour;
    colour.tile_ranges = sw::colour_ranges(noisy, noise, colour);
    for (const auto [r0, r1] : {std::array<uint32_t, 2>{0, split}, std::array<uint32_t, 2>{split, side}}) {
        const uint32_t t0 = r0 > halo ? r0 - halo : 0, t1 = std::min(side, r1 + halo);
        sw::ColourImage tile{t1 - t0, side, 3, {}};
        for (size_t p = 0; p < 3 * plane; ++p) {
            if (p % side >= t0 && p % side < t1) tile.pixels.push_back(noisy.pixels[p]);
        }
        sw::DenoiseOptions options;
        options.tile = {side, side, t0, 0, 0.0, 0.0};
        const sw::ColourImage out = sw::denoise_colour(tile, noise, options, colour);
        size_t differ = 0;
        for (size_t p = 0; p < 3 * plane; ++p) {
            const uint32_t r = static_cast<uint32_t>(p % side);
            if (r >= r0 && r < r1) {
                const size_t q = (r - t0) + (p / side) * size_t{t1 - t0};
                differ += std::memcmp(&out.pixels[q], &whole.pixels[p], sizeof(double)) != 0;
            }
        }
        EXPECT_EQ(differ, 0u) << "tile from row " << r0;
    }
}

// Noise with a known channel covariance and spatial shape on a smooth
// image: the estimate finds the channels' variances and correlations, and
// the blind call is the denoiser with that estimate. A constant image has
// no noise: no model, and the blind call returns it unchanged.
TEST(Colour, EstimatedCovarianceKnownAnswer) {
    const uint32_t side = 96;
    const size_t plane = size_t{side} * side;
    // Channel covariance L L^T (per pixel), spatial shape of a 3 x 3 box.
    const double l[9] = {10, 0, 0, 6, 8, 0, 3, 4, 9};
    std::array<double, 9> truth{};
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            for (int k = 0; k < 3; ++k) truth[i * 3 + j] += l[i * 3 + k] * l[j * 3 + k];
        }
    }
    std::mt19937 gen(11);
    std::normal_distribution<double> n(0.0, 1.0);
    std::vector<double> w(3 * plane);
    for (double& v : w) v = n(gen);
    sw::ColourImage noisy{side, side, 3, std::vector<double>(3 * plane)};
    for (uint32_t c = 0; c < side; ++c) {
        for (uint32_t r = 0; r < side; ++r) {
            for (uint32_t k = 0; k < 3; ++k) {
                double box = 0.0;  // unit variance: a 3 x 3 box mean times 3
                for (uint32_t m = 0; m < 3; ++m) {
                    for (int dc = -1; dc <= 1; ++dc) {
                        for (int dr = -1; dr <= 1; ++dr) {
                            const size_t q = (r + side + dr) % side + ((c + side + dc) % side) * size_t{side};
                            box += l[k * 3 + m] * w[q + m * plane] / 3.0;
                        }
                    }
                }
                noisy.pixels[r + c * size_t{side} + k * plane] = 100.0 + 40.0 * k + 0.3 * r + 0.2 * c + box;
            }
        }
    }
    const sw::ColourNoiseEstimate e = sw::estimate_colour_noise(noisy);
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        EXPECT_NEAR(e.covariance[i * 4] / truth[i * 4], 1.0, 0.15);
        for (int j = 0; j < i; ++j) {
            const double norm = std::sqrt(truth[i * 4] * truth[j * 4]);
            EXPECT_NEAR(e.covariance[i * 3 + j] / norm, truth[i * 3 + j] / norm, 0.1);
        }
    }
    EXPECT_FALSE(e.white);
    sw::DenoiseOptions fast;
    fast.preset = "fast";
    const sw::ColourImage blind = sw::denoise_colour(noisy, sw::ColourNoise::estimated(), fast);
    EXPECT_EQ(blind.pixels, sw::denoise_colour(noisy, e.noise, fast).pixels);

    const sw::ColourImage flat{side, side, 4, std::vector<double>(4 * plane, 0.25)};
    EXPECT_TRUE(sw::estimate_colour_noise(flat).noise.models.empty());
    EXPECT_EQ(sw::denoise_colour(flat, sw::ColourNoise::estimated(), fast).pixels, flat.pixels);
}

}  // namespace
