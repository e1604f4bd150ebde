// Time of one forward and one inverse image transform (denoise/fft.h) per
// size, with the round trip's largest error relative to the image.
//     shapewiener_bench_fft [ROWSxCOLS ...]   (default 512x512 511x511 4096x4096 4095x4095)
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <random>
#include <vector>

#include "denoise/fft.h"

int main(int argc, char** argv) {
    std::vector<const char*> sizes(argv + 1, argv + argc);
    if (sizes.empty()) sizes = {"512x512", "511x511", "4096x4096", "4095x4095"};
    std::printf("%-11s %10s %10s %10s %10s\n", "size", "forward s", "inverse s", "total s",
                "error");
    for (const char* size : sizes) {
        unsigned rows = 0, cols = 0;
        if (std::sscanf(size, "%ux%u", &rows, &cols) != 2 || rows == 0 || cols == 0) {
            std::fprintf(stderr, "%s: expected ROWSxCOLS, got '%s'\n", argv[0], size);
            return 2;
        }
        std::mt19937 generator(1);
        std::uniform_real_distribution<double> value(0.0, 1.0);
        std::vector<double> image(static_cast<size_t>(rows) * cols);
        for (double& v : image) v = value(generator);
        using Clock = std::chrono::steady_clock;
        const auto t0 = Clock::now();
        const auto spectrum = swdenoise::fft2(image.data(), rows, cols);
        const auto t1 = Clock::now();
        const auto back = swdenoise::ifft2_real(spectrum, rows, cols);
        const auto t2 = Clock::now();
        double error = 0.0;
        for (size_t i = 0; i < image.size(); ++i) error = std::max(error, std::abs(back[i] - image[i]));
        const double forward = std::chrono::duration<double>(t1 - t0).count();
        const double inverse = std::chrono::duration<double>(t2 - t1).count();
        std::printf("%-11s %10.3f %10.3f %10.3f %10.1e\n", size, forward, inverse, forward + inverse,
                    error);
    }
    return 0;
}
