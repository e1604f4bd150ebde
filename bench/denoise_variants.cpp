// PSNR of denoiser settings on the cases bench/denoise_cases.py writes.
// Usage: shapewiener_denoise_variants VARIANTS IMAGES KINDS DIR (comma-separated lists;
// variants: default, fast, best, weighted, nonorm, g1.0, g1.6, p3, p3f1, p4, p3f3, psN: a first
// pass on every N-th row and column, ps1 on every pixel).
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "io/array_io.h"
#include "denoise/pipeline.h"

namespace {

sw::Image load(const std::string& path) {
    swio::Array2 a = swio::read_npy(path);
    return sw::Image{a.rows, a.cols, std::move(a.values)};
}

double psnr(const sw::Image& a, const sw::Image& b) {
    double s = 0.0;
    for (size_t i = 0; i < a.pixels.size(); ++i) s += (a.pixels[i] - b.pixels[i]) * (a.pixels[i] - b.pixels[i]);
    return 10.0 * std::log10(a.pixels.size() / s);
}

swdenoise::Settings variant(const std::string& v) {
    if (v == "fast" || v == "best") return swdenoise::preset_settings(v);
    swdenoise::Settings s = swdenoise::preset_settings("default");
    if (v == "weighted") s.weighted_psd = true;
    if (v == "nonorm") s.normalise_range = false;
    if (v == "g1.0") s.rule.gamma = 1.0;
    if (v == "g1.6") s.rule.gamma = 1.6;
    if (v == "p3") s.passes = 3;
    if (v == "p3f1") { s.passes = 3; s.second_factor = 1.0; s.second_factor_white = 1.0; }
    if (v == "p4") s.passes = 4;
    if (v.rfind("ps", 0) == 0) s.pilot_step = static_cast<uint32_t>(std::stoul(v.substr(2)));
    if (v == "p3f3") { s.passes = 3; s.second_factor = 3.0; s.second_factor_white = 2.0; }
    return s;
}

std::vector<std::string> split(std::string s) {
    std::vector<std::string> out;
    for (size_t p; (p = s.find(',')) != std::string::npos; s = s.substr(p + 1)) out.push_back(s.substr(0, p));
    out.push_back(s);
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) {
        std::fprintf(stderr, "usage: %s VARIANTS IMAGES KINDS DIR\n", argv[0]);
        return 2;
    }
    const std::string dir = std::string(argv[4]) + "/";
    for (const std::string& kind : split(argv[3])) {
        const sw::Image psd = load(dir + kind + "_psd.npy");
        for (const std::string& image : split(argv[2])) {
            const sw::Image clean = load(dir + image + "_clean.npy");
            const sw::Image noisy = load(dir + image + "_" + kind + "_noisy.npy");
            std::printf("%-8s %-10s noisy %6.2f", kind.c_str(), image.c_str(), psnr(noisy, clean));
            for (const std::string& v : split(argv[1])) {
                const auto start = std::chrono::steady_clock::now();
                sw::DenoiseReport report;
                const sw::Image out = swdenoise::run_pipeline(noisy, sw::NoiseModel::from_psd(psd.pixels),
                                                              variant(v), 0, {}, &report);
                const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
                std::printf("  %s %6.2f (%.1f s, %llu keys)", v.c_str(), psnr(out, clean), seconds,
                            static_cast<unsigned long long>(report.key_changes));
                std::fflush(stdout);
            }
            std::printf("\n");
        }
    }
    return 0;
}
