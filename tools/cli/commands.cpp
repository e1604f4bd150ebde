#include "commands.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "io/array_io.h"
#include "caller/coloured_noise.h"
#include "io/image_io.h"
#include "progress_bar.h"
#include "shapewiener/denoise.h"
#include "shapewiener/units.h"

namespace swcli {
namespace {

double psnr(const sw::Image& a, const sw::Image& b, double peak) {
    if (a.rows != b.rows || a.cols != b.cols) {
        throw std::runtime_error("the images differ in size: " + std::to_string(a.rows) + " x " +
                                 std::to_string(a.cols) + " and " + std::to_string(b.rows) +
                                 " x " + std::to_string(b.cols));
    }
    double sum = 0.0;
    for (size_t p = 0; p < a.pixels.size(); ++p) {
        const double d = a.pixels[p] - b.pixels[p];
        sum += d * d;
    }
    const double mse = sum / static_cast<double>(a.pixels.size());
    return 10.0 * std::log10(peak * peak / mse);
}

// The PSNR's peak for a reference stored as `type`: an integer type's
// range (255 for uint8), 1 for float.
double default_peak(sw::SampleType type) {
    return sw::is_integer(type) ? sw::type_highest(type) - sw::type_lowest(type) : 1.0;
}

// The output's sample type: `name`, or the input's when empty; checked
// against the output's format before any work.
sw::SampleType output_type(const std::string& name, sw::SampleType input, const std::string& output) {
    sw::SampleType type = input;
    if (!name.empty() && !sw::type_from_name(name, &type)) {
        throw std::runtime_error("--type " + name +
                                 ": not a sample type (uint8, uint16, int16, float32, float64, ...)");
    }
    if (!swio::format_holds(output, type)) {
        throw std::runtime_error(output + ": PNG holds uint8 or uint16 samples, not " +
                                 std::string(sw::type_name(type)) +
                                 "; write .tif or .npy, or give --type uint8 or --type uint16");
    }
    return type;
}

// Prints the plausibility guard's warning, if any.
void warn_implausible(const sw::Image& image, sw::SampleType type, const sw::NoiseModel& noise) {
    if (image.pixels.empty()) return;
    const auto [lo, hi] = std::minmax_element(image.pixels.begin(), image.pixels.end());
    const std::string warning = sw::noise_warning(*lo, *hi, type, noise);
    if (!warning.empty()) std::fprintf(stderr, "shapewiener: warning: %s\n", warning.c_str());
}

}  // namespace

int run_denoise(const DenoiseArgs& a) {
    swio::check_output_path(a.output);
    check_spectrum_path(a.noise_out, "--noise-out");
    const auto start = std::chrono::steady_clock::now();
    const swio::ImageFile input = swio::read_image(a.input, sw::denoise_bytes_per_pixel(a.preset));
    const sw::SampleType out_type = output_type(a.type, input.type, a.output);
    // No noise given: it is estimated from the image.
    const bool blind = a.psd.empty() && !a.has_sigma;
    sw::NoiseModel noise;
    if (!a.psd.empty()) {
        swio::Array2 p = swio::read_array(a.psd);
        if (p.rows != input.image.rows || p.cols != input.image.cols) {
            throw std::runtime_error(a.psd + ": the power spectrum is " + std::to_string(p.rows) +
                                     " x " + std::to_string(p.cols) + ", the image " +
                                     std::to_string(input.image.rows) + " x " +
                                     std::to_string(input.image.cols));
        }
        noise = sw::NoiseModel::from_psd(std::move(p.values));
    } else if (!a.kernel.empty()) {
        swio::Array2 k = swio::read_array(a.kernel);
        noise = sw::NoiseModel::from_kernel(std::move(k.values), k.rows, k.cols, a.sigma);
    } else if (!blind) {
        noise = sw::NoiseModel::white(a.sigma);
    }
    if (!blind) warn_implausible(input.image, input.type, noise);
    swio::ImageFile reference;
    if (!a.reference.empty()) reference = swio::read_image(a.reference);

    sw::DenoiseOptions options;
    options.preset = a.preset;
    options.threads = a.threads;
    sw::DenoiseReport report;
    ProgressBar bar(!a.quiet);
    const sw::Progress progress = [&bar](double fraction, const char* phase) {
        return bar(fraction, phase);
    };
    sw::NoiseEstimate estimate;
    const sw::Image output =
        blind ? sw::denoise_blind(input.image, options, progress, &report, &estimate)
              : sw::denoise(input.image, noise, options, progress, &report);
    bar.finish();
    if (blind) {
        write_spectrum(a.noise_out, estimate);
        if (!a.quiet) print_estimate_line(estimate);
    }
    swio::write_atomically(a.output, [&](const std::string& temp) {
        swio::write_image(temp, a.output, output, out_type);
    });
    if (!a.quiet) {
        const double total =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        std::fprintf(stderr,
                     "%s: %u x %u, preset %s, %d passes, %llu key changes; denoising %.2f s, "
                     "total %.2f s\n",
                     a.output.c_str(), input.image.rows, input.image.cols, a.preset.c_str(),
                     report.passes, static_cast<unsigned long long>(report.key_changes),
                     report.seconds, total);
        if (!a.reference.empty()) {
            const double peak = default_peak(reference.type);
            std::fprintf(stderr, "PSNR (peak %g) noisy %.2f dB, denoised %.2f dB\n", peak,
                         psnr(input.image, reference.image, peak),
                         psnr(output, reference.image, peak));
        }
    }
    return 0;
}

int run_simulate(const SimulateArgs& a) {
    swio::check_output_path(a.output);
    const sw::SampleType out_type = output_type(a.type, sw::SampleType::kFloat64, a.output);
    if (!std::isfinite(a.sigma) || a.sigma < 0.0) {
        throw std::runtime_error("--sigma must be a finite number of at least 0");
    }
    const swio::ImageFile input = swio::read_image(a.input, 24);
    warn_implausible(input.image, input.type, sw::NoiseModel::white(a.sigma));
    swcaller::NoiseKernel kernel = swcaller::white_kernel();
    if (!a.kernel.empty()) {
        const swio::Array2 k = swio::read_array(a.kernel);
        // Odd sizes, the extra row or column zero, and unit energy.
        kernel.rows = k.rows | 1u;
        kernel.cols = k.cols | 1u;
        kernel.taps.assign(static_cast<size_t>(kernel.rows) * kernel.cols, 0.0);
        double energy = 0.0;
        for (double t : k.values) energy += t * t;
        if (!(energy > 0.0) || !std::isfinite(energy)) {
            throw std::runtime_error(a.kernel + ": the kernel is all zero or not finite");
        }
        const double norm = std::sqrt(energy);
        for (uint32_t c = 0; c < k.cols; ++c) {
            for (uint32_t r = 0; r < k.rows; ++r) {
                kernel.taps[r + static_cast<size_t>(c) * kernel.rows] = k.values[r + static_cast<size_t>(c) * k.rows] / norm;
            }
        }
    }
    const swcaller::Image noise =
        swcaller::coloured_noise(input.image.rows, input.image.cols, kernel, a.sigma, a.seed);
    sw::Image noisy = input.image;
    for (size_t p = 0; p < noisy.pixels.size(); ++p) noisy.pixels[p] += noise.pixels[p];
    swio::write_atomically(a.output, [&](const std::string& temp) {
        swio::write_image(temp, a.output, noisy, out_type);
    });
    return 0;
}

int run_compare(const CompareArgs& a) {
    const sw::Image x = swio::read_image(a.a).image;
    const swio::ImageFile y = swio::read_image(a.b);
    std::printf("PSNR %.4f dB\n", psnr(x, y.image, a.peak > 0.0 ? a.peak : default_peak(y.type)));
    return 0;
}

int run_convert(const ConvertArgs& a) {
    swio::check_output_path(a.output);
    const swio::ImageFile input = swio::read_image(a.input);
    const sw::SampleType type = output_type(a.type, input.type, a.output);
    swio::write_atomically(a.output, [&](const std::string& temp) {
        swio::write_image(temp, a.output, input.image, type);
    });
    return 0;
}

}  // namespace swcli
