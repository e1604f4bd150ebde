// The noise estimate on synthetic noise of known spectrum, alone and under
// an image; its bits over thread counts; its refusals and cancelling.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "denoise/fft.h"
#include "shapewiener/noise.h"

namespace {

const double kPi = 3.14159265358979323846;
const uint32_t kSize = 256;

// Signed frequency of index i on an axis of n bins, in cycles per pixel.
double freq(uint32_t i, uint32_t n) { return (i <= n / 2 ? double(i) : double(i) - n) / n; }

// Spectrum shapes (before scaling to the wanted variance).
double white(double, double) { return 1.0; }
double line9(double, double fx) {  // 1 x 9 ones along the rows
    const double s = std::sin(9.0 * kPi * fx), d = std::sin(kPi * fx);
    return std::abs(d) < 1e-12 ? 81.0 : (s / d) * (s / d);
}
double peaks(double fy, double fx) {  // two narrow peaks at +-(0.16, 0.16) on a weak floor
    const auto g = [](double a, double b) { return std::exp(-(a * a + b * b) / (2.0 * 0.01 * 0.01)); };
    return 0.02 + g(fy - 0.16, fx - 0.16) + g(fy + 0.16, fx + 0.16);
}
double pink(double fy, double fx) { return 1.0 / std::max(std::hypot(fy, fx), 1.0 / kSize); }

std::vector<double> spectrum(double (*shape)(double, double), double sigma) {
    std::vector<double> s(size_t{kSize} * kSize);
    double total = 0.0;
    for (uint32_t x = 0; x < kSize; ++x)
        for (uint32_t y = 0; y < kSize; ++y) total += s[y + size_t{kSize} * x] = shape(freq(y, kSize), freq(x, kSize));
    for (double& v : s) v *= sigma * sigma * s.size() / total;
    return s;
}

// A realisation with exactly that spectrum (circular filtering of white noise).
std::vector<double> noise(const std::vector<double>& psd, unsigned seed) {
    std::mt19937_64 generator(seed);
    std::normal_distribution<double> normal(0.0, 1.0);
    std::vector<double> w(psd.size());
    for (double& v : w) v = normal(generator);
    std::vector<std::complex<double>> f = swdenoise::fft2(w.data(), kSize, kSize);
    for (size_t i = 0; i < f.size(); ++i) f[i] *= std::sqrt(psd[i]);
    return swdenoise::ifft2_real(f, kSize, kSize);
}

// Piecewise smooth: a slow ramp, a bright disc and a dark bar (edges).
std::vector<double> scene() {
    std::vector<double> img(size_t{kSize} * kSize);
    for (uint32_t x = 0; x < kSize; ++x) {
        for (uint32_t y = 0; y < kSize; ++y) {
            double v = 0.3 + 0.3 * x / kSize;
            if (std::hypot(y - 90.0, x - 150.0) < 50.0) v += 0.4;
            if (y > 180 && y < 220 && x > 30 && x < 200) v -= 0.25;
            img[y + size_t{kSize} * x] = v;
        }
    }
    return img;
}

// The scene with a regular pattern of its own (horizontal bars at 0.1875
// cycles per pixel) on its left quarter: the image's peaks beside the noise's.
std::vector<double> patterned() {
    std::vector<double> img = scene();
    for (uint32_t x = 0; x < kSize / 4; ++x)
        for (uint32_t y = 0; y < kSize; ++y) img[y + size_t{kSize} * x] += 0.1 * std::cos(2.0 * kPi * 0.1875 * y);
    return img;
}

// Both spectra averaged over 8 x 8 cells centred on a coarse frequency grid;
// the relative L2 distance between the two.
double coarse_error(const std::vector<double>& a, const std::vector<double>& b) {
    const uint32_t cells = 8, half = kSize / cells / 2;
    std::vector<double> ca(cells * cells, 0.0), cb(cells * cells, 0.0);
    for (uint32_t x = 0; x < kSize; ++x) {
        for (uint32_t y = 0; y < kSize; ++y) {
            const size_t c = ((y + half) % kSize) * cells / kSize + cells * (((x + half) % kSize) * cells / kSize);
            ca[c] += a[y + size_t{kSize} * x];
            cb[c] += b[y + size_t{kSize} * x];
        }
    }
    double num = 0.0, den = 0.0;
    for (size_t c = 0; c < ca.size(); ++c) {
        num += (ca[c] - cb[c]) * (ca[c] - cb[c]);
        den += cb[c] * cb[c];
    }
    return std::sqrt(num / den);
}

struct Case {
    const char* name;
    double (*shape)(double, double);
    int image;  // 0 none, 1 the scene, 2 the patterned scene
    double sigma_tolerance;     // relative
    double spectrum_tolerance;  // coarse_error
    bool white;
};

TEST(EstimateNoise, KnownSpectra) {
    const Case table[] = {
        {"white", white, 0, 0.04, 0.08, true},
        {"line 1 x 9", line9, 0, 0.04, 0.20, false},
        {"narrow peaks", peaks, 0, 0.04, 0.10, false},
        {"1/f", pink, 0, 0.06, 0.45, false},  // its highest values, next to DC, read low
        {"white under an image", white, 1, 0.06, 0.15, true},  // its lowest frequencies hold the image
        {"line under an image", line9, 1, 0.06, 0.20, false},
        {"narrow peaks under an image", peaks, 1, 0.04, 0.10, false},
        {"1/f under an image", pink, 1, 0.10, 0.45, false},
        {"narrow peaks beside the image's own", peaks, 2, 0.04, 0.10, false},
    };
    const std::vector<double> images[] = {{}, scene(), patterned()};
    for (const Case& c : table) {
        SCOPED_TRACE(c.name);
        const std::vector<double> psd = spectrum(c.shape, 0.05);
        std::vector<double> z = noise(psd, 7);
        for (size_t i = 0; c.image > 0 && i < z.size(); ++i) z[i] += images[c.image][i];
        const sw::NoiseEstimate e = sw::estimate_noise(sw::Image{kSize, kSize, z});
        ASSERT_EQ(e.psd.size(), psd.size());
        EXPECT_NEAR(e.sigma / 0.05, 1.0, c.sigma_tolerance);
        EXPECT_LT(coarse_error(e.psd, psd), c.spectrum_tolerance);
        EXPECT_EQ(e.white, c.white);
        if (c.image == 0) {
            EXPECT_GT(e.usable_fraction, 0.6);
        }
    }
    // No noise at all: a tiny estimate against the scene's contrast.
    EXPECT_LT(sw::estimate_noise(sw::Image{kSize, kSize, images[1]}).sigma, 1e-3);
}

// An 8-bit image (values k / 255): noise within a couple of grey levels
// reads as none, and blind denoising leaves the image as it is; stronger
// noise is read as usual, also where a third of the image is black and its
// noise cut off at 0 (those flat blocks hold less noise than the noise has).
TEST(EstimateNoise, QuantisedImageWithoutNoise) {
    const struct {
        const char* name;
        double sigma;  // grey levels, before rounding
        bool none;
        double shift;  // taken off the image before rounding and clipping
    } table[] = {
        {"no noise", 0.0, true, 0.0},
        {"one level", 1.0, true, 0.0},
        {"four levels", 4.0, false, 0.0},
        {"twelve levels, clipped at black", 12.0, false, 0.38},
    };
    const std::vector<double> img = scene();
    const std::vector<double> w = noise(spectrum(white, 1.0), 11);
    for (const auto& c : table) {
        SCOPED_TRACE(c.name);
        sw::Image z{kSize, kSize, std::vector<double>(img.size())};
        for (size_t i = 0; i < img.size(); ++i) z.pixels[i] = std::max(0.0, std::nearbyint(255.0 * (img[i] - c.shift) + c.sigma * w[i])) / 255.0;
        const sw::NoiseEstimate e = sw::estimate_noise(z);
        if (c.none) {
            EXPECT_EQ(e.sigma, 0.0);
            sw::DenoiseOptions fast;
            fast.preset = "fast";
            EXPECT_EQ(sw::denoise_blind(z, fast).pixels, z.pixels);
        } else {
            EXPECT_NEAR(e.sigma * 255.0, std::hypot(c.sigma, std::sqrt(1.0 / 12.0)), 0.1 * c.sigma);
        }
    }
}

TEST(EstimateNoise, SameBitsForAnyThreadCount) {
    const std::vector<double> img = scene();
    std::vector<double> z = noise(spectrum(line9, 0.1), 3);
    for (size_t i = 0; i < z.size(); ++i) z[i] += img[i];
    // A non-square size whose blocks do not tile it exactly.
    sw::Image image{kSize, 203, std::vector<double>(z.begin(), z.begin() + size_t{kSize} * 203)};
    sw::NoiseEstimateOptions options;
    options.threads = 1;
    const sw::NoiseEstimate one = sw::estimate_noise(image, options);
    for (unsigned threads : {2u, 3u, 8u}) {
        options.threads = threads;
        const sw::NoiseEstimate many = sw::estimate_noise(image, options);
        EXPECT_EQ(many.psd, one.psd) << threads;
        EXPECT_EQ(many.sigma, one.sigma) << threads;
    }
}

TEST(EstimateNoise, RefusalsAndCancel) {
    const struct {
        sw::Image image;
        const char* id;
    } table[] = {
        {sw::Image{0, 0, {}}, "shapewiener:image:empty"},
        {sw::Image{20, 20, std::vector<double>(399, 0.0)}, "shapewiener:image:size"},
        {sw::Image{15, 40, std::vector<double>(600, 0.0)}, "shapewiener:image:tooSmall"},
        {sw::Image{16, 16, std::vector<double>(256, NAN)}, "shapewiener:image:notFinite"},
    };
    for (const auto& c : table) {
        try {
            sw::estimate_noise(c.image);
            ADD_FAILURE() << c.id;
        } catch (const sw::DenoiseError& e) {
            EXPECT_STREQ(e.error().identifier, c.id);
        }
    }
    // The smallest accepted size works; a cancel in the phase stops the call.
    const std::vector<double> w = noise(spectrum(white, 1.0), 1);
    EXPECT_EQ(sw::estimate_noise(sw::Image{16, 16, std::vector<double>(w.begin(), w.begin() + 256)}).rows, 16u);
    std::string phase;
    try {
        sw::estimate_noise(sw::Image{kSize, kSize, scene()}, sw::NoiseEstimateOptions(),
                           [&](double f, const char* p) { phase = p; return f < 0.5; });
        ADD_FAILURE() << "not cancelled";
    } catch (const sw::DenoiseError& e) {
        EXPECT_STREQ(e.error().identifier, "shapewiener:denoise:interrupted");
    }
    EXPECT_EQ(phase, "noise estimate");
}

}  // namespace

namespace {

// Denoising blind is the estimate, then the denoiser with its spectrum:
// the same bits, the estimate's phase first, and its own cancel; a constant
// image has nothing to remove; a tile cannot estimate its frame's noise.
TEST(DenoiseBlind, IsTheEstimateThenItsSpectrum) {
    const std::vector<double> img = scene();
    std::vector<double> z = noise(spectrum(line9, 0.05), 5);
    for (size_t i = 0; i < z.size(); ++i) z[i] += img[i];
    const sw::Image image{kSize, 120, std::vector<double>(z.begin(), z.begin() + size_t{kSize} * 120)};
    sw::DenoiseOptions fast;
    fast.preset = "fast";
    std::vector<std::string> phases;
    double last = 0.0;
    bool ordered = true;
    sw::NoiseEstimate used;
    const sw::Image blind = sw::denoise_blind(image, fast, [&](double f, const char* p) {
        if (phases.empty() || phases.back() != p) phases.push_back(p);
        ordered = ordered && f >= last && f <= 1.0;
        last = f;
        return true;
    }, nullptr, &used);
    const sw::NoiseEstimate e = sw::estimate_noise(image);
    EXPECT_EQ(used.psd, e.psd);
    const sw::Image known = sw::denoise(image, e.model(), fast);
    EXPECT_EQ(blind.pixels, known.pixels);
    ASSERT_FALSE(phases.empty());
    EXPECT_EQ(phases.front(), "noise estimate");
    EXPECT_EQ(phases.back(), "done");
    EXPECT_TRUE(ordered);

    const sw::Image flat{32, 32, std::vector<double>(32 * 32, 0.5)};
    EXPECT_EQ(sw::denoise_blind(flat).pixels, flat.pixels);

    sw::DenoiseOptions tile = fast;
    tile.tile = {kSize, kSize, 0, 0, 0.0, 1.0};
    std::string seen;
    const struct {
        sw::DenoiseOptions options;
        sw::Progress progress;
        const char* id;
    } refusals[] = {
        {tile, sw::Progress(), "shapewiener:options:tile"},
        {fast, [&](double, const char* p) { seen = p; return false; }, "shapewiener:denoise:interrupted"},
    };
    for (const auto& r : refusals) {
        try {
            sw::denoise_blind(image, r.options, r.progress);
            ADD_FAILURE() << r.id;
        } catch (const sw::DenoiseError& err) {
            EXPECT_STREQ(err.error().identifier, r.id);
        }
    }
    EXPECT_EQ(seen, "noise estimate");
}

}  // namespace
