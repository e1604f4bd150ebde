#include "workload.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "caller/coloured_noise.h"
#include "io/image_io.h"

namespace swbench {

Workload make_workload(const std::string& image_path, uint32_t h) {
    Workload w;
    w.image_path = image_path;
    w.sigma = swcaller::kDefaultNoiseSigma;
    w.seed = swcaller::kDefaultNoiseSeed;
    swio::ImageFile file = swio::read_image(image_path);
    w.clean = swcaller::Image(file.image.rows, file.image.cols);
    w.clean.pixels = std::move(file.image.pixels);
    // The workload's noise is in [0, 1] units: integer images are scaled.
    if (sw::is_integer(file.type)) {
        for (double& v : w.clean.pixels) v /= sw::type_highest(file.type);
    }
    const swcaller::NoiseKernel kernel = swcaller::binomial_kernel();
    w.noisy = swcaller::add(
        w.clean, swcaller::coloured_noise(w.clean.rows, w.clean.cols, kernel, w.sigma, w.seed));
    w.psd = swcaller::noise_psd(kernel, w.sigma, swcaller::kSpectrumGrid);
    w.shapes = swcaller::fixed_square_shapes(w.clean.rows, w.clean.cols, h, h);
    return w;
}

Workload crop_workload(const Workload& full, uint32_t side, uint32_t h) {
    Workload w;
    w.image_path = full.image_path;
    w.sigma = full.sigma;
    w.seed = full.seed;
    w.clean = swcaller::centre_crop(full.clean, side, side);
    w.noisy = swcaller::centre_crop(full.noisy, side, side);
    w.psd = full.psd;
    w.shapes = swcaller::fixed_square_shapes(w.clean.rows, w.clean.cols, h, h);
    return w;
}

swtest::PassSettings first_pass_settings() {
    swtest::PassSettings s;
    s.wiener_variance_factor = kFirstPassFactor;
    return s;
}

swtest::PassSettings second_pass_settings() {
    swtest::PassSettings s;
    s.wiener_variance_factor = kSecondPassFactor;
    return s;
}

double psnr(const swcaller::Image& estimate, const swcaller::Image& reference) {
    double sum = 0.0;
    for (size_t i = 0; i < estimate.size(); ++i) {
        const double d = estimate.pixels[i] - reference.pixels[i];
        sum += d * d;
    }
    return 10.0 * std::log10(static_cast<double>(estimate.size()) / sum);
}

TimedCall time_call(swtest::ModuleCall& call, swtest::ModuleCall::Entry entry,
                    uint32_t general_h) {
    TimedCall t;
    t.output = entry != nullptr ? call.run_with(entry) : call.run_general(general_h);
    t.seconds = call.seconds();
    return t;
}

uint64_t checksum(const swcaller::Image& image) {
    uint64_t hash = 14695981039346656037ull;
    const auto* bytes = reinterpret_cast<const unsigned char*>(image.pixels.data());
    for (size_t i = 0; i < image.size() * sizeof(double); ++i) {
        hash ^= bytes[i];
        hash *= 1099511628211ull;
    }
    return hash;
}

bool bit_identical(const swcaller::Image& a, const swcaller::Image& b) {
    return a.rows == b.rows && a.cols == b.cols &&
           std::memcmp(a.pixels.data(), b.pixels.data(), sizeof(double) * a.size()) == 0;
}

double median(std::vector<double> values) {
    if (values.empty()) return 0.0;
    std::sort(values.begin(), values.end());
    const size_t mid = values.size() / 2;
    return values.size() % 2 ? values[mid] : 0.5 * (values[mid - 1] + values[mid]);
}

}  // namespace swbench
