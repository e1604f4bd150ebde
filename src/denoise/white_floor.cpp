#include "denoise/white_floor.h"

#include <algorithm>

namespace swdenoise {
namespace {

// Frequencies at least this far from DC (cycles per pixel) judge flatness.
const double kUpper = 0.14;
// The 95th over the 5th percentile of those values below which the
// spectrum counts as flat.
const double kFlatSpread = 1.6;

double order_statistic(std::vector<double>& values, size_t k) {
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(k), values.end());
    return values[k];
}

// |frequency| of index i of an n-point transform, in cycles per sample.
double frequency(uint32_t i, uint32_t n) {
    return static_cast<double>(std::min(i, n - i)) / n;
}

}  // namespace

bool settle_white(std::vector<double>* psd, uint32_t rows, uint32_t cols) {
    std::vector<double> upper;
    upper.reserve(psd->size());
    for (uint32_t x = 0; x < cols; ++x) {
        const double fx = frequency(x, cols);
        for (uint32_t u = 0; u < rows; ++u) {
            const double fu = frequency(u, rows);
            if (fu * fu + fx * fx >= kUpper * kUpper) upper.push_back((*psd)[u + static_cast<size_t>(rows) * x]);
        }
    }
    if (upper.size() < 20) return false;
    const size_t last = upper.size() - 1;
    const double low = order_statistic(upper, last / 20);
    const double high = order_statistic(upper, last - last / 20);
    if (!(low > 0.0) || high > kFlatSpread * low) return false;
    std::fill(psd->begin(), psd->end(), order_statistic(upper, last / 2));
    return true;
}

}  // namespace swdenoise
