#include "denoise/peaks.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <utility>

#include "cancel/cancel.h"
#include "denoise/fft.h"

namespace swdenoise {
namespace {

double mean_of(const std::vector<double>& v) {
    double sum = 0.0;
    for (double x : v) sum += x;
    return v.empty() ? 0.0 : sum / static_cast<double>(v.size());
}

// exp(-t^2 / (2 s^2)) for circular lags t = min(k, n - k), k = 0..n-1.
std::vector<double> lag_window(uint32_t n, double s) {
    std::vector<double> w(n);
    for (uint32_t k = 0; k < n; ++k) {
        const double t = static_cast<double>(std::min(k, n - k));
        w[k] = std::exp(-t * t / (2.0 * s * s));
    }
    return w;
}

}  // namespace

std::vector<double> full_psd(const sw::NoiseModel& noise, uint32_t rows, uint32_t cols) {
    const size_t count = static_cast<size_t>(rows) * cols;
    switch (noise.kind) {
        case sw::NoiseModel::Kind::kWhite:
            return std::vector<double>(count, noise.sigma * noise.sigma);
        case sw::NoiseModel::Kind::kPsd:
            return noise.psd;
        case sw::NoiseModel::Kind::kKernel:
            break;
    }
    // The kernel wrapped onto the image's grid (its position does not change
    // |DFT|^2), then |DFT|^2 scaled to the stated variance.
    const size_t step = std::max<size_t>(rows, 1);
    std::vector<double> grid = swcancel::make_vector<double>(count, step, [](size_t) { return 0.0; });
    double energy = 0.0;
    for (uint32_t b = 0; b < noise.kernel_cols; ++b) {
        swcancel::cancel_point();
        for (uint32_t a = 0; a < noise.kernel_rows; ++a) {
            const double t = noise.kernel[a + static_cast<size_t>(b) * noise.kernel_rows];
            grid[(a % rows) + static_cast<size_t>(b % cols) * rows] += t;
            energy += t * t;
        }
    }
    std::vector<std::complex<double>> k = fft2(grid.data(), rows, cols);
    swcancel::release(&grid);
    const double scale = noise.sigma * noise.sigma / energy;
    std::vector<double> psd =
        swcancel::make_vector<double>(count, step, [&](size_t p) { return std::norm(k[p]) * scale; });
    swcancel::release(&k);
    return psd;
}

std::vector<double> smooth_spectrum(const std::vector<double>& spectrum, uint32_t rows,
                                    uint32_t cols, double lag_std) {
    const size_t step = std::max<size_t>(rows, 1);
    std::vector<std::complex<double>> in = swcancel::make_vector<std::complex<double>>(
        spectrum.size(), step, [&](size_t p) { return std::complex<double>(spectrum[p], 0.0); });
    std::vector<double> lags = ifft2_real(in, rows, cols);
    swcancel::release(&in);
    const std::vector<double> wr = lag_window(rows, lag_std);
    const std::vector<double> wc = lag_window(cols, lag_std);
    for (uint32_t j = 0; j < cols; ++j) {
        swcancel::cancel_point();
        for (uint32_t i = 0; i < rows; ++i) lags[i + static_cast<size_t>(j) * rows] *= wr[i] * wc[j];
    }
    std::vector<std::complex<double>> out = fft2(lags.data(), rows, cols);
    swcancel::release(&lags);
    std::vector<double> re =
        swcancel::make_vector<double>(out.size(), step, [&](size_t p) { return out[p].real(); });
    swcancel::release(&out);
    return re;
}

bool has_peaks(const std::vector<double>& psd, uint32_t rows, uint32_t cols, const PeakRule& rule) {
    if (!rule.enabled || psd.empty()) return false;
    std::vector<double> resolved = smooth_spectrum(psd, rows, cols, rule.narrow_reach);
    double total = 0.0;
    double excess = 0.0;
    for (size_t p = 0; p < psd.size(); ++p) {
        if (p % rows == 0) swcancel::cancel_point();
        total += psd[p];
        excess += std::max(psd[p] - rule.narrow_ratio * resolved[p], 0.0);
    }
    swcancel::release(&resolved);
    return total > 0.0 && excess >= rule.narrow_share * total;
}

namespace {

// One round of the stage.
void peak_round(const std::vector<double>& image, uint32_t rows, uint32_t cols,
                const std::vector<double>& psd, const PeakRule& rule, std::vector<double>* out,
                std::vector<double>* residual_psd) {
    const size_t count = image.size();
    const double limit = rule.threshold * mean_of(psd);
    std::vector<std::complex<double>> y = fft2(image.data(), rows, cols);
    const size_t step = std::max<size_t>(rows, 1);

    // The signal spectrum: the periodogram less the noise, smoothed.
    std::vector<double> excess = swcancel::make_vector<double>(count, step, [&](size_t p) {
        return std::norm(y[p]) / static_cast<double>(count) - psd[p];
    });
    std::vector<double> smooth = smooth_spectrum(excess, rows, cols, rule.lag_std);
    swcancel::release(&excess);

    const auto gain = [&](size_t p) {
        if (!(psd[p] > limit)) return 1.0;
        const double s = std::max(smooth[p], 0.0);
        return s / (s + psd[p]);
    };
    std::vector<std::complex<double>> filtered = swcancel::make_vector<std::complex<double>>(
        count, step, [&](size_t p) { return y[p] * gain(p); });
    swcancel::release(&y);
    *residual_psd = swcancel::make_vector<double>(count, step, [&](size_t p) {
        const double g = gain(p);
        return g * g * psd[p];
    });
    swcancel::release(&smooth);
    *out = ifft2_real(filtered, rows, cols);
    swcancel::release(&filtered);
}

}  // namespace

bool remove_peaks(const std::vector<double>& image, uint32_t rows, uint32_t cols,
                  const std::vector<double>& psd, const PeakRule& rule,
                  std::vector<double>* out, std::vector<double>* residual_psd) {
    if (!has_peaks(psd, rows, cols, rule)) return false;
    peak_round(image, rows, cols, psd, rule, out, residual_psd);
    // Later rounds estimate the signal spectrum from a cleaner image.
    for (int round = 1; round < rule.rounds && has_peaks(*residual_psd, rows, cols, rule); ++round) {
        std::vector<double> image2, psd2;
        peak_round(*out, rows, cols, *residual_psd, rule, &image2, &psd2);
        *out = std::move(image2);
        *residual_psd = std::move(psd2);
    }
    return true;
}

}  // namespace swdenoise
