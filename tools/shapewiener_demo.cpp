// Demo: adds coloured noise to a grey-scale image, filters it in two passes
// with fixed square shapes, and reports the PSNR of each stage and the time.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>

#include "caller/coloured_noise.h"
#include "caller/image.h"
#include "caller/module_call.h"
#include "png_io.h"

namespace {

struct Options {
    std::string input = SHAPEWIENER_DEFAULT_IMAGE;
    std::string output_dir = "out";
    double sigma = swcaller::kDefaultNoiseSigma;
    uint32_t seed = swcaller::kDefaultNoiseSeed;
    uint32_t h = 4;
};

void print_usage(const char* program) {
    std::printf(
        "Usage: %s [options]\n"
        "\n"
        "Adds coloured Gaussian noise to a grey-scale PNG image, filters it in two\n"
        "passes with square shapes, prints the PSNR (peak 1) of the noisy image and\n"
        "of both passes with the time taken, and writes noisy.png, pass1.png and\n"
        "filtered.png (pass 2) to the output directory.\n"
        "\n"
        "The noise is white Gaussian noise of standard deviation SIGMA convolved with\n"
        "the 3x3 binomial kernel scaled to unit energy, so its per-pixel standard\n"
        "deviation is SIGMA too (intensities are in [0, 1]).\n"
        "\n"
        "Options:\n"
        "  --input PATH        image to filter (default: %s)\n"
        "  --output-dir DIR    where the PNG files go, created if needed (default: out)\n"
        "  --sigma S           noise standard deviation (default: %g)\n"
        "  --seed N            seed of the noise generator (default: %u)\n"
        "  --h H               maximum scale: squares of side 2H-1, 1 <= H <= 16 (default: 4)\n"
        "  --help              show this text\n",
        program, SHAPEWIENER_DEFAULT_IMAGE, swcaller::kDefaultNoiseSigma,
        swcaller::kDefaultNoiseSeed);
}

[[noreturn]] void usage_error(const char* program, const std::string& message) {
    std::fprintf(stderr, "%s: %s\nTry '%s --help'.\n", program, message.c_str(), program);
    std::exit(2);
}

double parse_number(const char* program, const std::string& option, const std::string& text) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0') usage_error(program, option + " needs a number, got '" + text + "'");
    return value;
}

uint32_t parse_count(const char* program, const std::string& option, const std::string& text,
                     unsigned long low, unsigned long high) {
    char* end = nullptr;
    const unsigned long value = std::strtoul(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || text[0] == '-' || value < low || value > high) {
        usage_error(program, option + " needs a whole number in " + std::to_string(low) + ".." +
                                 std::to_string(high) + ", got '" + text + "'");
    }
    return static_cast<uint32_t>(value);
}

Options parse_options(int argc, char** argv) {
    const char* program = argv[0];
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string option = argv[i];
        std::string value;
        bool has_value = false;
        const size_t equals = option.find('=');
        if (option.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = option.substr(equals + 1);
            option = option.substr(0, equals);
            has_value = true;
        }
        if (option == "--help" || option == "-h") {
            print_usage(program);
            std::exit(0);
        }
        const bool known = option == "--input" || option == "--output-dir" || option == "--sigma" ||
                           option == "--seed" || option == "--h";
        if (!known) usage_error(program, "unknown option '" + option + "'");
        if (!has_value) {
            if (i + 1 >= argc) usage_error(program, option + " needs a value");
            value = argv[++i];
        }
        if (option == "--input") {
            o.input = value;
        } else if (option == "--output-dir") {
            o.output_dir = value;
        } else if (option == "--sigma") {
            o.sigma = parse_number(program, option, value);
            if (!(o.sigma >= 0.0)) usage_error(program, "--sigma must not be negative");
        } else if (option == "--seed") {
            o.seed = parse_count(program, option, value, 0, 4294967295ul);
        } else {
            o.h = parse_count(program, option, value, 1, 16);
        }
    }
    return o;
}

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
    const Options o = parse_options(argc, argv);
    try {
        const auto start = std::chrono::steady_clock::now();
        const swcaller::Image clean = swtools::read_grey_png(o.input);
        const swcaller::NoiseKernel kernel = swcaller::binomial_kernel();
        const swcaller::Image noise =
            swcaller::coloured_noise(clean.rows, clean.cols, kernel, o.sigma, o.seed);
        const swcaller::Image noisy = swcaller::add(clean, noise);
        const std::vector<double> psd = swcaller::noise_psd(kernel, o.sigma, swcaller::kSpectrumGrid);
        const swcaller::ShapeArguments shapes =
            swcaller::fixed_square_shapes(clean.rows, clean.cols, o.h, o.h);
        const double setup_seconds = seconds_since(start);

        const swcaller::TwoPassResult result = swcaller::filter_two_passes(shapes, psd, noisy);

        std::filesystem::create_directories(o.output_dir);
        const std::filesystem::path dir(o.output_dir);
        const std::string noisy_path = (dir / "noisy.png").string();
        const std::string pass1_path = (dir / "pass1.png").string();
        const std::string filtered_path = (dir / "filtered.png").string();
        swtools::write_grey_png(noisy_path, noisy);
        swtools::write_grey_png(pass1_path, result.first);
        swtools::write_grey_png(filtered_path, result.second);

        const uint32_t side = 2 * o.h - 1;
        std::printf("input        %s (%u x %u)\n", o.input.c_str(), clean.rows, clean.cols);
        std::printf("noise        sigma %g, 3x3 binomial colouring, seed %u\n", o.sigma, o.seed);
        std::printf("shapes       fixed %u x %u squares (H = %u), %u ShapeKeys\n", side, side, o.h,
                    shapes.list.key_changes);
        std::printf("PSNR noisy   %6.2f dB\n", swcaller::psnr(noisy, clean));
        std::printf("PSNR pass 1  %6.2f dB   (Wiener variance factor %g, %.2f s)\n",
                    swcaller::psnr(result.first, clean), swcaller::kFirstPassFactor,
                    result.first_seconds);
        std::printf("PSNR pass 2  %6.2f dB   (Wiener variance factor %g, %.2f s)\n",
                    swcaller::psnr(result.second, clean), swcaller::kSecondPassFactor,
                    result.second_seconds);
        std::printf("time         set-up %.2f s, filtering %.2f s, total %.2f s\n", setup_seconds,
                    result.first_seconds + result.second_seconds, seconds_since(start));
        std::printf("wrote        %s, %s, %s\n", noisy_path.c_str(), pass1_path.c_str(),
                    filtered_path.c_str());
    } catch (const mx_host::MexError& e) {
        std::fprintf(stderr, "%s: filter error %s: %s\n", argv[0], e.identifier().c_str(), e.what());
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s: %s\n", argv[0], e.what());
        return 1;
    }
    return 0;
}
