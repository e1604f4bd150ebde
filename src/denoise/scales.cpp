#include "denoise/scales.h"

#include "cancel/cancel.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <vector>

#include "caller/sector_masks.h"
#include "denoise/lanes.h"

namespace swdenoise {
namespace {

// Index t of a line of n pixels extended by mirroring about its ends, the end
// pixels repeated (..., 1, 0 | 0, 1, ..., n-1 | n-1, n-2, ...).
int64_t mirror(int64_t t, int64_t n) {
    t %= 2 * n;
    if (t < 0) t += 2 * n;
    return t < n ? t : 2 * n - 1 - t;
}

}  // namespace

double ray_average_variance(const Autocovariance& r, uint32_t plane, uint32_t length) {
    const swcaller::Step step = swcaller::plane_step(plane);
    const int h = static_cast<int>(length);
    // h r(0) + 2 sum_{tau=1}^{h-1} (h - tau) r(tau step), over h^2.
    double sum = static_cast<double>(h) * r.at(0, 0);
    for (int tau = 1; tau < h && tau <= kLagReach; ++tau) {
        sum += 2.0 * static_cast<double>(h - tau) * r.at(tau * step.row, tau * step.col);
    }
    return sum / (static_cast<double>(h) * static_cast<double>(h));
}

std::vector<uint8_t> choose_scales(const double* image, uint32_t rows, uint32_t cols,
                                   const Autocovariance& r, const ScaleRule& rule, unsigned threads) {
    const size_t plane_size = static_cast<size_t>(rows) * cols;
    const size_t count = rule.lengths.size();
    std::vector<uint8_t> chosen(plane_size * 8, 0);
    std::vector<double> half_width(8 * count);
    for (uint32_t d = 0; d < 8; ++d) {
        for (size_t k = 0; k < count; ++k) {
            const double v = ray_average_variance(r, d, rule.lengths[k]);
            half_width[d * count + k] = rule.gamma * std::sqrt(v > 0.0 ? v : 0.0);
        }
    }
    // Every pixel of every plane on its own: the planes are shared out
    // between the threads, the calling thread taking plane 0 onwards.
    std::atomic<bool> stop{false};
    const auto planes = [&](uint32_t first, uint32_t step) {
        for (uint32_t d = first; d < 8; d += step) {
            const double* widths = half_width.data() + d * count;
            const swcaller::Step dir = swcaller::plane_step(d);
            for (uint32_t col = 0; col < cols; ++col) {
                swcancel::cancel_point();
                if (stop.load(std::memory_order_relaxed)) return;
                for (uint32_t row = 0; row < rows; ++row) {
                    double lower = -std::numeric_limits<double>::infinity();
                    double upper = std::numeric_limits<double>::infinity();
                    double sum = 0.0;
                    int64_t summed = 0;
                    uint8_t best = 0;
                    for (size_t k = 0; k < count; ++k) {
                        const int64_t h = rule.lengths[k];
                        for (; summed < h; ++summed) {
                            const int64_t y = mirror(row + summed * dir.row, rows);
                            const int64_t x = mirror(col + summed * dir.col, cols);
                            sum += image[static_cast<size_t>(y) + static_cast<size_t>(x) * rows];
                        }
                        const double mean = sum / static_cast<double>(h);
                        lower = std::max(lower, mean - widths[k]);
                        upper = std::min(upper, mean + widths[k]);
                        if (lower > upper) break;
                        best = static_cast<uint8_t>(k);
                    }
                    chosen[row + static_cast<size_t>(col) * rows + d * plane_size] = best;
                }
            }
        }
    };
    const uint32_t step = std::max(1u, std::min(threads, 8u));
    run_lanes(step, [&](unsigned lane) { planes(lane, step); }, &stop);
    return chosen;
}

}  // namespace swdenoise
