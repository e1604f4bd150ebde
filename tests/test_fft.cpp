// The image Fourier transform against the direct sum, at lengths that take
// either algorithm per axis (powers of two, primes, composites, 1), and the
// round trip through the inverse.
#include <gtest/gtest.h>

#include <algorithm>
#include <complex>
#include <cstdint>
#include <random>
#include <vector>

#include "denoise/fft.h"
#include "shapewiener/denoise.h"

namespace {

using Complex = std::complex<double>;
const double kPi = 3.14159265358979323846;

std::vector<double> random_image(uint32_t rows, uint32_t cols) {
    std::mt19937 generator(rows * 1000 + cols);
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    std::vector<double> image(static_cast<size_t>(rows) * cols);
    for (double& v : image) v = value(generator);
    return image;
}

// The direct sum along one axis of a column-major array: `n` values apart
// by `stride`, `lines` of them `pitch` apart.
void direct_axis(std::vector<Complex>& a, uint32_t n, size_t stride, uint32_t lines, size_t pitch) {
    std::vector<Complex> out(n);
    for (uint32_t l = 0; l < lines; ++l) {
        for (uint32_t k = 0; k < n; ++k) {
            out[k] = 0.0;
            for (uint32_t t = 0; t < n; ++t) {
                const double angle = -2.0 * kPi * static_cast<double>(uint64_t{k} * t % n) / n;
                out[k] += a[l * pitch + t * stride] * std::polar(1.0, angle);
            }
        }
        for (uint32_t k = 0; k < n; ++k) a[l * pitch + k * stride] = out[k];
    }
}

template <typename A, typename B>
double relative_error(const A& got, const B& want) {
    double error = 0.0, scale = 0.0;
    for (size_t i = 0; i < want.size(); ++i) {
        error = std::max(error, std::abs(got[i] - want[i]));
        scale = std::max(scale, std::abs(want[i]));
    }
    return error / scale;
}

TEST(Fft, MatchesTheDirectSumAtEveryPairOfLengths) {
    const uint32_t lengths[] = {1, 2, 3, 5, 8, 12, 17, 64, 97};
    for (uint32_t rows : lengths) {
        for (uint32_t cols : lengths) {
            const std::vector<double> image = random_image(rows, cols);
            std::vector<Complex> want(image.begin(), image.end());
            direct_axis(want, rows, 1, cols, rows);
            direct_axis(want, cols, rows, rows, 1);
            const std::vector<Complex> got = swdenoise::fft2(image.data(), rows, cols);
            ASSERT_EQ(got.size(), want.size());
            EXPECT_LE(relative_error(got, want), 1e-10) << rows << " x " << cols;
            EXPECT_LE(relative_error(swdenoise::ifft2_real(got, rows, cols), image), 1e-10)
                << rows << " x " << cols;
        }
    }
}

TEST(Fft, RefusesWrongSizes) {
    EXPECT_THROW(swdenoise::ifft2_real(std::vector<Complex>(5), 2, 3), sw::DenoiseError);
    EXPECT_THROW(swdenoise::fft2(nullptr, 65536, 32768), sw::DenoiseError);
}

}  // namespace
