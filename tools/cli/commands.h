// The subcommands of the `shapewiener` command line. Each returns the exit
// code; errors are thrown as std::exception (sw::DenoiseError included) and
// reported by main as one line.
#ifndef SHAPEWIENER_TOOLS_COMMANDS_H
#define SHAPEWIENER_TOOLS_COMMANDS_H

#include <cstdint>
#include <string>

#include "shapewiener/colour.h"
#include "shapewiener/noise.h"
#include "io/image_io.h"

namespace swcli {

struct DenoiseArgs {
    std::string input, output;
    double sigma = 0.0;
    bool has_sigma = false;
    std::string kernel, psd, reference;
    std::string preset = "default";
    std::string type;  // output sample type; "": the input's
    unsigned threads = 0;
    bool quiet = false;
    std::string noise_out;  // blind: where the estimated spectrum goes
    std::string channel_covariance;  // colour images: 3 x 3 (.npy or text)
    int quality = 95;                // JPEG output
};
int run_denoise(const DenoiseArgs& a);
// The colour path of run_denoise: an image of 3 or 4 channels, read.
int run_denoise_colour(const DenoiseArgs& a, swio::ChannelFile input);

struct SimulateArgs {
    std::string input, output, kernel;
    double sigma = 0.0;
    uint32_t seed = 20240607;
    std::string type = "float64";
    int quality = 95;  // JPEG output
};
int run_simulate(const SimulateArgs& a);

struct CompareArgs {
    std::string a, b;
    double peak = 0.0;  // 0: the reference's type range (integer), else 1
};
int run_compare(const CompareArgs& a);

struct ConvertArgs {
    std::string input, output;
    std::string type;  // "": the input's
    int quality = 95;  // JPEG output
};
int run_convert(const ConvertArgs& a);

struct FilterArgs {
    std::string folder, output, noisy, psd, pilot;
    uint32_t rows = 0;
    double wiener_variance_factor = 6.0;
    double noise_level_factor = 1.0;
    double coverage_threshold = 1e9;
    unsigned threads = 0;
};
int run_filter(const FilterArgs& a);

// Estimating the noise (noise_command.cpp).
struct NoiseArgs {
    std::string input, psd_out, plot;
    unsigned threads = 0;
    bool quiet = false;
};
int run_noise(const NoiseArgs& a);

// The spectrum picture: log scale over this many decades below its peak.
constexpr double kPictureDecades = 4.0;
// Below this usable share the report warns that texture may read as noise.
constexpr double kFewUsable = 0.1;
// The estimate's full-size spectrum as an 8-bit grey image (0..255 as
// values): DC centred, brightness 255 at the peak falling linearly with
// the logarithm to 0 at kPictureDecades below it.
sw::Image spectrum_picture(const sw::NoiseEstimate& e);
// Refuses, before any work, a spectrum output that is not a writable .npy.
void check_spectrum_path(const std::string& path, const char* option);
// Writes the estimate's spectrum as float64 .npy (nothing for an empty path).
void write_spectrum(const std::string& path, const sw::NoiseEstimate& e);
// One line on stderr: the estimated sigma, white or coloured, usable share.
void print_estimate_line(const sw::NoiseEstimate& e);
// The same for a colour image's estimate; write_colour_spectrum writes each
// channel's spectrum, (rows, cols, 3) .npy.
void print_colour_estimate_line(const sw::ColourNoiseEstimate& e);
void write_colour_spectrum(const std::string& path, const sw::ColourNoiseEstimate& e);

}  // namespace swcli

#endif  // SHAPEWIENER_TOOLS_COMMANDS_H
