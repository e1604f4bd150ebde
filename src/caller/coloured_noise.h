// Correlated Gaussian noise and its power spectrum.
//
// The noise is white Gaussian noise of standard deviation sigma convolved
// with a small kernel k. Its power spectrum on an n x n grid is
//
//     Psd(u, v) = sigma^2 * | sum_{a,b} k(a, b) exp(-2 pi i (u a + v b) / n) |^2,
//
// with a the kernel's row offset and b its column offset, so u is the
// frequency along image rows (vertical) and v along columns; element (u, v)
// is stored at u + n * v. In these units white noise of variance sigma^2 has
// Psd = sigma^2 everywhere, and the mean of Psd over the grid is the
// variance of the coloured noise, sigma^2 * sum k^2.
#ifndef SHAPEWIENER_CALLER_COLOURED_NOISE_H
#define SHAPEWIENER_CALLER_COLOURED_NOISE_H

#include <cstdint>
#include <vector>

#include "caller/image.h"

namespace swcaller {

// A convolution kernel of odd size, column-major; tap (r, c) stands for row
// offset r - (rows - 1) / 2 and column offset c - (cols - 1) / 2.
struct NoiseKernel {
    uint32_t rows = 1;
    uint32_t cols = 1;
    std::vector<double> taps{1.0};

    double energy() const;  // sum of squared taps
};

// The identity kernel: white noise.
NoiseKernel white_kernel();

// The default colouring: the 3 x 3 binomial kernel [1 2 1]^T [1 2 1] scaled
// to unit energy (divided by 6), so that the coloured noise keeps the
// variance sigma^2 of the white noise it is made from. A mild low-pass:
// neighbouring noise values are correlated with coefficient 2/3.
NoiseKernel binomial_kernel();

// Default noise of the demo and the benchmark.
constexpr double kDefaultNoiseSigma = 0.1;
constexpr uint32_t kDefaultNoiseSeed = 20240607;

// A rows x cols field of coloured noise. The white noise comes from
// std::mt19937 seeded with `seed`, turned into Gaussians by the Box-Muller
// method (two values per pair of 32-bit draws), drawn in column-major order
// over a field that is larger than the image by the kernel's size minus one,
// so that every output value is a full convolution (the field is stationary
// up to the border).
Image coloured_noise(uint32_t rows, uint32_t cols, const NoiseKernel& kernel, double sigma,
                     uint32_t seed);

// The noise power spectrum on the n x n grid, as described above.
std::vector<double> noise_psd(const NoiseKernel& kernel, double sigma, uint32_t n);

}  // namespace swcaller

#endif  // SHAPEWIENER_CALLER_COLOURED_NOISE_H
