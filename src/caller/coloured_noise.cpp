#include "caller/coloured_noise.h"

#include <cmath>
#include <random>
#include <stdexcept>

namespace swcaller {
namespace {

const double kPi = 3.14159265358979323846;

// Standard normal values from a Mersenne Twister: Box-Muller on uniforms
// (x + 0.5) / 2^32, which lie strictly inside (0, 1).
class GaussianSource {
public:
    explicit GaussianSource(uint32_t seed) : engine_(seed) {}

    double next() {
        if (have_spare_) {
            have_spare_ = false;
            return spare_;
        }
        const double u1 = (static_cast<double>(engine_()) + 0.5) / 4294967296.0;
        const double u2 = (static_cast<double>(engine_()) + 0.5) / 4294967296.0;
        const double radius = std::sqrt(-2.0 * std::log(u1));
        spare_ = radius * std::sin(2.0 * kPi * u2);
        have_spare_ = true;
        return radius * std::cos(2.0 * kPi * u2);
    }

private:
    std::mt19937 engine_;
    bool have_spare_ = false;
    double spare_ = 0.0;
};

void check_kernel(const NoiseKernel& k) {
    if (k.rows % 2 == 0 || k.cols % 2 == 0 ||
        k.taps.size() != static_cast<size_t>(k.rows) * k.cols) {
        throw std::invalid_argument("noise kernel: sizes must be odd and match the taps");
    }
}

}  // namespace

double NoiseKernel::energy() const {
    double sum = 0.0;
    for (double t : taps) sum += t * t;
    return sum;
}

NoiseKernel white_kernel() { return NoiseKernel{}; }

NoiseKernel binomial_kernel() {
    const double line[3] = {1.0, 2.0, 1.0};
    NoiseKernel k;
    k.rows = 3;
    k.cols = 3;
    k.taps.resize(9);
    for (uint32_t c = 0; c < 3; ++c) {
        for (uint32_t r = 0; r < 3; ++r) k.taps[r + 3 * c] = line[r] * line[c] / 6.0;
    }
    return k;
}

Image coloured_noise(uint32_t rows, uint32_t cols, const NoiseKernel& kernel, double sigma,
                     uint32_t seed) {
    check_kernel(kernel);
    const uint32_t field_rows = rows + kernel.rows - 1;
    const uint32_t field_cols = cols + kernel.cols - 1;
    GaussianSource source(seed);
    Image white(field_rows, field_cols);
    for (double& v : white.pixels) v = sigma * source.next();

    // out(y, x) = sum_{a,b} k(a, b) * white(y - a, x - b), with (a, b) the
    // tap offsets and the field shifted so that every index is inside it.
    const int32_t half_r = static_cast<int32_t>(kernel.rows / 2);
    const int32_t half_c = static_cast<int32_t>(kernel.cols / 2);
    Image out(rows, cols);
    for (uint32_t x = 0; x < cols; ++x) {
        for (uint32_t y = 0; y < rows; ++y) {
            double sum = 0.0;
            for (uint32_t tc = 0; tc < kernel.cols; ++tc) {
                for (uint32_t tr = 0; tr < kernel.rows; ++tr) {
                    const int32_t a = static_cast<int32_t>(tr) - half_r;
                    const int32_t b = static_cast<int32_t>(tc) - half_c;
                    const uint32_t fy = static_cast<uint32_t>(static_cast<int32_t>(y) + half_r - a);
                    const uint32_t fx = static_cast<uint32_t>(static_cast<int32_t>(x) + half_c - b);
                    sum += kernel.taps[tr + static_cast<size_t>(tc) * kernel.rows] * white.at(fy, fx);
                }
            }
            out.at(y, x) = sum;
        }
    }
    return out;
}

std::vector<double> noise_psd(const NoiseKernel& kernel, double sigma, uint32_t n) {
    check_kernel(kernel);
    if (n == 0) throw std::invalid_argument("noise_psd: empty grid");
    const int32_t half_r = static_cast<int32_t>(kernel.rows / 2);
    const int32_t half_c = static_cast<int32_t>(kernel.cols / 2);
    std::vector<double> psd(static_cast<size_t>(n) * n);
    for (uint32_t v = 0; v < n; ++v) {
        for (uint32_t u = 0; u < n; ++u) {
            double re = 0.0;
            double im = 0.0;
            for (uint32_t tc = 0; tc < kernel.cols; ++tc) {
                for (uint32_t tr = 0; tr < kernel.rows; ++tr) {
                    const double a = static_cast<double>(static_cast<int32_t>(tr) - half_r);
                    const double b = static_cast<double>(static_cast<int32_t>(tc) - half_c);
                    const double phase = -2.0 * kPi * (u * a + v * b) / n;
                    const double tap = kernel.taps[tr + static_cast<size_t>(tc) * kernel.rows];
                    re += tap * std::cos(phase);
                    im += tap * std::sin(phase);
                }
            }
            psd[u + static_cast<size_t>(n) * v] = sigma * sigma * (re * re + im * im);
        }
    }
    return psd;
}

}  // namespace swcaller
