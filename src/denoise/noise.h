// The noise as the filter needs it: checked, turned into its autocovariance
// at short lags, and from that into the 32 x 32 block spectrum the module
// takes as NoisePsd.
#ifndef SHAPEWIENER_DENOISE_NOISE_H
#define SHAPEWIENER_DENOISE_NOISE_H

#include <cstdint>
#include <vector>

#include "shapewiener/denoise.h"

namespace swdenoise {

// Lags |i|, |j| < kLagReach + 1 are kept: those a 32 x 32 window sees.
constexpr int kLagReach = 31;
constexpr uint32_t kBlockSide = 32;

// The noise autocovariance r(i, j) = E[n(y, x) n(y + i, x + j)] at lags
// -kLagReach..kLagReach (i vertical, j horizontal); lags the image cannot
// hold (|i| >= rows or |j| >= cols) are 0.
class Autocovariance {
public:
    static constexpr int kSide = 2 * kLagReach + 1;
    Autocovariance() : values_(kSide * kSide, 0.0) {}
    double at(int i, int j) const { return values_[(i + kLagReach) + (j + kLagReach) * kSide]; }
    double& at(int i, int j) { return values_[(i + kLagReach) + (j + kLagReach) * kSide]; }
    double variance() const { return at(0, 0); }
    // Every lag times `factor` (a change of the image's units squared).
    Autocovariance scaled(double factor) const;

private:
    std::vector<double> values_;
};

// Checks `noise` for a rows x cols image and returns its autocovariance.
// Throws sw::DenoiseError ("shapewiener:noise:<reason>").
//   white:  r(0, 0) = sigma^2;
//   kernel: r(i, j) = sigma^2 / ||k||^2 sum_{a,b} k(a, b) k(a + i, b + j);
//   psd:    r(i, j) = 1/(M K) sum_{u,v} P(u, v) cos(2 pi (u i / M + v j / K)),
//           computed separably (first along u for 32 lags, then along v), so
//           the cost is about 64 M K multiply-adds.
Autocovariance noise_autocovariance(const sw::NoiseModel& noise, uint32_t rows, uint32_t cols);

// The expected periodogram of a 32 x 32 window of the noise: the lags
// weighted by (1 - |i|/32)(1 - |j|/32), folded onto the 32 x 32 grid and
// transformed, B(u, v) = sum_{i,j} r(i, j) w(i) w(j) cos(2 pi (u i + v j) / 32),
// element (u, v) at u + 32 v, u the vertical frequency; values that come
// out below 0 by rounding are set to 0. Its mean is r(0, 0). Without
// `weighted`, w = 1: for a kernel shorter than 32 that is the kernel's
// spectrum sampled on the grid.
std::vector<double> block_psd(const Autocovariance& r, bool weighted = true);

// The spectrum with every value raised to at least `fraction` times its
// mean. The filter gives a shape the weight 1 / (the variance of its
// estimate); a spectrum that is (nearly) zero over a whole band, as a
// residual of narrow peaks or a user's spectrum can be, lets that variance
// underflow for some shapes and their weight overflow (NaN pixels). The
// floor kPsdFloor is far below any noise that matters.
constexpr double kPsdFloor = 1e-5;
std::vector<double> with_floor(std::vector<double> psd, double fraction);

// Whether a 32 x 32 spectrum is unchanged by transposition (to 1e-12 of its
// largest value): then the module's packing orientation does not matter.
bool transpose_symmetric(const std::vector<double>& psd);

// Whether the noise is white: every lag but (0, 0) is 0 to 1e-12 of r(0, 0).
bool is_white(const Autocovariance& r);

}  // namespace swdenoise

#endif  // SHAPEWIENER_DENOISE_NOISE_H
