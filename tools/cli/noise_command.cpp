// Denoising without a noise description: the `noise` command (the estimate
// alone, its report, spectrum file and picture) and the pieces `denoise`
// uses when it runs blind.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "commands.h"
#include "io/array_io.h"
#include "io/image_io.h"
#include "progress_bar.h"
#include "shapewiener/colour.h"
#include "shapewiener/noise.h"

namespace swcli {

void check_spectrum_path(const std::string& path, const char* option) {
    if (path.empty()) return;
    if (swio::extension_of(path) != ".npy") {
        throw std::runtime_error(std::string(option) + " " + path +
                                 ": the spectrum is written as .npy (float64, the image's shape)");
    }
    swio::check_output_path(path, false);
}

void write_spectrum(const std::string& path, const sw::NoiseEstimate& e) {
    if (path.empty()) return;
    swio::write_atomically(path, [&](const std::string& temp) {
        swio::write_npy(temp, e.rows, e.cols, e.psd);
    });
}

void print_estimate_line(const sw::NoiseEstimate& e) {
    std::fprintf(stderr, "noise estimated: sigma %.4g (in the image's units), %s; %.0f%% of the image "
                 "looked like noise alone\n",
                 e.sigma, e.white ? "white" : "coloured", 100.0 * e.usable_fraction);
}

sw::Image spectrum_picture(const sw::NoiseEstimate& e) {
    const uint32_t rows = e.rows;
    const uint32_t cols = e.cols;
    const double top = e.psd.empty() ? 0.0 : *std::max_element(e.psd.begin(), e.psd.end());
    sw::Image out{rows, cols, std::vector<double>(e.psd.size(), 0.0)};
    if (!(top > 0.0)) return out;
    for (uint32_t c = 0; c < cols; ++c) {
        const uint32_t fc = (c + cols - cols / 2) % cols;
        for (uint32_t r = 0; r < rows; ++r) {
            const uint32_t fr = (r + rows - rows / 2) % rows;
            const double v = e.psd[fr + static_cast<size_t>(fc) * rows];
            const double level = v > 0.0 ? 1.0 + std::log10(v / top) / kPictureDecades : 0.0;
            out.pixels[r + static_cast<size_t>(c) * rows] = 255.0 * std::clamp(level, 0.0, 1.0);
        }
    }
    return out;
}

void print_colour_estimate_line(const sw::ColourNoiseEstimate& e) {
    std::fprintf(stderr, "noise estimated: sigma R %.4g, G %.4g, B %.4g (in the image's units), %s; "
                 "%.0f%% of the image looked like noise alone\n",
                 std::sqrt(e.covariance[0]), std::sqrt(e.covariance[4]), std::sqrt(e.covariance[8]),
                 e.white ? "white" : "coloured", 100.0 * e.usable_fraction);
}

void write_colour_spectrum(const std::string& path, const sw::ColourNoiseEstimate& e) {
    if (path.empty()) return;
    std::vector<double> psd;
    for (size_t k = 0; k < 3; ++k) {
        for (double v : e.shape) psd.push_back(v * e.covariance[k * 4]);
    }
    swio::write_atomically(path, [&](const std::string& temp) {
        swio::write_npy(temp, e.rows, e.cols, psd, sw::SampleType::kFloat64, 3);
    });
}

namespace {

// A colour image: its noise as one spatial shape times a channel
// covariance; --psd-out writes each channel's spectrum.
int run_noise_colour(const NoiseArgs& a, const swio::ChannelFile& input) {
    const auto start = std::chrono::steady_clock::now();
    sw::NoiseEstimateOptions options;
    options.threads = a.threads;
    ProgressBar bar(!a.quiet);
    const sw::ColourNoiseEstimate e = sw::estimate_colour_noise(
        input.image, options, [&bar](double fraction, const char* phase) { return bar(fraction, phase); });
    bar.finish();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    write_colour_spectrum(a.psd_out, e);
    if (!a.plot.empty()) {
        sw::NoiseEstimate shape;  // the shape every channel shares
        shape.rows = e.rows;
        shape.cols = e.cols;
        shape.psd = e.shape;
        const sw::Image picture = spectrum_picture(shape);
        swio::write_atomically(a.plot, [&](const std::string& temp) {
            swio::write_image(temp, a.plot, picture, sw::SampleType::kUint8);
        });
    }
    std::printf("%s: %u x %u, %u channels\n", a.input.c_str(), e.rows, e.cols, input.image.channels);
    std::printf("sigma     R %.6g, G %.6g, B %.6g (in the image's units)\n",
                std::sqrt(e.covariance[0]), std::sqrt(e.covariance[4]), std::sqrt(e.covariance[8]));
    const auto correlation = [&](size_t i, size_t j) {
        const double d = std::sqrt(e.covariance[i * 4] * e.covariance[j * 4]);
        return d > 0.0 ? e.covariance[i * 3 + j] / d : 0.0;
    };
    std::printf("correlation R-G %.2f, R-B %.2f, G-B %.2f\n", correlation(0, 1), correlation(0, 2),
                correlation(1, 2));
    std::printf("spectrum  %s, the same shape in every channel\n",
                e.white ? "white (flat within its sampling error)" : "coloured");
    std::printf("usable    %.0f%% of the image looked like noise alone\n", 100.0 * e.usable_fraction);
    if (e.usable_fraction < kFewUsable) {
        std::printf("note      few flat parts: texture may have been read as noise\n");
    }
    std::printf("time      %.2f s\n", seconds);
    return 0;
}

}  // namespace

int run_noise(const NoiseArgs& a) {
    check_spectrum_path(a.psd_out, "--psd-out");
    if (!a.plot.empty()) {
        swio::check_output_path(a.plot);
        if (!swio::format_holds(a.plot, sw::SampleType::kUint8)) {
            throw std::runtime_error("--plot " + a.plot + ": not an image format for 8-bit samples");
        }
    }
    swio::ChannelFile file = swio::read_channels(a.input, 48);
    if (file.image.channels > 1) return run_noise_colour(a, file);
    const auto start = std::chrono::steady_clock::now();
    swio::ImageFile input;
    input.type = file.type;
    input.image = {file.image.rows, file.image.cols, std::move(file.image.pixels)};
    sw::NoiseEstimateOptions options;
    options.threads = a.threads;
    ProgressBar bar(!a.quiet);
    const sw::NoiseEstimate e = sw::estimate_noise(
        input.image, options, [&bar](double fraction, const char* phase) { return bar(fraction, phase); });
    bar.finish();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    write_spectrum(a.psd_out, e);
    if (!a.plot.empty()) {
        const sw::Image picture = spectrum_picture(e);
        swio::write_atomically(a.plot, [&](const std::string& temp) {
            swio::write_image(temp, a.plot, picture, sw::SampleType::kUint8);
        });
    }
    std::printf("%s: %u x %u\n", a.input.c_str(), e.rows, e.cols);
    std::printf("sigma     %.6g (in the image's units)\n", e.sigma);
    std::printf("spectrum  %s\n", e.white ? "white (flat within its sampling error)" : "coloured");
    std::printf("usable    %.0f%% of the image looked like noise alone (blocks of %u x %u)\n",
                100.0 * e.usable_fraction, e.block, e.block);
    if (e.usable_fraction < kFewUsable) {
        std::printf("note      few flat parts: texture may have been read as noise\n");
    }
    std::printf("time      %.2f s\n", seconds);
    return 0;
}

}  // namespace swcli
