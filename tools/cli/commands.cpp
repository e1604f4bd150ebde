#include "commands.h"

#include <unistd.h>

#include <algorithm>
#include <array>
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
#include "shapewiener/colour.h"
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
    const std::string ext = swio::extension_of(output);
    if ((ext == ".jpg" || ext == ".jpeg") && type != sw::SampleType::kUint8) {
        throw std::runtime_error(output + ": JPEG holds uint8 samples, not " +
                                 std::string(sw::type_name(type)) +
                                 "; write .png, .tif or .npy, or give --type uint8");
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
    swio::ChannelFile file = swio::read_channels(a.input, sw::denoise_bytes_per_pixel(a.preset));
    if (file.image.channels > 1) return run_denoise_colour(a, std::move(file));
    if (!a.channel_covariance.empty()) {
        throw std::runtime_error(a.input + ": --channel-covariance is for colour images; this one is grey");
    }
    swio::ImageFile input;
    input.type = file.type;
    input.image = {file.image.rows, file.image.cols, std::move(file.image.pixels)};
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
        swio::write_channels(temp, a.output, {output.rows, output.cols, 1, output.pixels}, out_type,
                             a.quality);
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
    const swio::ChannelFile input = swio::read_channels(a.input, 24);
    const sw::Image first{input.image.rows, input.image.cols,
                          std::vector<double>(input.image.pixels.begin(),
                                              input.image.pixels.begin() + size_t{input.image.rows} * input.image.cols)};
    warn_implausible(first, input.type, sw::NoiseModel::white(a.sigma));
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
    // Colour: independent noise in R, G and B (seeds seed, seed + 1, seed + 2), none in alpha.
    sw::ColourImage noisy = input.image;
    const size_t plane = static_cast<size_t>(noisy.rows) * noisy.cols;
    for (uint32_t k = 0; k < std::min(noisy.channels, 3u); ++k) {
        const swcaller::Image noise =
            swcaller::coloured_noise(noisy.rows, noisy.cols, kernel, a.sigma, a.seed + k);
        for (size_t p = 0; p < plane; ++p) noisy.pixels[p + k * plane] += noise.pixels[p];
    }
    swio::write_atomically(a.output, [&](const std::string& temp) {
        swio::write_channels(temp, a.output, noisy, out_type, a.quality);
    });
    return 0;
}

int run_compare(const CompareArgs& a) {
    // Colour images compare over all their channels.
    const auto flat = [](swio::ChannelFile f) {
        return swio::ImageFile{{f.image.rows, f.image.cols * f.image.channels, std::move(f.image.pixels)}, f.type};
    };
    const sw::Image x = flat(swio::read_channels(a.a)).image;
    const swio::ImageFile y = flat(swio::read_channels(a.b));
    std::printf("PSNR %.4f dB\n", psnr(x, y.image, a.peak > 0.0 ? a.peak : default_peak(y.type)));
    return 0;
}

int run_convert(const ConvertArgs& a) {
    swio::check_output_path(a.output);
    const swio::ChannelFile input = swio::read_channels(a.input);
    const sw::SampleType type = output_type(a.type, input.type, a.output);
    swio::write_atomically(a.output, [&](const std::string& temp) {
        swio::write_channels(temp, a.output, input.image, type, a.quality);
    });
    return 0;
}

// ---- colour images ----------------------------------------------------

namespace {

// The noise of a colour image from the command line's options: the same
// noise in every channel (--sigma, --kernel, a (rows, cols) --psd), a
// spectrum per channel (a (rows, cols, 3) --psd), or --channel-covariance
// with the spatial shape of --kernel or --psd (white without).
sw::ColourNoise colour_noise(const DenoiseArgs& a, uint32_t rows, uint32_t cols) {
    if (a.psd.empty() && !a.has_sigma && a.channel_covariance.empty()) {
        return sw::ColourNoise::estimated();
    }
    sw::NoiseModel spatial = sw::NoiseModel::white(a.has_sigma ? a.sigma : 1.0);
    if (!a.psd.empty()) {
        swio::Array2 p = swio::extension_of(a.psd) == ".npy" ? swio::read_npy(a.psd, 0, true)
                                                            : swio::read_array(a.psd);
        if (p.rows != rows || p.cols != cols || (p.channels != 1 && p.channels != 3) ||
            (p.channels == 3 && !a.channel_covariance.empty())) {
            throw std::runtime_error(a.psd + ": the power spectrum is " + std::to_string(p.rows) + " x " +
                                     std::to_string(p.cols) + " x " + std::to_string(p.channels) +
                                     "; the image needs " + std::to_string(rows) + " x " +
                                     std::to_string(cols) + " (every channel) or " +
                                     std::to_string(rows) + " x " + std::to_string(cols) +
                                     " x 3 (one per channel)");
        }
        if (p.channels == 3) {
            const size_t plane = static_cast<size_t>(rows) * cols;
            std::vector<sw::NoiseModel> models;
            for (size_t k = 0; k < 3; ++k) {
                models.push_back(sw::NoiseModel::from_psd(
                    std::vector<double>(p.values.begin() + k * plane, p.values.begin() + (k + 1) * plane)));
            }
            return sw::ColourNoise::per_channel(std::move(models));
        }
        spatial = sw::NoiseModel::from_psd(std::move(p.values));
    } else if (!a.kernel.empty()) {
        swio::Array2 k = swio::read_array(a.kernel);
        spatial = sw::NoiseModel::from_kernel(std::move(k.values), k.rows, k.cols,
                                              a.has_sigma ? a.sigma : 1.0);
    }
    if (a.channel_covariance.empty()) return sw::ColourNoise::same(std::move(spatial));
    const swio::Array2 c = swio::read_array(a.channel_covariance);
    if (c.rows != 3 || c.cols != 3) {
        throw std::runtime_error(a.channel_covariance + ": the channel covariance is " +
                                 std::to_string(c.rows) + " x " + std::to_string(c.cols) +
                                 "; it must be 3 x 3");
    }
    std::array<double, 9> covariance;
    for (size_t i = 0; i < 3; ++i) {
        for (size_t j = 0; j < 3; ++j) covariance[i * 3 + j] = c.values[i + j * 3];
    }
    return sw::ColourNoise::correlated(std::move(spatial), covariance);
}

}  // namespace

int run_denoise_colour(const DenoiseArgs& a, swio::ChannelFile input) {
    const auto start = std::chrono::steady_clock::now();
    const sw::SampleType out_type = output_type(a.type, input.type, a.output);
    const std::string ext = swio::extension_of(a.output);
    if ((ext == ".jpg" || ext == ".jpeg") && input.image.channels == 4) {
        throw std::runtime_error(a.output + ": JPEG holds no alpha channel; write .png or .tif");
    }
    const uint32_t rows = input.image.rows, cols = input.image.cols;
    sw::ColourNoise noise = colour_noise(a, rows, cols);
    if (noise.kind != sw::ColourNoise::Kind::kEstimated) {
        // The plausibility guard on the colour values (alpha aside).
        const size_t colours = static_cast<size_t>(rows) * cols * 3;
        const auto [lo, hi] = std::minmax_element(input.image.pixels.begin(),
                                                  input.image.pixels.begin() + colours);
        const sw::NoiseModel& first = noise.models[0];
        const sw::NoiseModel probe =
            noise.kind == sw::ColourNoise::Kind::kCorrelated
                ? sw::NoiseModel::white(std::sqrt(std::max(
                      {noise.covariance[0], noise.covariance[4], noise.covariance[8], 0.0})))
                : first;
        const std::string warning = sw::noise_warning(*lo, *hi, input.type, probe);
        if (!warning.empty()) std::fprintf(stderr, "shapewiener: warning: %s\n", warning.c_str());
    }
    swio::ChannelFile reference;
    if (!a.reference.empty()) reference = swio::read_channels(a.reference);

    sw::DenoiseOptions options;
    options.preset = a.preset;
    options.threads = a.threads;
    sw::DenoiseReport report;
    ProgressBar bar(!a.quiet);
    // No noise given: estimated first (the library's blind call does the
    // same, with the same bits), to report it.
    const bool blind = noise.kind == sw::ColourNoise::Kind::kEstimated;
    sw::ColourNoiseEstimate estimate;
    const auto share = [&bar](double begin, double width) {
        return [&bar, begin, width](double fraction, const char* phase) {
            return bar(begin + width * fraction, phase);
        };
    };
    if (blind) {
        sw::NoiseEstimateOptions eo;
        eo.threads = a.threads;
        estimate = sw::estimate_colour_noise(input.image, eo, share(0.0, 0.1));
        noise = estimate.noise;
    }
    const sw::ColourImage output =
        blind && noise.models.empty()
            ? input.image  // no noise found
            : sw::denoise_colour(input.image, noise, options, sw::ColourOptions(),
                                 share(blind ? 0.1 : 0.0, blind ? 0.9 : 1.0), &report);
    bar.finish();
    if (blind) {
        write_colour_spectrum(a.noise_out, estimate);
        if (!a.quiet) print_colour_estimate_line(estimate);
    }
    swio::write_atomically(a.output, [&](const std::string& temp) {
        swio::write_channels(temp, a.output, output, out_type, a.quality);
    });
    if (!a.quiet) {
        const double total =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        std::fprintf(stderr,
                     "%s: %u x %u x %u, preset %s, %d passes; denoising %.2f s, total %.2f s\n",
                     a.output.c_str(), rows, cols, input.image.channels, a.preset.c_str(),
                     report.passes, report.seconds, total);
        if (!a.reference.empty()) {
            const double peak = default_peak(reference.type);
            const auto flat = [](const sw::ColourImage& im) {
                return sw::Image{im.rows, im.cols * im.channels, im.pixels};
            };
            std::fprintf(stderr, "PSNR (peak %g) noisy %.2f dB, denoised %.2f dB\n", peak,
                         psnr(flat(input.image), flat(reference.image), peak),
                         psnr(flat(output), flat(reference.image), peak));
        }
    }
    return 0;
}

}  // namespace swcli
