// The denoiser: noise descriptions and the block spectrum, the scale rule,
// the shape list, orientation, value ranges, progress and determinism.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <set>
#include <string>
#include <vector>

#include "caller/coloured_noise.h"
#include "caller/processing_list.h"
#include "denoise/lanes.h"
#include "denoise/noise.h"
#include "denoise/peaks.h"
#include "denoise/pipeline.h"
#include "denoise/scales.h"
#include "shape/shape.h"
#include "shapewiener/units.h"
#include "support/sha256.h"
#include "support/shared_workload.h"

namespace {

using swdenoise::Autocovariance;
const double kPi = 3.14159265358979323846;

double mean_of(const std::vector<double>& v) {
    double s = 0.0;
    for (double x : v) s += x;
    return s / v.size();
}

// The kernel's spectrum on a rows x cols grid, taps centred at (0, 0).
std::vector<double> kernel_spectrum(const std::vector<double>& k, int kr, int kc, double sigma,
                                    int rows, int cols) {
    double energy = 0.0;
    for (double t : k) energy += t * t;
    std::vector<double> psd(static_cast<size_t>(rows) * cols);
    for (int v = 0; v < cols; ++v) {
        for (int u = 0; u < rows; ++u) {
            double re = 0.0, im = 0.0;
            for (int b = 0; b < kc; ++b) {
                for (int a = 0; a < kr; ++a) {
                    const double phase = -2.0 * kPi * (double(u) * (a - kr / 2) / rows + double(v) * (b - kc / 2) / cols);
                    re += k[a + b * kr] * std::cos(phase);
                    im += k[a + b * kr] * std::sin(phase);
                }
            }
            psd[u + static_cast<size_t>(v) * rows] = sigma * sigma * (re * re + im * im) / energy;
        }
    }
    return psd;
}

std::vector<double> gaussian_kernel(int side, double s) {
    std::vector<double> k(side * side);
    for (int c = 0; c < side; ++c) {
        for (int r = 0; r < side; ++r) {
            const double y = r - side / 2, x = c - side / 2;
            k[r + c * side] = std::exp(-(x * x + y * y) / (2 * s * s));
        }
    }
    return k;
}

// A 1 x 9 horizontal line kernel: noise correlated along the rows' direction.
sw::NoiseModel line_noise(double sigma) {
    return sw::NoiseModel::from_kernel(std::vector<double>(9, 1.0), 1, 9, sigma);
}

// Flat regions, a vertical and a diagonal edge and a disc, in [0.2, 0.8].
sw::Image scene(uint32_t rows, uint32_t cols) {
    sw::Image img{rows, cols, std::vector<double>(static_cast<size_t>(rows) * cols)};
    for (uint32_t c = 0; c < cols; ++c) {
        for (uint32_t r = 0; r < rows; ++r) {
            double v = c < cols / 2 ? 0.2 : 0.7;
            if (r + c < rows / 3) v = 0.5;
            const double dr = r - 0.65 * rows, dc = c - 0.3 * cols;
            if (dr * dr + dc * dc < 0.03 * rows * cols) v = 0.8;
            img.pixels[r + static_cast<size_t>(c) * rows] = v;
        }
    }
    return img;
}

sw::Image add_noise(const sw::Image& clean, const swcaller::NoiseKernel& k, double sigma, uint32_t seed) {
    const swcaller::Image n = swcaller::coloured_noise(clean.rows, clean.cols, k, sigma, seed);
    sw::Image out = clean;
    for (size_t p = 0; p < out.pixels.size(); ++p) out.pixels[p] += n.pixels[p];
    return out;
}

swcaller::NoiseKernel unit_kernel(std::vector<double> taps, uint32_t rows, uint32_t cols) {
    double e = 0.0;
    for (double t : taps) e += t * t;
    for (double& t : taps) t /= std::sqrt(e);
    swcaller::NoiseKernel k;
    k.rows = rows;
    k.cols = cols;
    k.taps = std::move(taps);
    return k;
}

double psnr(const sw::Image& a, const sw::Image& b, double peak = 1.0) {
    double s = 0.0;
    for (size_t p = 0; p < a.pixels.size(); ++p) s += (a.pixels[p] - b.pixels[p]) * (a.pixels[p] - b.pixels[p]);
    return 10.0 * std::log10(peak * peak * a.pixels.size() / s);
}

// ---------------------------------------------------------------------------
// Noise descriptions and the block spectrum

TEST(BlockPsd, MeanIsTheVarianceWhiteIsFlatAndForwardsAgree) {
    const int rows = 40, cols = 52;
    const std::vector<double> gauss = gaussian_kernel(9, 1.5);
    const std::vector<double> odd = {0.3, -1.2, 0.5, 2.0, 0.1, 0.0, -0.7, 0.9, 1.1, 0.4, -0.2, 0.6, 0.8, -1.5, 0.05};
    struct Case {
        const char* name;
        sw::NoiseModel kernel_form;
        std::vector<double> psd;  // the same noise as a full spectrum
    } cases[] = {
        {"gauss", sw::NoiseModel::from_kernel(gauss, 9, 9, 0.2), kernel_spectrum(gauss, 9, 9, 0.2, rows, cols)},
        {"odd", sw::NoiseModel::from_kernel(odd, 3, 5, 0.7), kernel_spectrum(odd, 3, 5, 0.7, rows, cols)},
        {"white", sw::NoiseModel::white(0.3), std::vector<double>(rows * cols, 0.09)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Autocovariance a = swdenoise::noise_autocovariance(c.kernel_form, rows, cols);
        const Autocovariance b = swdenoise::noise_autocovariance(sw::NoiseModel::from_psd(c.psd), rows, cols);
        for (int j = -31; j <= 31; ++j) {
            for (int i = -31; i <= 31; ++i) ASSERT_NEAR(a.at(i, j), b.at(i, j), 1e-13) << i << ", " << j;
        }
        for (bool weighted : {true, false}) {
            const std::vector<double> psd = swdenoise::block_psd(a, weighted);
            EXPECT_NEAR(mean_of(psd), a.variance(), 1e-14 * 1024);
            const std::vector<double> other = swdenoise::block_psd(b, weighted);
            for (size_t t = 0; t < psd.size(); ++t) EXPECT_NEAR(psd[t], other[t], 1e-12);
        }
    }
    for (double p : swdenoise::block_psd(swdenoise::noise_autocovariance(sw::NoiseModel::white(0.3), 8, 8))) {
        EXPECT_DOUBLE_EQ(p, 0.09);
    }
    // Unweighted, a kernel shorter than the grid gives its sampled spectrum
    // (the caller side's noise_psd, which keeps the kernel's energy).
    swcaller::NoiseKernel k;
    k.rows = 3;
    k.cols = 5;
    k.taps = odd;
    const std::vector<double> sampled = swcaller::noise_psd(k, 0.7, 32);
    const std::vector<double> folded =
        swdenoise::block_psd(swdenoise::noise_autocovariance(sw::NoiseModel::from_kernel(odd, 3, 5, 0.7), 64, 64), false);
    for (size_t t = 0; t < sampled.size(); ++t) EXPECT_NEAR(folded[t], sampled[t] / k.energy(), 1e-14) << t;
}

TEST(BlockPsd, LongRangeCorrelationIsWeightedNotSampled) {
    // A narrow spectral line: the window's expected periodogram spreads it
    // (Fejer kernel); it is never the line sampled at 32 points.
    const int n = 256;
    std::vector<double> line(n * n, 0.0);
    line[40 + 40 * n] = line[(n - 40) + (n - 40) * n] = 0.5 * n * n;  // variance 1
    const Autocovariance r = swdenoise::noise_autocovariance(sw::NoiseModel::from_psd(line), n, n);
    EXPECT_NEAR(r.variance(), 1.0, 1e-12);
    EXPECT_NEAR(r.at(31, -31), std::cos(2 * kPi * 40 * 0 / n), 1e-12);  // constant along the anti-diagonal
    const std::vector<double> psd = swdenoise::block_psd(r);
    EXPECT_NEAR(mean_of(psd), 1.0, 1e-12);
    EXPECT_GT(psd[5 + 5 * 32], 10.0);  // the line falls at 32 * 40 / 256 = 5
    for (double p : psd) EXPECT_GE(p, 0.0);
    EXPECT_FALSE(swdenoise::is_white(r));
}

TEST(NoiseAndImage, BadInputsAreRejectedWithTheirIdentifiers) {
    const sw::Image img = scene(6, 5);
    sw::Image nan_image = img;
    nan_image.pixels[7] = std::nan("");
    sw::Image inf_image = img;
    inf_image.pixels[0] = INFINITY;
    std::vector<double> negative(30, 0.01);
    negative[3] = -1e-9;
    std::vector<double> with_nan(30, 0.01);
    with_nan[4] = NAN;
    struct Case {
        sw::Image image;
        sw::NoiseModel noise;
        std::string preset;
        const char* id;
    } cases[] = {
        {img, sw::NoiseModel::white(0.0), "default", "shapewiener:noise:sigma"},
        {img, sw::NoiseModel::white(-0.1), "default", "shapewiener:noise:sigma"},
        {img, sw::NoiseModel::white(NAN), "default", "shapewiener:noise:sigma"},
        {img, sw::NoiseModel::from_kernel({1, 2}, 1, 2, 0.0), "default", "shapewiener:noise:sigma"},
        {img, sw::NoiseModel::from_kernel({1, 2, 3}, 1, 2, 0.1), "default", "shapewiener:noise:kernelSize"},
        {img, sw::NoiseModel::from_kernel({0, 0}, 1, 2, 0.1), "default", "shapewiener:noise:allZero"},
        {img, sw::NoiseModel::from_kernel({1, INFINITY}, 1, 2, 0.1), "default", "shapewiener:noise:notFinite"},
        {img, sw::NoiseModel::from_psd(std::vector<double>(29, 0.01)), "default", "shapewiener:noise:psdSize"},
        {img, sw::NoiseModel::from_psd(negative), "default", "shapewiener:noise:negative"},
        {img, sw::NoiseModel::from_psd(with_nan), "default", "shapewiener:noise:notFinite"},
        {img, sw::NoiseModel::from_psd(std::vector<double>(30, 0.0)), "default", "shapewiener:noise:allZero"},
        {nan_image, sw::NoiseModel::white(0.1), "default", "shapewiener:image:notFinite"},
        {inf_image, sw::NoiseModel::white(0.1), "default", "shapewiener:image:notFinite"},
        {sw::Image{}, sw::NoiseModel::white(0.1), "default", "shapewiener:image:empty"},
        {sw::Image{2, 2, {1, 2, 3}}, sw::NoiseModel::white(0.1), "default", "shapewiener:image:size"},
        {img, sw::NoiseModel::white(0.1), "best", "shapewiener:options:preset"},
    };
    for (const Case& c : cases) {
        sw::DenoiseOptions options;
        options.preset = c.preset;
        try {
            sw::denoise(c.image, c.noise, options);
            ADD_FAILURE() << "accepted; expected " << c.id;
        } catch (const sw::DenoiseError& e) {
            EXPECT_STREQ(e.error().identifier, c.id) << e.what();
            EXPECT_GT(std::strlen(e.what()), 20u);
        }
    }
}

TEST(NoiseAndImage, ImplausibleLevelsGetAWarningNamingTheMistake) {
    using T = sw::SampleType;
    struct Case {
        double lo, hi;
        T type;
        sw::NoiseModel noise;
        const char* says;  // "" for no warning
    } cases[] = {
        {0, 255, T::kUint8, sw::NoiseModel::white(0.1), "sigma 0.1 on uint8 values 0..255: noise levels are in the image's units; did you mean 25.5?"},
        {3, 250, T::kUint8, sw::NoiseModel::from_kernel({1, 2}, 1, 2, 0.5), "did you mean 127.5?"},
        {0, 60000, T::kUint16, sw::NoiseModel::white(0.02), "did you mean 1311?"},
        {0.02, 0.97, T::kFloat64, sw::NoiseModel::white(25), "did you mean 0.09804 (25/255)?"},
        {-1e3, 1e3, T::kFloat32, sw::NoiseModel::from_psd({4e8, 4e8}), "larger than the value range"},
        {0, 1e3, T::kFloat64, sw::NoiseModel::white(1e-5), "below 1e-4 of the value range"},
        // Plausible levels, and models the denoiser refuses anyway.
        {0, 255, T::kUint8, sw::NoiseModel::white(25), ""},
        {0, 255, T::kUint8, sw::NoiseModel::white(1), ""},
        {0.1, 0.9, T::kFloat64, sw::NoiseModel::white(0.1), ""},
        {7, 7, T::kUint16, sw::NoiseModel::white(3), ""},
        {0, 1, T::kFloat64, sw::NoiseModel::white(0), ""},
        {0, 1, T::kFloat64, sw::NoiseModel::from_psd({}), ""},
    };
    for (const Case& c : cases) {
        const std::string w = sw::noise_warning(c.lo, c.hi, c.type, c.noise);
        if (*c.says == '\0') {
            EXPECT_EQ(w, "") << c.lo << ".." << c.hi;
        } else {
            EXPECT_NE(w.find(c.says), std::string::npos) << w;
        }
    }
}

// ---------------------------------------------------------------------------
// Scales

TEST(Scales, DirectionalVariancesMatchMonteCarlo) {
    // Averages along E, NE and N of coloured noise with a non-separable,
    // anisotropic kernel, against their exact variance.
    const std::vector<double> taps = {1.0, 0.5, 0.0, 2.0, 1.0, -0.5, 0.3, 0.0, 1.0};
    const swcaller::NoiseKernel k = unit_kernel(taps, 3, 3);
    const uint32_t n = 400;
    const swcaller::Image noise = swcaller::coloured_noise(n, n, k, 1.0, 9);
    const Autocovariance r = swdenoise::noise_autocovariance(sw::NoiseModel::from_kernel(taps, 3, 3, 1.0), n, n);
    for (uint32_t plane : {0u, 1u, 2u, 7u}) {
        for (uint32_t length : {2u, 5u}) {
            const swcaller::Step s = swcaller::plane_step(plane);
            double sum2 = 0.0;
            size_t count = 0;
            for (uint32_t c = 8; c < n - 8; c += 3) {
                for (uint32_t row = 8; row < n - 8; row += 3) {
                    double m = 0.0;
                    for (uint32_t t = 0; t < length; ++t) m += noise.at(row + t * s.row, c + t * s.col);
                    m /= length;
                    sum2 += m * m;
                    ++count;
                }
            }
            const double exact = swdenoise::ray_average_variance(r, plane, length);
            EXPECT_NEAR(sum2 / count, exact, 0.05 * exact) << "plane " << plane << " length " << length;
        }
    }
    // Not sigma^2 / h: this noise is correlated along N.
    EXPECT_GT(swdenoise::ray_average_variance(r, 2, 5), 1.2 / 5);
}

// ---------------------------------------------------------------------------
// The shape list

// The shared workloads were built by the same rules: scales (with any
// thread count), sector masks and list must come out byte for byte, the
// transforms up to rounding. This pins the scale rule on a real image.
TEST(Scales, AFailingLaneStopsTheOthersAndReachesTheCaller) {
    // Lane 0 is the calling thread's; an exception on a worker thread must
    // come back to the caller, not end the process.
    for (unsigned failing : {0u, 2u}) {
        std::atomic<bool> stop{false};
        std::atomic<int> ran{0};
        const auto body = [&](unsigned k) {
            ++ran;
            if (k == failing) throw std::runtime_error("lane");
        };
        EXPECT_THROW(swdenoise::run_lanes(3, body, &stop), std::runtime_error);
        EXPECT_EQ(ran, 3);
        EXPECT_TRUE(stop);
    }
}

TEST(ShapeList, ReproducesTheSharedAdaptiveWorkloads) {
    const std::string root = swtest::shared_workload_root(SHAPEWIENER_WORKLOADS);
    ASSERT_FALSE(root.empty()) << "no " << SHAPEWIENER_WORKLOADS;
    // Gaussian kernel of standard deviation 1 on 9 x 9, sigma 0.1.
    const Autocovariance r = swdenoise::noise_autocovariance(
        sw::NoiseModel::from_kernel(gaussian_kernel(9, 1.0), 9, 9, 0.1), 512, 512);
    const std::vector<double> folded = swdenoise::block_psd(r, false);
    for (const char* name : {"adaptive_h7", "adaptive_h9"}) {
        const swtest::SharedWorkload workload(root + "/" + name);
        const swtest::CallPlan& call = workload.plan();
        for (size_t t = 0; t < 1024; ++t) EXPECT_NEAR(folded[t], call.psd[t], 1e-15);
        swdenoise::ScaleRule rule;
        if (std::string(name) == "adaptive_h9") rule.lengths = {1, 2, 3, 5, 7, 9};
        const swcaller::ShapeArguments s =
            swdenoise::adaptive_shapes(call.noisy.data(), 512, 512, r, rule, false);
        EXPECT_EQ(swdenoise::choose_scales(call.noisy.data(), 512, 512, r, rule, 3),
                  swdenoise::choose_scales(call.noisy.data(), 512, 512, r, rule, 1)) << name;
        EXPECT_TRUE(call.direction_scale_map == s.direction_scales.indices) << name;
        EXPECT_TRUE(call.pixels == s.list.pixels) << name;
        EXPECT_TRUE(call.keys == s.list.keys) << name;
        EXPECT_TRUE(call.sector_masks == s.sector_masks) << name;
        for (size_t i = 0; i < call.transforms.size(); ++i) {
            for (size_t j = 0; j < call.transforms[i].size(); ++j) {
                ASSERT_NEAR(call.transforms[i][j], s.transforms[i][j], 1e-15) << name;
            }
        }
    }
}

// ---------------------------------------------------------------------------
// The whole denoiser

TEST(Denoise, AnisotropicNoiseIsTakenInItsOwnOrientation) {
    // Noise correlated along the rows' direction (a horizontal line kernel):
    // described right, it must be removed better than described transposed.
    const uint32_t rows = 64, cols = 64;
    const sw::Image clean = scene(rows, cols);
    const sw::Image noisy = add_noise(clean, unit_kernel(std::vector<double>(9, 1.0), 1, 9), 0.1, 12);
    const sw::NoiseModel right = line_noise(0.1);
    const sw::NoiseModel transposed = sw::NoiseModel::from_kernel(std::vector<double>(9, 1.0), 9, 1, 0.1);
    const double p_right = psnr(sw::denoise(noisy, right), clean);
    const double p_transposed = psnr(sw::denoise(noisy, transposed), clean);
    EXPECT_GT(p_right, p_transposed + 1.0) << p_right << " vs " << p_transposed;
    EXPECT_GT(p_right, psnr(noisy, clean) + 6.0);
}

TEST(Denoise, NarrowNoisePeaksGoFirstOverTheWholeImage) {
    // Diagonal stripes under a wide window: two narrow spectral peaks.
    const int side = 33;
    std::vector<double> stripes = gaussian_kernel(side, 6.0);
    for (int c = 0; c < side; ++c) {
        for (int r = 0; r < side; ++r) stripes[r + c * side] *= std::cos((r - side / 2) + (c - side / 2));
    }
    const uint32_t rows = 80, cols = 72;
    const sw::NoiseModel striped = sw::NoiseModel::from_kernel(stripes, side, side, 0.1);

    // The full-size spectrum is the kernel's (its mean the variance), and
    // only the narrow peaks call for the global stage.
    const std::vector<double> psd = swdenoise::full_psd(striped, rows, cols);
    const std::vector<double> direct = kernel_spectrum(stripes, side, side, 0.1, rows, cols);
    for (size_t p = 0; p < psd.size(); p += 97) EXPECT_NEAR(psd[p], direct[p], 1e-12) << p;
    EXPECT_NEAR(mean_of(psd), 0.01, 1e-12);
    swdenoise::PeakRule rule;
    rule.enabled = true;
    EXPECT_TRUE(swdenoise::has_peaks(psd, rows, cols, rule));
    const sw::NoiseModel smooth[] = {sw::NoiseModel::white(0.1), line_noise(0.1),
                                     sw::NoiseModel::from_kernel({1, 2, 1, 2, 4, 2, 1, 2, 1}, 3, 3, 0.1),
                                     sw::NoiseModel::from_kernel(gaussian_kernel(9, 1.0), 9, 9, 0.1)};
    for (const sw::NoiseModel& n : smooth) {
        EXPECT_FALSE(swdenoise::has_peaks(swdenoise::full_psd(n, rows, cols), rows, cols, rule));
    }

    // The stage removes most of the stripes, and the denoiser is the stage
    // followed by the local passes on its output and residual noise.
    const sw::Image clean = scene(rows, cols);
    const sw::Image noisy = add_noise(clean, unit_kernel(stripes, side, side), 0.1, 3);
    sw::Image first;
    sw::NoiseModel residual;
    ASSERT_TRUE(sw::remove_noise_peaks(noisy, striped, "default", &first, &residual));
    sw::Image untouched;
    sw::NoiseModel same;
    EXPECT_FALSE(sw::remove_noise_peaks(noisy, line_noise(0.1), "default", &untouched, &same));
    EXPECT_GT(psnr(first, clean), psnr(noisy, clean) + 8.0);
    EXPECT_LT(mean_of(residual.psd), 0.2 * mean_of(psd));
    sw::DenoiseOptions local_only;
    local_only.peaks = false;
    const sw::Image whole = sw::denoise(noisy, striped);
    const sw::Image staged = sw::denoise(first, residual, local_only);
    EXPECT_EQ(0, std::memcmp(whole.pixels.data(), staged.pixels.data(), whole.pixels.size() * 8));
    EXPECT_GT(psnr(whole, clean), psnr(first, clean));

    // Noise that is nothing but the peaks, on an image with no signal there:
    // the stage leaves no noise, and its image is the output (the passes
    // used to refuse the empty residual).
    std::vector<double> only = psd;
    const double top = *std::max_element(only.begin(), only.end());
    for (double& v : only) v = v > 0.05 * top ? v : 0.0;
    const sw::Image dark{rows, cols, std::vector<double>(size_t{rows} * cols, 0.0)};
    sw::Image peak_free;
    sw::NoiseModel none;
    ASSERT_TRUE(sw::remove_noise_peaks(dark, sw::NoiseModel::from_psd(only), "default", &peak_free, &none));
    EXPECT_TRUE(std::all_of(none.psd.begin(), none.psd.end(), [](double v) { return v == 0.0; }));
    EXPECT_EQ(sw::denoise(dark, sw::NoiseModel::from_psd(only)).pixels, peak_free.pixels);
}

TEST(Denoise, AnyValueRangeAndSizeDeterministically) {
    const uint32_t rows = 30, cols = 34;
    const sw::Image clean = scene(rows, cols);
    const sw::Image noisy = add_noise(clean, swcaller::binomial_kernel(), 0.08, 6);
    const sw::NoiseModel noise = sw::NoiseModel::from_kernel({1, 2, 1, 2, 4, 2, 1, 2, 1}, 3, 3, 0.08);
    sw::DenoiseReport report;
    const sw::Image unit = sw::denoise(noisy, noise, {}, {}, &report);
    EXPECT_EQ(report.passes, 3);
    EXPECT_EQ(report.accepted_entries, rows * cols + 2u * 15u * 17u);  // two sparse pilot passes
    EXPECT_GT(report.key_changes, 2u);
    EXPECT_GT(psnr(unit, clean), psnr(noisy, clean) + 5.0);

    // [0, 255] and [-3, 5]: the same estimate, in those units.
    for (const auto& [scale, offset] : {std::pair{255.0, 0.0}, std::pair{8.0, -3.0}}) {
        sw::Image x = noisy;
        for (double& v : x.pixels) v = v * scale + offset;
        sw::NoiseModel n = noise;
        n.sigma *= scale;
        const sw::Image y = sw::denoise(x, n);
        for (size_t p = 0; p < y.pixels.size(); ++p) {
            EXPECT_NEAR((y.pixels[p] - offset) / scale, unit.pixels[p], 1e-6) << scale << " pixel " << p;
        }
    }

    // However large the noise, the estimate stays within the data's range
    // (a constant image comes back as it is) and, where the noise swamps
    // everything, is the image smoothed, never the input.
    const sw::Image flat{rows, cols, std::vector<double>(rows * cols, 0.5)};
    for (const double sigma : {1.0, 1e3, 1e12}) {
        EXPECT_EQ(sw::denoise(flat, sw::NoiseModel::white(sigma)).pixels, flat.pixels) << sigma;
        const sw::Image out = sw::denoise(clean, sw::NoiseModel::white(sigma));
        const auto [lo, hi] = std::minmax_element(out.pixels.begin(), out.pixels.end());
        EXPECT_GE(*lo, 0.2) << sigma;
        EXPECT_LE(*hi, 0.8) << sigma;
        EXPECT_NE(out.pixels, clean.pixels) << sigma;
    }

    // Small noise on a blocky image with many pixels at the data's minimum:
    // an estimate a little outside the range is clipped to it, never
    // replaced by a mean around the pixel.
    sw::Image blocky{40, 44, std::vector<double>(40 * 44)};
    for (uint32_t c = 0; c < 44; ++c) {
        for (uint32_t r = 0; r < 40; ++r) {
            // A hash of the block: values spread over [0, 1], dark ones dense.
            const uint32_t h = ((r / 2) * 2654435761u) ^ ((c / 2 + 1) * 2246822519u);
            const double u = static_cast<double>((h ^ (h >> 15)) % 1000u) / 999.0;
            blocky.pixels[r + c * 40] = u * u * u;
        }
    }
    const sw::Image kept = sw::denoise(blocky, sw::NoiseModel::white(0.005));
    double moved = 0.0;
    for (size_t p = 0; p < kept.pixels.size(); ++p) {
        moved = std::max(moved, std::abs(kept.pixels[p] - blocky.pixels[p]));
    }
    EXPECT_LT(moved, 0.05);

    // Tiny images, every preset: finite output of the right size.
    for (const char* preset : {"fast", "default"}) {
        for (const auto& [r, c] : {std::pair{1u, 1u}, std::pair{1u, 7u}, std::pair{5u, 1u}, std::pair{3u, 2u}}) {
            sw::Image tiny{r, c, std::vector<double>(r * c)};
            for (size_t p = 0; p < tiny.pixels.size(); ++p) tiny.pixels[p] = 0.3 + 0.1 * std::sin(p * 1.7);
            sw::DenoiseOptions o;
            o.preset = preset;
            const sw::Image out = sw::denoise(tiny, sw::NoiseModel::white(0.05), o);
            ASSERT_EQ(out.pixels.size(), tiny.pixels.size());
            for (double v : out.pixels) EXPECT_TRUE(std::isfinite(v)) << preset << " " << r << "x" << c;
        }
    }
}

// The denoiser's output bits, pinned: a change to them must be deliberate
// (and measured with the quality benchmark). Every thread count gives them.
TEST(Denoise, OutputBitsArePinned) {
    const sw::Image clean = scene(40, 44);
    const sw::Image coloured = add_noise(clean, swcaller::binomial_kernel(), 0.1, 3);
    const sw::Image white = add_noise(clean, swcaller::white_kernel(), 0.1, 4);
    const sw::NoiseModel binomial = sw::NoiseModel::from_kernel({1, 2, 1, 2, 4, 2, 1, 2, 1}, 3, 3, 0.1);
    const struct {
        const sw::Image& noisy;
        sw::NoiseModel noise;
        const char* preset;
        const char* sha256;
    } cases[] = {
        {white, sw::NoiseModel::white(0.1), "default", "dea7431c9840bc7144ef02d2ece563391d3e35ffb0436658e68e66aa569fb6a2"},
        {white, sw::NoiseModel::white(0.1), "fast", "a0b73a4bbea978e414494a4a07e3eb34b76a2c29fe6d3cfd851d834a052b61f8"},
        {coloured, binomial, "default", "4e92f94886970eb1d7a8249cd07ec1c1f902778d1116db59205c57f8248faea1"},
        {coloured, line_noise(0.1), "default", "7a733f00ac88da4ec4b94398f8d46bcb961961758ffe308aafcef98f02a784ef"},
        {coloured, binomial, "fast", "f2452a48c946f663c6cc8c374a6a39c01ce0226a01acc8025dccd051220c53fa"},
    };
    for (const auto& c : cases) {
        for (unsigned threads : {1u, 2u}) {
            sw::DenoiseOptions o;
            o.preset = c.preset;
            o.threads = threads;
            const sw::Image out = sw::denoise(c.noisy, c.noise, o);
            EXPECT_EQ(swtest::sha256_hex(out.pixels.data(), out.pixels.size() * sizeof(double)), c.sha256)
                << c.preset << ", " << threads << " threads";
        }
    }
}

TEST(Denoise, ReportsProgressAndCancels) {
    const sw::Image noisy = add_noise(scene(20, 20), swcaller::white_kernel(), 0.1, 1);
    std::vector<double> fractions;
    std::vector<std::string> phases;
    sw::denoise(noisy, sw::NoiseModel::white(0.1), {}, [&](double f, const char* phase) {
        fractions.push_back(f);
        phases.push_back(phase);
        return true;
    });
    ASSERT_GE(fractions.size(), 4u);
    for (size_t i = 1; i < fractions.size(); ++i) EXPECT_GE(fractions[i], fractions[i - 1]);
    EXPECT_EQ(fractions.back(), 1.0);
    EXPECT_NE(std::find(phases.begin(), phases.end(), "pass 2"), phases.end());
    try {
        sw::denoise(noisy, sw::NoiseModel::white(0.1), {},
                    [](double, const char* phase) { return std::string(phase) != "pass 1"; });
        ADD_FAILURE() << "not cancelled";
    } catch (const sw::DenoiseError& e) {
        EXPECT_STREQ(e.error().identifier, "shapewiener:denoise:interrupted");
        EXPECT_EQ(e.error().code, sw::ErrorCode::kInterrupted);
    }
}

}  // namespace
