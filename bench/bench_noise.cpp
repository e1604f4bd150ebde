// The noise estimate on one image, for the quality benchmark's blind runs:
//     shapewiener_bench_noise in.npy psd.npy [--threads N] [--repeat R]
// writes the estimated full-size spectrum (rows x cols, DC at (0, 0)) and
// prints one line: sigma, white, usable fraction, block, and the fastest of
// R runs' wall time in seconds.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "io/array_io.h"
#include "shapewiener/noise.h"

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s in.npy psd.npy [--threads N] [--repeat R]\n", argv[0]);
        return 2;
    }
    sw::NoiseEstimateOptions options;
    int repeat = 1;
    for (int i = 3; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--threads") == 0) options.threads = static_cast<unsigned>(std::atoi(argv[i + 1]));
        if (std::strcmp(argv[i], "--repeat") == 0) repeat = std::atoi(argv[i + 1]);
    }
    try {
        const swio::Array2 in = swio::read_npy(argv[1]);
        sw::Image image{in.rows, in.cols, in.values};
        sw::NoiseEstimate est;
        double best = 1e300;
        for (int r = 0; r < repeat; ++r) {
            const auto t0 = std::chrono::steady_clock::now();
            est = sw::estimate_noise(image, options);
            const double dt = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
            if (dt < best) best = dt;
        }
        swio::write_npy(argv[2], est.rows, est.cols, est.psd);
        std::printf("sigma %.9g white %d usable %.4f block %u seconds %.4f\n", est.sigma, est.white ? 1 : 0,
                    est.usable_fraction, est.block, best);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return 0;
}
