// The subcommands of the `shapewiener` command line. Each returns the exit
// code; errors are thrown as std::exception (sw::DenoiseError included) and
// reported by main as one line.
#ifndef SHAPEWIENER_TOOLS_COMMANDS_H
#define SHAPEWIENER_TOOLS_COMMANDS_H

#include <cstdint>
#include <string>

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
};
int run_denoise(const DenoiseArgs& a);

struct SimulateArgs {
    std::string input, output, kernel;
    double sigma = 0.0;
    uint32_t seed = 20240607;
    std::string type = "float64";
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

}  // namespace swcli

#endif  // SHAPEWIENER_TOOLS_COMMANDS_H
