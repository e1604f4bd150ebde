#include "shapewiener/colour.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <new>
#include <string>
#include <utility>

#include "denoise/clipped.h"
#include "denoise/fail.h"
#include "denoise/lanes.h"
#include "denoise/noise.h"
#include "denoise/peaks.h"
#include "denoise/pipeline.h"
#include "driver/parallel.h"
#include "shapewiener/noise.h"
#include "shapewiener/units.h"

namespace sw {

ColourNoise ColourNoise::same(NoiseModel model) {
    ColourNoise n;
    n.kind = Kind::kSame;
    n.models.push_back(std::move(model));
    return n;
}

ColourNoise ColourNoise::per_channel(std::vector<NoiseModel> models) {
    ColourNoise n;
    n.kind = Kind::kPerChannel;
    n.models = std::move(models);
    return n;
}

ColourNoise ColourNoise::correlated(NoiseModel spatial, const std::array<double, 9>& covariance) {
    ColourNoise n;
    n.kind = Kind::kCorrelated;
    n.models.push_back(std::move(spatial));
    n.covariance = covariance;
    return n;
}

ColourNoise ColourNoise::estimated() {
    ColourNoise n;
    n.kind = Kind::kEstimated;
    return n;
}

}  // namespace sw

namespace swdenoise {
namespace {

using Matrix3 = std::array<double, 9>;  // row-major

constexpr uint32_t kColours = 3;

const Matrix3 kOpponent = {
    1.0 / std::sqrt(3.0), 1.0 / std::sqrt(3.0),  1.0 / std::sqrt(3.0),
    1.0 / std::sqrt(2.0), 0.0,                   -1.0 / std::sqrt(2.0),
    1.0 / std::sqrt(6.0), -2.0 / std::sqrt(6.0), 1.0 / std::sqrt(6.0),
};

// (A C A^T)_kk: the noise variance the rotation's row k receives.
double rotated_variance(const Matrix3& a, const Matrix3& c, uint32_t k) {
    double sum = 0.0;
    for (uint32_t i = 0; i < kColours; ++i) {
        for (uint32_t j = 0; j < kColours; ++j) sum += a[k * 3 + i] * c[i * 3 + j] * a[k * 3 + j];
    }
    return sum;
}

// Eigenvectors of a symmetric 3 x 3 matrix by cyclic Jacobi rotations: the
// columns of `v`, their eigenvalues in `values`.
void symmetric_eigen(Matrix3 m, Matrix3* v, std::array<double, 3>* values) {
    *v = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    for (int sweep = 0; sweep < 50; ++sweep) {
        const double off = std::fabs(m[1]) + std::fabs(m[2]) + std::fabs(m[5]);
        if (off == 0.0) break;
        for (uint32_t p = 0; p < 2; ++p) {
            for (uint32_t q = p + 1; q < 3; ++q) {
                const double apq = m[p * 3 + q];
                if (apq == 0.0) continue;
                const double theta = (m[q * 3 + q] - m[p * 3 + p]) / (2.0 * apq);
                const double t = (theta >= 0.0 ? 1.0 : -1.0) /
                                 (std::fabs(theta) + std::sqrt(theta * theta + 1.0));
                const double c = 1.0 / std::sqrt(t * t + 1.0), s = t * c;
                for (uint32_t k = 0; k < 3; ++k) {  // m = m J
                    const double mkp = m[k * 3 + p], mkq = m[k * 3 + q];
                    m[k * 3 + p] = c * mkp - s * mkq;
                    m[k * 3 + q] = s * mkp + c * mkq;
                }
                for (uint32_t k = 0; k < 3; ++k) {  // m = J^T m
                    const double mpk = m[p * 3 + k], mqk = m[q * 3 + k];
                    m[p * 3 + k] = c * mpk - s * mqk;
                    m[q * 3 + k] = s * mpk + c * mqk;
                }
                for (uint32_t k = 0; k < 3; ++k) {  // v = v J
                    const double vkp = (*v)[k * 3 + p], vkq = (*v)[k * 3 + q];
                    (*v)[k * 3 + p] = c * vkp - s * vkq;
                    (*v)[k * 3 + q] = s * vkp + c * vkq;
                }
            }
        }
    }
    *values = {m[0], m[4], m[8]};
}

void check_covariance(const Matrix3& c) {
    double largest = 0.0;
    for (double x : c) {
        if (!std::isfinite(x)) {
            fail("shapewiener:noise:covariance", "the channel covariance has a NaN or Inf value.");
        }
        largest = std::max(largest, std::fabs(x));
    }
    if (largest == 0.0) {
        fail("shapewiener:noise:covariance", "the channel covariance is all zero.");
    }
    for (uint32_t i = 0; i < 3; ++i) {
        for (uint32_t j = i + 1; j < 3; ++j) {
            if (std::fabs(c[i * 3 + j] - c[j * 3 + i]) > 1e-12 * largest) {
                fail("shapewiener:noise:covariance", "the channel covariance is not symmetric.");
            }
        }
    }
    Matrix3 v;
    std::array<double, 3> values;
    symmetric_eigen(c, &v, &values);
    if (*std::min_element(values.begin(), values.end()) < -1e-9 * largest) {
        fail("shapewiener:noise:covariance",
             "the channel covariance is not positive semi-definite (it has a negative eigenvalue).");
    }
}

void check_noise(const sw::ColourNoise& noise, uint32_t rows, uint32_t cols) {
    const size_t wanted = noise.kind == sw::ColourNoise::Kind::kPerChannel ? kColours
                          : noise.kind == sw::ColourNoise::Kind::kEstimated ? 0
                                                                            : 1;
    if (noise.models.size() != wanted) {
        fail("shapewiener:noise:channels",
             "the colour noise has " + std::to_string(noise.models.size()) + " model(s); " +
                 (wanted == 1 ? "this form takes one." : wanted == 0 ? "an estimated one takes none." : "a model per channel takes 3."));
    }
    for (const sw::NoiseModel& m : noise.models) noise_autocovariance(m, rows, cols);  // checks it
    if (noise.kind == sw::ColourNoise::Kind::kCorrelated) check_covariance(noise.covariance);
}

void check_colour_image(const sw::ColourImage& image) {
    if (image.channels != 3 && image.channels != 4) {
        fail("shapewiener:image:channels",
             "a colour image has 3 channels (RGB) or 4 (RGB and alpha); this one has " +
                 std::to_string(image.channels) + ".");
    }
    const uint64_t plane = static_cast<uint64_t>(image.rows) * image.cols;
    if (image.rows == 0 || image.cols == 0) {
        fail("shapewiener:image:empty", "the image is empty; it needs at least 1 x 1 pixels.");
    }
    if (image.pixels.size() != plane * image.channels) {
        fail("shapewiener:image:size", "the image has " + std::to_string(image.pixels.size()) +
                                           " values for " + std::to_string(image.rows) + " x " +
                                           std::to_string(image.cols) + " x " +
                                           std::to_string(image.channels) + ".");
    }
}

double mean_of(const std::vector<double>& v) {
    double sum = 0.0;
    for (double x : v) sum += x;
    return sum / static_cast<double>(v.size());
}

// A spatial model scaled to per-pixel variance `variance`. A flat spectrum
// (an estimate of white noise) becomes the white model: the same noise,
// without the spectrum's transforms in every channel's set-up.
sw::NoiseModel scaled_model(const sw::NoiseModel& m, double variance) {
    switch (m.kind) {
        case sw::NoiseModel::Kind::kWhite:
            return sw::NoiseModel::white(std::sqrt(variance));
        case sw::NoiseModel::Kind::kKernel:
            return sw::NoiseModel::from_kernel(m.kernel, m.kernel_rows, m.kernel_cols,
                                               std::sqrt(variance));
        case sw::NoiseModel::Kind::kPsd: {
            if (std::all_of(m.psd.begin(), m.psd.end(), [&](double p) { return p == m.psd[0]; })) {
                return sw::NoiseModel::white(std::sqrt(variance));
            }
            double sum = 0.0;
            for (double p : m.psd) sum += p;
            const double factor = variance / (sum / static_cast<double>(m.psd.size()));
            std::vector<double> psd(m.psd.size());
            for (size_t f = 0; f < psd.size(); ++f) psd[f] = m.psd[f] * factor;
            return sw::NoiseModel::from_psd(std::move(psd));
        }
    }
    return m;
}

// The noise of rotation row k: sum_i sum_j a_ki a_kj S_ij, S the noise's
// channel cross-spectra. `variance` gets its per-pixel variance.
sw::NoiseModel rotated_noise(const sw::ColourNoise& noise, const Matrix3& a, uint32_t k,
                             uint32_t rows, uint32_t cols, double* variance) {
    using Kind = sw::ColourNoise::Kind;
    if (noise.kind == Kind::kSame) {
        const sw::NoiseModel& m = noise.models[0];
        *variance = noise_autocovariance(m, rows, cols).variance();
        return m;
    }
    if (noise.kind == Kind::kCorrelated) {
        *variance = rotated_variance(a, noise.covariance, k);
        return scaled_model(noise.models[0], *variance);
    }
    const bool white = std::all_of(noise.models.begin(), noise.models.end(), [](const sw::NoiseModel& m) {
        return m.kind == sw::NoiseModel::Kind::kWhite;
    });
    if (white) {
        double sum = 0.0;
        for (uint32_t c = 0; c < kColours; ++c) {
            sum += a[k * 3 + c] * a[k * 3 + c] * (noise.models[c].sigma * noise.models[c].sigma);
        }
        *variance = sum;
        return sw::NoiseModel::white(std::sqrt(sum));
    }
    std::vector<double> psd(static_cast<size_t>(rows) * cols, 0.0);
    for (uint32_t c = 0; c < kColours; ++c) {
        const double weight = a[k * 3 + c] * a[k * 3 + c];
        const std::vector<double> channel = full_psd(noise.models[c], rows, cols);
        for (size_t f = 0; f < psd.size(); ++f) psd[f] += weight * channel[f];
    }
    double sum = 0.0;
    for (double p : psd) sum += p;
    *variance = sum / static_cast<double>(psd.size());
    return sw::NoiseModel::from_psd(std::move(psd));
}

// Channel k's own noise, for denoising the channels apart.
sw::NoiseModel channel_noise(const sw::ColourNoise& noise, uint32_t k, double* variance) {
    using Kind = sw::ColourNoise::Kind;
    if (noise.kind == Kind::kPerChannel) {
        *variance = 1.0;
        return noise.models[k];
    }
    if (noise.kind == Kind::kSame) {
        *variance = 1.0;
        return noise.models[0];
    }
    *variance = noise.covariance[k * 3 + k];
    return scaled_model(noise.models[0], *variance);
}

// The three channels denoise_colour filters: rotated by `a`, or R, G and B
// as they are.
std::vector<sw::Image> filtered_channels(const sw::ColourImage& image, const Matrix3& a, bool joint) {
    const size_t plane = static_cast<size_t>(image.rows) * image.cols;
    std::vector<sw::Image> channels(kColours);
    for (uint32_t k = 0; k < kColours; ++k) {
        sw::Image& channel = channels[k];
        channel.rows = image.rows;
        channel.cols = image.cols;
        channel.pixels.resize(plane);
        for (size_t p = 0; p < plane; ++p) {
            channel.pixels[p] = joint ? a[k * 3 + 0] * image.pixels[p] +
                                            a[k * 3 + 1] * image.pixels[p + plane] +
                                            a[k * 3 + 2] * image.pixels[p + 2 * plane]
                                      : image.pixels[p + k * plane];
        }
    }
    return channels;
}

}  // namespace
}  // namespace swdenoise

namespace sw {

std::array<double, 9> colour_basis(const ColourNoise& noise, const ColourOptions& colour) {
    using swdenoise::kOpponent;
    if (noise.kind == ColourNoise::Kind::kCorrelated) swdenoise::check_covariance(noise.covariance);
    if (colour.basis == ColourBasis::kOpponent || noise.kind != ColourNoise::Kind::kCorrelated) {
        return kOpponent;
    }
    std::array<double, 9> v;
    std::array<double, 3> values;
    swdenoise::symmetric_eigen(noise.covariance, &v, &values);
    // Row 0: the eigenvector closest to grey; rows 1, 2: the others by
    // falling eigenvalue. Signs: the largest component positive.
    uint32_t order[3] = {0, 1, 2};
    auto grey = [&](uint32_t j) { return std::fabs(v[j] + v[3 + j] + v[6 + j]); };
    std::sort(order, order + 3, [&](uint32_t x, uint32_t y) {
        return grey(x) > grey(y) || (grey(x) == grey(y) && x < y);
    });
    if (values[order[2]] > values[order[1]]) std::swap(order[1], order[2]);
    std::array<double, 9> a;
    for (uint32_t k = 0; k < 3; ++k) {
        const uint32_t j = order[k];
        double big = v[j];
        for (uint32_t i = 1; i < 3; ++i) {
            if (std::fabs(v[i * 3 + j]) > std::fabs(big)) big = v[i * 3 + j];
        }
        const double sign = big < 0.0 ? -1.0 : 1.0;
        for (uint32_t i = 0; i < 3; ++i) a[k * 3 + i] = sign * v[i * 3 + j];
    }
    return a;
}

std::array<double, 6> colour_ranges(const ColourImage& image, const ColourNoise& noise,
                                    const ColourOptions& colour) {
    swdenoise::check_colour_image(image);
    const std::vector<Image> channels =
        swdenoise::filtered_channels(image, colour_basis(noise, colour), colour.joint);
    std::array<double, 6> ranges{};
    for (uint32_t k = 0; k < swdenoise::kColours; ++k) {
        const auto [lo, hi] = std::minmax_element(channels[k].pixels.begin(), channels[k].pixels.end());
        ranges[2 * k] = *lo;
        ranges[2 * k + 1] = *hi;
    }
    return ranges;
}

ColourNoiseEstimate estimate_colour_noise(const ColourImage& image,
                                          const NoiseEstimateOptions& options,
                                          const Progress& progress) {
    using namespace swdenoise;
    check_colour_image(image);
    const uint32_t rows = image.rows, cols = image.cols;
    const size_t plane = static_cast<size_t>(rows) * cols;
    const Matrix3& a = kOpponent;
    // The rotated channels, then their pairwise sums over sqrt 2, whose
    // variance holds the pair's covariance: (b_i + b_j) / 2 + b_ij.
    std::vector<Image> channels = filtered_channels(image, a, true);
    constexpr uint32_t kPairs[3][2] = {{0, 1}, {0, 2}, {1, 2}};
    constexpr uint32_t kImages = 6;
    std::array<std::vector<double>, kImages> psd;
    ColourNoiseEstimate out;
    out.rows = rows;
    out.cols = cols;
    out.usable_fraction = 1.0;
    out.white = true;
    bool differences_white = true;
    // Where any of R, G, B is clipped, every rotated channel's noise is cut.
    const std::vector<char> clipped = clipped_pixels(image.pixels.data(), plane, kColours);
    // The six estimates are independent. With more than one thread, a
    // second thread takes every other image and each estimate runs on one
    // (its bits do not depend on the count); only the calling thread
    // reports progress. Once one lane has failed (or been cancelled), the
    // other stops after its current image.
    sw::RunOptions run;
    run.threads = options.threads;
    const uint32_t lanes = requested_threads(run) > 1 ? 2 : 1;
    NoiseEstimateOptions one = options;
    if (lanes > 1) one.threads = 1;
    std::array<NoiseEstimate, kImages> found;
    const auto estimate_lane = [&](uint32_t lane, const Progress& lane_progress, const std::atomic<bool>& stop) {
        Image sum{rows, cols, std::vector<double>(plane)};
        for (uint32_t k = lane, j = 0; k < kImages && !stop; k += lanes, ++j) {
            if (k >= kColours) {
                const Image& x = channels[kPairs[k - 3][0]];
                const Image& y = channels[kPairs[k - 3][1]];
                for (size_t p = 0; p < plane; ++p) sum.pixels[p] = (x.pixels[p] + y.pixels[p]) / std::sqrt(2.0);
            }
            const Progress part = [&](double fraction, const char* phase) {
                return !lane_progress || lane_progress((j + fraction) * lanes / kImages, phase);
            };
            found[k] = estimate_noise_unclipped(k < kColours ? channels[k] : sum, one, part, clipped);
        }
    };
    std::atomic<bool> stop{false};
    run_lanes(lanes, [&](unsigned lane) { estimate_lane(lane, lane == 0 ? progress : Progress(), stop); }, &stop);
    for (uint32_t k = 0; k < kImages; ++k) {
        if (k < kColours) {
            out.usable_fraction = std::min(out.usable_fraction, found[k].usable_fraction);
            out.white = out.white && found[k].white;
            if (k > 0) differences_white = differences_white && found[k].white;
        }
        psd[k] = std::move(found[k].psd);
    }
    // The shape. A first guess: the colour differences' spectra together
    // (the luminance's when they hold nothing). Then, kShapeRounds times,
    // each rotated channel's spectrum is divided by its level (the median
    // of its ratio to the guess), and the shape at each frequency is the
    // mean of those within kShapeSpread of their smallest: the noise has
    // one shape in every channel, while structure (the luminance's detail,
    // or the colour detail of a colourful image) raises some channels'
    // spectra at some frequencies.
    std::vector<double> shape(plane);
    for (size_t f = 0; f < plane; ++f) shape[f] = psd[1][f] + psd[2][f];
    if (!(mean_of(shape) > 0.0)) shape = psd[0];
    std::vector<double> ratio;
    ratio.reserve(plane);
    const auto median_ratio = [&](const std::vector<double>& spectrum) {
        ratio.clear();
        for (size_t f = 0; f < plane; ++f) {
            if (shape[f] > 0.0) ratio.push_back(spectrum[f] / shape[f]);
        }
        const size_t at = (ratio.size() - 1) / 2;
        std::nth_element(ratio.begin(), ratio.begin() + static_cast<std::ptrdiff_t>(at), ratio.end());
        return ratio[at];
    };
    // Both colour differences white: the noise is white (they hold the
    // least structure; the luminance's detail would only bend the shape).
    if (differences_white && mean_of(shape) > 0.0) {
        std::fill(shape.begin(), shape.end(), 1.0);
        out.white = true;
    }
    constexpr int kShapeRounds = 3;
    constexpr double kShapeSpread = 3.0;
    for (int round = 0; round < kShapeRounds && !out.white && mean_of(shape) > 0.0; ++round) {
        std::array<double, kColours> level{};
        for (uint32_t k = 0; k < kColours; ++k) level[k] = median_ratio(psd[k]);
        if (!(std::max({level[0], level[1], level[2]}) > 0.0)) break;
        for (size_t f = 0; f < plane; ++f) {
            std::array<double, kColours> v{};
            double smallest = std::numeric_limits<double>::infinity();
            for (uint32_t k = 0; k < kColours; ++k) {
                v[k] = level[k] > 0.0 ? psd[k][f] / level[k] : -1.0;  // -1: no noise to read
                if (v[k] >= 0.0) smallest = std::min(smallest, v[k]);
            }
            double sum = 0.0;
            int count = 0;
            for (uint32_t k = 0; k < kColours; ++k) {
                if (v[k] >= 0.0 && v[k] <= kShapeSpread * smallest) {
                    sum += v[k];
                    ++count;
                }
            }
            shape[f] = sum / count;
        }
    }
    const double total = mean_of(shape);
    // Each image's variance: the median of its spectrum's ratio to the
    // shape, over the frequencies the shape holds.
    std::array<double, kImages> variance{};
    if (total > 0.0) {
        for (double& v : shape) v /= total;
        for (uint32_t k = 0; k < kImages; ++k) variance[k] = median_ratio(psd[k]);
    }
    // The rotated channels' covariance b: its off-diagonal part scaled down
    // as far as needed to keep it positive semi-definite (the diagonal, what
    // the denoiser uses, as read).
    Matrix3 b{};
    Matrix3 off{};
    for (uint32_t k = 0; k < kColours; ++k) b[k * 4] = variance[k];
    for (uint32_t k = 0; k < kColours; ++k) {
        const uint32_t i = kPairs[k][0], j = kPairs[k][1];
        off[i * 3 + j] = off[j * 3 + i] = variance[3 + k] - 0.5 * (variance[i] + variance[j]);
    }
    const auto with = [&](double t) {
        Matrix3 m = b;
        for (size_t e = 0; e < 9; ++e) m[e] += t * off[e];
        return m;
    };
    const auto semidefinite = [&](const Matrix3& m) {
        Matrix3 v;
        std::array<double, 3> values;
        symmetric_eigen(m, &v, &values);
        return *std::min_element(values.begin(), values.end()) >= 0.0;
    };
    double t = 1.0;
    if (!semidefinite(with(1.0))) {
        double lo = 0.0, hi = 1.0;
        for (int step = 0; step < 40; ++step) {
            const double mid = 0.5 * (lo + hi);
            (semidefinite(with(mid)) ? lo : hi) = mid;
        }
        t = lo;
    }
    b = with(t);
    // covariance = a^T b a.
    for (uint32_t i = 0; i < kColours; ++i) {
        for (uint32_t j = i; j < kColours; ++j) {
            double c = 0.0;
            for (uint32_t k = 0; k < kColours; ++k) {
                for (uint32_t l = 0; l < kColours; ++l) c += a[k * 3 + i] * b[k * 3 + l] * a[l * 3 + j];
            }
            out.covariance[i * 3 + j] = out.covariance[j * 3 + i] = c;
        }
    }
    // Variances below what the rotation's rounding leaves in a constant
    // image are no noise.
    double largest = 0.0;
    for (size_t p = 0; p < plane * kColours; ++p) largest = std::max(largest, std::fabs(image.pixels[p]));
    const double floor = 1e-10 * largest;
    if (total > 0.0 && std::max({variance[0], variance[1], variance[2]}) > floor * floor) {
        out.shape = shape;
        out.noise = ColourNoise::correlated(NoiseModel::from_psd(std::move(shape)), out.covariance);
    } else {
        out.shape.assign(plane, 0.0);
        out.covariance = {};
        out.noise.kind = ColourNoise::Kind::kSame;  // nothing to remove: no model
    }
    return out;
}

ColourImage denoise_colour(const ColourImage& image, const ColourNoise& noise,
                           const DenoiseOptions& options, const ColourOptions& colour,
                           const Progress& progress, DenoiseReport* report) {
    using namespace swdenoise;
    check_colour_image(image);
    const bool tiled = options.tile.rows > 0;
    if (noise.kind == ColourNoise::Kind::kEstimated) {
        if (tiled) {
            fail("shapewiener:options:tile",
                 "a tile's noise is its frame's: estimate it on the whole image "
                 "(estimate_colour_noise) and pass that.");
        }
        NoiseEstimateOptions eo;
        eo.threads = options.threads;
        const ColourNoiseEstimate found =
            estimate_colour_noise(image, eo, [&](double fraction, const char* phase) {
                return !progress || progress(0.1 * fraction, phase);
            });
        if (found.noise.models.empty()) {  // no noise found: the image is its own estimate
            if (progress && !progress(1.0, "done")) {
                fail("shapewiener:denoise:interrupted", "the denoiser was cancelled.",
                     ErrorCode::kInterrupted);
            }
            if (report != nullptr) *report = DenoiseReport();
            return image;
        }
        return denoise_colour(image, found.noise, options, colour,
                              [&](double fraction, const char* phase) {
                                  return !progress || progress(0.1 + 0.9 * fraction, phase);
                              },
                              report);
    }
    const uint32_t rows = image.rows, cols = image.cols;
    // The noise is described for the frame: a tile's psd has the frame's size.
    const uint32_t noise_rows = tiled ? options.tile.rows : rows;
    const uint32_t noise_cols = tiled ? options.tile.cols : cols;
    check_noise(noise, noise_rows, noise_cols);
    Settings settings = preset_settings(options.preset);
    settings.peaks.enabled = settings.peaks.enabled && options.peaks;
    const size_t plane = static_cast<size_t>(rows) * cols;
    try {
        const std::array<double, 9> a = colour_basis(noise, colour);
        ColourImage out;
        out.rows = rows;
        out.cols = cols;
        out.channels = image.channels;
        out.pixels.assign(image.pixels.size(), 0.0);
        SharedShapes shared;
        DenoiseReport total;
        // The channels to filter: rotated, or as they are.
        std::vector<Image> channels = filtered_channels(image, a, colour.joint);
        // The channels' noise.
        std::vector<NoiseModel> models(kColours);
        std::array<double, 3> variance{};
        for (uint32_t k = 0; k < kColours; ++k) {
            models[k] = colour.joint
                            ? rotated_noise(noise, a, k, noise_rows, noise_cols, &variance[k])
                            : channel_noise(noise, k, &variance[k]);
        }
        const double largest = *std::max_element(variance.begin(), variance.end());
        // Channels whose noise has one spatial shape at different levels are
        // filtered as that shape at one level: channel k divided by
        // scale[k], so that its noise is the reference channel's (the first
        // the noise reaches), and its estimate multiplied back. They then
        // share one plan and its levels (the filter commutes with the
        // scaling up to rounding).
        using Kind = ColourNoise::Kind;
        const bool one_shape =
            colour.joint &&
            (noise.kind == Kind::kSame || noise.kind == Kind::kCorrelated ||
             std::all_of(noise.models.begin(), noise.models.end(),
                         [](const NoiseModel& m) { return m.kind == NoiseModel::Kind::kWhite; }));
        std::array<double, 3> scale{1.0, 1.0, 1.0};
        if (one_shape) {
            uint32_t reference = kColours;
            for (uint32_t k = 0; k < kColours; ++k) {
                if (!(variance[k] > 1e-12 * largest)) continue;
                if (reference == kColours) {
                    reference = k;
                    continue;
                }
                if (variance[k] == variance[reference]) continue;
                scale[k] = std::sqrt(variance[k] / variance[reference]);
                models[k] = models[reference];
                for (double& v : channels[k].pixels) v /= scale[k];
            }
        }
        // Whether any spectrum needs the row packing; each distinct model's
        // autocovariance is computed once, and the first filtered channel's
        // is handed on to its set-up.
        if (colour.joint) {
            for (uint32_t k = 0; k < kColours; ++k) {
                if (!(variance[k] > 0.0)) continue;
                uint32_t seen = 0;
                while (seen < k && !(variance[seen] > 0.0 && same_model(models[seen], models[k]))) ++seen;
                if (seen < k) continue;
                const Autocovariance r = noise_autocovariance(models[k], noise_rows, noise_cols);
                if (!transpose_symmetric(block_psd(r, settings.weighted_psd))) shared.rows_only = true;
                if (!shared.noise_known && variance[k] > 1e-12 * largest) {
                    shared.noise = models[k];
                    shared.raw = r;
                    shared.noise_known = true;
                }
            }
        }
        // One working-range width for every filtered channel: channels with
        // the same noise then share one plan and its levels. (A tile's
        // channels: their frame's ranges.)
        for (uint32_t k = 0; k < kColours; ++k) {
            if (!(variance[k] > 1e-12 * largest)) continue;
            if (tiled) {
                shared.range_width =
                    std::max(shared.range_width, colour.tile_ranges[2 * k + 1] / scale[k] -
                                                     colour.tile_ranges[2 * k] / scale[k]);
                continue;
            }
            const auto [lo, hi] = std::minmax_element(channels[k].pixels.begin(), channels[k].pixels.end());
            shared.range_width = std::max(shared.range_width, *hi - *lo);
        }
        std::vector<double> rotated(plane * kColours);
        for (uint32_t k = 0; k < kColours; ++k) {
            Image& channel = channels[k];
            // A channel the noise does not reach is its own estimate.
            if (!(variance[k] > 1e-12 * largest)) {
                std::copy(channel.pixels.begin(), channel.pixels.end(), rotated.begin() + k * plane);
                continue;
            }
            const Progress part = [&](double fraction, const char* phase) {
                return !progress || progress((k + fraction) / kColours, phase);
            };
            DenoiseReport one;
            TileFrame frame;
            if (tiled) {  // the frame's range of this channel
                frame = options.tile;
                frame.value_min = colour.tile_ranges[2 * k] / scale[k];
                frame.value_max = colour.tile_ranges[2 * k + 1] / scale[k];
            }
            // The colour differences (rows 1 and 2 of the rotation) carry
            // little detail: their first two passes run on every seventh
            // diagonal line of the frame, their last on every third
            // (bench/RESULTS.md).
            Settings channel_settings = settings;
            if (colour.joint && k > 0) {
                channel_settings.sparse_passes = 2;
                channel_settings.pilot_step = 7;
                channel_settings.pilot_diagonal = true;
                channel_settings.last_step = 3;
            }
            const Image estimate = run_pipeline(channel, models[k], channel_settings, options.threads,
                                                part, &one, frame,
                                                colour.joint ? &shared : nullptr);
            for (size_t p = 0; p < plane; ++p) rotated[p + k * plane] = estimate.pixels[p] * scale[k];
            total.passes = std::max(total.passes, one.passes);
            total.accepted_entries += one.accepted_entries;
            total.key_changes += one.key_changes;
            total.seconds += one.seconds;
        }
        for (uint32_t c = 0; c < kColours; ++c) {
            for (size_t p = 0; p < plane; ++p) {
                out.pixels[p + c * plane] =
                    colour.joint ? a[0 * 3 + c] * rotated[p] + a[1 * 3 + c] * rotated[p + plane] +
                                       a[2 * 3 + c] * rotated[p + 2 * plane]
                                 : rotated[p + c * plane];
            }
        }
        if (image.channels == 4) {
            std::copy(image.pixels.begin() + 3 * plane, image.pixels.end(),
                      out.pixels.begin() + 3 * plane);
        }
        if (progress && !progress(1.0, "done")) {
            fail("shapewiener:denoise:interrupted", "the denoiser was cancelled.",
                 ErrorCode::kInterrupted);
        }
        if (report != nullptr) *report = total;
        return out;
    } catch (const std::bad_alloc&) {
        const double pixels = static_cast<double>(rows) * cols;
        fail("shapewiener:memory:allocation",
             "cannot allocate " +
                 format_bytes(pixels * (denoise_bytes_per_pixel(options.preset) + 8.0 * 2 * kColours)) +
                 " for a " + std::to_string(rows) + " x " + std::to_string(cols) + " colour image.",
             ErrorCode::kOutOfMemory);
    }
}

}  // namespace sw
