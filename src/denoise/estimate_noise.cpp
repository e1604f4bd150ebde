#include "shapewiener/noise.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <string>
#include <thread>
#include <vector>

#include "denoise/fail.h"
#include "denoise/fft.h"
#include "driver/parallel.h"

namespace swdenoise {
namespace {

const double kPi = 3.14159265358979323846;

// The per-frequency low quantile that judges the blocks, and its factor
// for an exponentially distributed periodogram value: -ln(1 - q).
const double kQuantile = 0.25;
// Share of the blocks averaged (the flattest), at least kMinChosen of them.
const double kChosenShare = 0.15;
const size_t kMinChosen = 8;
// The mean periodogram of the chosen blocks of pure noise is this fraction
// of the noise's spectrum (choosing the lowest blocks also chooses low noise
// values); measured on white and low-pass noise of 256 x 256 to 1024 x 1024.
const double kChoiceBias = 0.89;
// A block whose judging statistic exceeds the largest chosen one by at most
// this (natural log of an energy ratio) counts as usable.
const double kUsableMargin = 0.25;

void check_input(const sw::Image& image) {
    if (image.rows == 0 || image.cols == 0) {
        fail("shapewiener:image:empty", "the image is empty.");
    }
    const uint64_t count = static_cast<uint64_t>(image.rows) * image.cols;
    if (image.pixels.size() != count) {
        fail("shapewiener:image:size", "the image has " + std::to_string(image.pixels.size()) +
                                           " values for " + std::to_string(image.rows) + " x " +
                                           std::to_string(image.cols) + " pixels.");
    }
    if (count > 2147483647u) {
        fail("shapewiener:image:tooLarge", "the image has more than 2^31 - 1 pixels.");
    }
    if (image.rows < 16 || image.cols < 16) {
        fail("shapewiener:image:tooSmall",
             "estimating the noise needs an image of at least 16 x 16 pixels, got " +
                 std::to_string(image.rows) + " x " + std::to_string(image.cols) + ".");
    }
    for (size_t p = 0; p < image.pixels.size(); ++p) {
        if (!std::isfinite(image.pixels[p])) {
            fail("shapewiener:image:notFinite",
                 "the image has a NaN or Inf value at row " + std::to_string(p % image.rows + 1) +
                     ", column " + std::to_string(p / image.rows + 1) + ".");
        }
    }
}

// First rows (or columns) of the blocks along an axis of length n: every
// step pixels, and one more flush with the end when the steps miss it.
std::vector<uint32_t> block_starts(uint32_t n, uint32_t block) {
    std::vector<uint32_t> starts;
    const uint32_t step = block / 2;
    for (uint32_t s = 0; s + block <= n; s += step) starts.push_back(s);
    if (starts.back() + block < n) starts.push_back(n - block);
    return starts;
}

// The k-th smallest of values (copied).
double order_statistic(std::vector<double> values, size_t k) {
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(k), values.end());
    return values[k];
}

}  // namespace
}  // namespace swdenoise

namespace sw {

NoiseEstimate estimate_noise(const Image& image, const NoiseEstimateOptions& options,
                             const Progress& progress) {
    using swdenoise::fail;
    swdenoise::check_input(image);
    const auto report = [&](double fraction) {
        if (progress && !progress(fraction, "noise estimate")) {
            fail("shapewiener:denoise:interrupted", "the noise estimate was cancelled.",
                 ErrorCode::kInterrupted);
        }
    };
    report(0.0);

    const uint32_t rows = image.rows;
    const uint32_t cols = image.cols;
    const uint32_t shorter = std::min(rows, cols);
    const uint32_t b = shorter >= 64 ? 32 : shorter >= 32 ? 16 : 8;
    const size_t bins = static_cast<size_t>(b) * b;

    // Separable window (the Hann window without its zero end points) and
    // the periodogram's normalisation: white noise of variance s^2 reads s^2.
    std::vector<double> w(b);
    double w_sum = 0.0;
    double w_sq = 0.0;
    for (uint32_t i = 0; i < b; ++i) {
        w[i] = 0.5 - 0.5 * std::cos(2.0 * swdenoise::kPi * (i + 1) / (b + 1));
        w_sum += w[i];
        w_sq += w[i] * w[i];
    }
    const double norm = 1.0 / (w_sq * w_sq);
    const double weight_total = w_sum * w_sum;
    std::vector<double> ramp(b);  // centred position along an axis
    double ramp_sq = 0.0;
    for (uint32_t i = 0; i < b; ++i) {
        ramp[i] = static_cast<double>(i) - 0.5 * (b - 1);
        ramp_sq += w[i] * ramp[i] * ramp[i];
    }
    const double ramp_norm = ramp_sq * w_sum;

    const std::vector<uint32_t> r0 = swdenoise::block_starts(rows, b);
    const std::vector<uint32_t> c0 = swdenoise::block_starts(cols, b);
    const size_t n_blocks = r0.size() * c0.size();
    std::vector<double> periodograms(n_blocks * bins);

    // One block: its periodogram into its own slot, so any split of the
    // blocks among threads gives the same bits.
    const auto one_block = [&](size_t index, std::vector<double>& block) {
        const uint32_t top = r0[index % r0.size()];
        const uint32_t left = c0[index / r0.size()];
        // The window-weighted least-squares plane (the window is symmetric,
        // so the constant and the two ramps are fitted one by one).
        double mean = 0.0;
        double slope_y = 0.0;
        double slope_x = 0.0;
        for (uint32_t x = 0; x < b; ++x) {
            const double* column = image.pixels.data() + static_cast<size_t>(left + x) * rows + top;
            for (uint32_t y = 0; y < b; ++y) {
                const double wz = w[y] * w[x] * column[y];
                mean += wz;
                slope_y += ramp[y] * wz;
                slope_x += ramp[x] * wz;
            }
        }
        mean /= weight_total;
        slope_y /= ramp_norm;
        slope_x /= ramp_norm;
        for (uint32_t x = 0; x < b; ++x) {
            const double* column = image.pixels.data() + static_cast<size_t>(left + x) * rows + top;
            for (uint32_t y = 0; y < b; ++y) {
                block[y + static_cast<size_t>(b) * x] =
                    w[y] * w[x] * (column[y] - mean - slope_y * ramp[y] - slope_x * ramp[x]);
            }
        }
        const std::vector<std::complex<double>> spectrum = swdenoise::fft2(block.data(), b, b);
        double* out = periodograms.data() + index * bins;
        for (size_t f = 0; f < bins; ++f) out[f] = std::norm(spectrum[f]) * norm;
    };

    RunOptions run;
    run.threads = options.threads;
    const unsigned threads =
        static_cast<unsigned>(std::min<size_t>(requested_threads(run), std::max<size_t>(1, n_blocks / 16)));
    const size_t rounds = 8;
    for (size_t round = 0; round < rounds; ++round) {
        const size_t begin = n_blocks * round / rounds;
        const size_t end = n_blocks * (round + 1) / rounds;
        const auto worker = [&](unsigned t) {
            std::vector<double> block(bins);
            for (size_t i = begin + (end - begin) * t / threads; i < begin + (end - begin) * (t + 1) / threads; ++i) {
                one_block(i, block);
            }
        };
        std::vector<std::thread> pool;
        for (unsigned t = 1; t < threads; ++t) pool.emplace_back(worker, t);
        worker(0);
        for (std::thread& th : pool) th.join();
        report(0.8 * static_cast<double>(round + 1) / rounds);
    }

    // Per frequency, a low quantile over the blocks: the yardstick against
    // which each block's flatness is judged.
    std::vector<double> yardstick(bins);
    {
        std::vector<double> column(n_blocks);
        const size_t k = static_cast<size_t>(swdenoise::kQuantile * static_cast<double>(n_blocks - 1));
        for (size_t f = 0; f < bins; ++f) {
            for (size_t i = 0; i < n_blocks; ++i) column[i] = periodograms[i * bins + f];
            yardstick[f] = swdenoise::order_statistic(column, k);
        }
    }
    // A block's statistic: the median over the frequencies (DC left out)
    // of log(periodogram / yardstick). The median keeps narrow noise peaks,
    // whose strength wanders over the image, from steering the choice.
    std::vector<double> statistic(n_blocks);
    {
        std::vector<double> logs;
        logs.reserve(bins);
        for (size_t i = 0; i < n_blocks; ++i) {
            logs.clear();
            const double* p = periodograms.data() + i * bins;
            for (size_t f = 1; f < bins; ++f) {
                if (yardstick[f] > 0.0) {
                    logs.push_back(p[f] > 0.0 ? std::log(p[f] / yardstick[f]) : -1e300);
                }
            }
            statistic[i] = logs.empty() ? 0.0 : swdenoise::order_statistic(logs, logs.size() / 2);
        }
    }
    std::vector<size_t> order(n_blocks);
    for (size_t i = 0; i < n_blocks; ++i) order[i] = i;
    std::sort(order.begin(), order.end(), [&](size_t a, size_t c) {
        return statistic[a] < statistic[c] || (statistic[a] == statistic[c] && a < c);
    });
    const size_t chosen = std::min(
        n_blocks, std::max(swdenoise::kMinChosen, static_cast<size_t>(std::lround(swdenoise::kChosenShare * static_cast<double>(n_blocks)))));
    std::vector<size_t> picked(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(chosen));
    std::sort(picked.begin(), picked.end());

    std::vector<double> spectrum(bins, 0.0);
    for (size_t i : picked) {
        const double* p = periodograms.data() + i * bins;
        for (size_t f = 0; f < bins; ++f) spectrum[f] += p[f];
    }
    const double scale = 1.0 / (static_cast<double>(chosen) * swdenoise::kChoiceBias);
    for (double& v : spectrum) v *= scale;
    // Removing each block's plane empties DC: take its neighbours'.
    spectrum[0] = 0.25 * (spectrum[1] + spectrum[b - 1] + spectrum[b] + spectrum[bins - b]);
    report(0.9);

    NoiseEstimate result;
    result.rows = rows;
    result.cols = cols;
    result.block = b;
    const double limit = statistic[order[chosen - 1]] + swdenoise::kUsableMargin;
    size_t usable = 0;
    for (double s : statistic) usable += s <= limit ? 1 : 0;
    result.usable_fraction = static_cast<double>(usable) / static_cast<double>(n_blocks);

    // White: the spectrum, smoothed over 5 x 5 neighbouring frequencies,
    // stays within a factor 2 everywhere away from DC.
    {
        double lo = 0.0;
        double hi = 0.0;
        bool first = true;
        for (uint32_t v = 0; v < b; ++v) {
            for (uint32_t u = 0; u < b; ++u) {
                if (u == 0 && v == 0) continue;
                double sum = 0.0;
                for (uint32_t dv = 0; dv < 5; ++dv) {
                    for (uint32_t du = 0; du < 5; ++du) {
                        sum += spectrum[(u + b + du - 2) % b + static_cast<size_t>(b) * ((v + b + dv - 2) % b)];
                    }
                }
                lo = first ? sum : std::min(lo, sum);
                hi = first ? sum : std::max(hi, sum);
                first = false;
            }
        }
        result.white = hi <= 2.0 * lo;
    }

    // Periodic bilinear interpolation onto the image's frequency grid.
    result.psd.resize(static_cast<size_t>(rows) * cols);
    std::vector<double> along(static_cast<size_t>(rows) * b);  // rows x b
    for (uint32_t v = 0; v < b; ++v) {
        for (uint32_t u = 0; u < rows; ++u) {
            const uint64_t pos = static_cast<uint64_t>(u) * b;
            const uint32_t i0 = static_cast<uint32_t>(pos / rows);
            const double t = static_cast<double>(pos % rows) / rows;
            along[u + static_cast<size_t>(rows) * v] =
                (1.0 - t) * spectrum[i0 + static_cast<size_t>(b) * v] +
                t * spectrum[(i0 + 1) % b + static_cast<size_t>(b) * v];
        }
    }
    double total = 0.0;
    for (uint32_t x = 0; x < cols; ++x) {
        const uint64_t pos = static_cast<uint64_t>(x) * b;
        const uint32_t j0 = static_cast<uint32_t>(pos / cols);
        const uint32_t j1 = (j0 + 1) % b;
        const double t = static_cast<double>(pos % cols) / cols;
        for (uint32_t u = 0; u < rows; ++u) {
            const double v = (1.0 - t) * along[u + static_cast<size_t>(rows) * j0] +
                             t * along[u + static_cast<size_t>(rows) * j1];
            result.psd[u + static_cast<size_t>(rows) * x] = v;
            total += v;
        }
    }
    result.sigma = std::sqrt(total / (static_cast<double>(rows) * cols));
    report(1.0);
    return result;
}

}  // namespace sw
