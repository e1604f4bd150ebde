// Denoises a small image it makes (a bright square on a ramp, white noise
// from a fixed linear congruential generator) through the installed library;
// exits 0 when the error went down by at least 6 dB.
#include <cmath>
#include <cstdint>
#include <cstdio>

#include "shapewiener/denoise.h"
#include "shapewiener/version.h"

int main() {
    const uint32_t rows = 48, cols = 40;
    sw::Image clean{rows, cols, std::vector<double>(rows * cols)};
    for (uint32_t c = 0; c < cols; ++c) {
        for (uint32_t r = 0; r < rows; ++r) {
            const bool square = r >= 12 && r < 36 && c >= 10 && c < 30;
            clean.pixels[r + c * rows] = 0.2 + 0.004 * c + (square ? 0.5 : 0.0);
        }
    }
    sw::Image noisy = clean;
    uint64_t state = 12345;
    for (double& v : noisy.pixels) {
        double sum = 0.0;  // sum of 12 uniforms: nearly Gaussian, variance 1
        for (int i = 0; i < 12; ++i) {
            state = state * 6364136223846793005u + 1442695040888963407u;
            sum += static_cast<double>(state >> 11) / 9007199254740992.0;
        }
        v += 0.1 * (sum - 6.0);
    }
    const sw::Image out = sw::denoise(noisy, sw::NoiseModel::white(0.1));
    auto mse = [&](const sw::Image& x) {
        double s = 0.0;
        for (size_t p = 0; p < x.pixels.size(); ++p) s += std::pow(x.pixels[p] - clean.pixels[p], 2);
        return s / x.pixels.size();
    };
    const double gain = 10.0 * std::log10(mse(noisy) / mse(out));
    std::printf("shapewiener %s: %u x %u image, %.2f dB better\n", SHAPEWIENER_VERSION, rows, cols, gain);
    return gain >= 6.0 ? 0 : 1;
}
