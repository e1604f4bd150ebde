// Benchmark of the filter module on the demo's workload: one full call, the
// cost of argument validation, and the size-specialised variants against
// the general path. Times are wall-clock; the machine may be shared, so
// compare figures within one run.
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "mex/gateway.h"
#include "workload.h"

namespace {

struct Options {
    std::string input = SHAPEWIENER_DEFAULT_IMAGE;
    uint32_t reps = 5;           // timed repetitions of the full call
    uint32_t variant_reps = 3;   // per H and path
    uint32_t crop = 128;         // image side for the variant comparison
    uint32_t h = 4;              // maximum scale of the single call
    uint32_t side = 0;           // centred crop of the single call; 0: whole image
    bool checksum_only = false;  // print the pass-2 checksum and time, nothing else
    bool skip_variants = false;
};

void usage(const char* program) {
    std::printf(
        "Usage: %s [--input PATH] [--h H] [--side SIDE] [--reps N]\n"
        "          [--variant-reps N] [--crop SIDE] [--skip-variants] [--checksum]\n"
        "Times one module call (pass 2 of the demo: pilot = pass-1 output, Wiener\n"
        "variance factor 2) on the demo workload, the argument validation, and the\n"
        "size-specialised variants H = 4..11 against the general path on a centred\n"
        "crop (pass 1 settings). --checksum prints only the pass-2 output checksum\n"
        "and its best time over --reps runs (used by the phase benchmark).\n"
        "--h and --side change the single call's maximum scale (default 4) and\n"
        "image (a centred SIDE x SIDE crop; default the whole image).\n",
        program);
}

Options parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "%s: %s needs a value\n", argv[0], a.c_str());
                std::exit(2);
            }
            return argv[++i];
        };
        if (a == "--help" || a == "-h") {
            usage(argv[0]);
            std::exit(0);
        } else if (a == "--input") {
            o.input = value();
        } else if (a == "--reps") {
            o.reps = static_cast<uint32_t>(std::max(1, std::atoi(value().c_str())));
        } else if (a == "--variant-reps") {
            o.variant_reps = static_cast<uint32_t>(std::max(1, std::atoi(value().c_str())));
        } else if (a == "--crop") {
            o.crop = static_cast<uint32_t>(std::max(1, std::atoi(value().c_str())));
        } else if (a == "--h") {
            o.h = static_cast<uint32_t>(std::min(16, std::max(1, std::atoi(value().c_str()))));
        } else if (a == "--side") {
            o.side = static_cast<uint32_t>(std::max(0, std::atoi(value().c_str())));
        } else if (a == "--checksum") {
            o.checksum_only = true;
        } else if (a == "--skip-variants") {
            o.skip_variants = true;
        } else {
            std::fprintf(stderr, "%s: unknown option '%s'\n", argv[0], a.c_str());
            std::exit(2);
        }
    }
    return o;
}

void run(const Options& o) {
    const uint32_t h = o.h;
    const swbench::Workload full = swbench::make_workload(o.input, 4);
    const swbench::Workload w = swbench::crop_workload(full, o.side == 0 ? UINT32_MAX : o.side, h);
    const swcaller::Image pilot =
        swtest::filter_pass(w.shapes, w.psd, w.noisy, w.noisy, swbench::first_pass_settings());
    swtest::ModuleCall call(w.shapes, w.psd, w.noisy, pilot, swbench::second_pass_settings());

    if (o.checksum_only) {
        uint64_t sum = 0;
        double best = 1e300;
        for (uint32_t r = 0; r < o.reps; ++r) {
            const swbench::TimedCall t = swbench::time_call(call, mexFunction);
            best = std::min(best, t.seconds);
            sum = swbench::checksum(t.output);
        }
        std::printf("checksum %016" PRIx64 " seconds %.6f\n", sum, best);
        return;
    }

    std::printf("Workload: %s (%u x %u), coloured noise sigma %g (3x3 binomial, seed %u),\n",
                w.image_path.c_str(), w.clean.rows, w.clean.cols, w.sigma, w.seed);
    std::printf("          fixed %u x %u squares (H = %u), spectrum grid %u, never skip.\n",
                2 * h - 1, 2 * h - 1, h, swcaller::kSpectrumGrid);
    std::printf("Call:     pass 2 (PilotImage = pass-1 output, WienerVarianceFactor %g).\n\n",
                swbench::kSecondPassFactor);

    // One call, repeated.
    std::vector<double> times;
    swcaller::Image output;
    bool repeatable = true;
    for (uint32_t r = 0; r < o.reps; ++r) {
        swbench::TimedCall t = swbench::time_call(call, mexFunction);
        times.push_back(t.seconds);
        if (r == 0) {
            output = std::move(t.output);
        } else {
            repeatable = repeatable && swbench::bit_identical(output, t.output);
        }
    }
    const double best = *std::min_element(times.begin(), times.end());
    std::printf("One module call (mexFunction%s)\n", sw::variant_for(h) ? ", size-specialised variant" : ", general path");
    std::printf("  accepted entries           %zu (every entry: nothing is skipped)\n",
                w.shapes.list.pixels.size());
    std::printf("  ShapeKey changes           %u\n", w.shapes.list.key_changes);
    std::printf("  time, best of %u            %.3f s (median %.3f s)\n", o.reps, best,
                swbench::median(times));
    std::printf("  per accepted entry         %.2f us\n",
                1e6 * best / static_cast<double>(w.shapes.list.pixels.size()));
    std::printf("  PSNR of this pass          %.2f dB (noisy %.2f dB)\n",
                swbench::psnr(output, w.clean), swbench::psnr(w.noisy, w.clean));
    std::printf("  output checksum            %016" PRIx64 "%s\n\n", swbench::checksum(output),
                repeatable ? " (same in every repetition)" : " (DIFFERS between repetitions!)");

    // Validation against one call.
    const uint32_t validation_reps = 50;
    const auto start = std::chrono::steady_clock::now();
    for (uint32_t r = 0; r < validation_reps; ++r) (void)sw::mex_check(1, call.nrhs(), call.prhs());
    const double validation =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() /
        validation_reps;
    std::printf("Argument validation (sw::mex_check, mean of %u)\n", validation_reps);
    std::printf("  time                       %.3f ms\n", 1e3 * validation);
    std::printf("  share of one call          %.3f %% (target < 1 %%)\n\n", 100.0 * validation / best);

    if (o.skip_variants) return;

    // Variants against the general path, on one crop for every H.
    std::printf("Size-specialised variants against the general path\n");
    std::printf("  centred %u x %u crop, pass-1 settings (pilot = noisy, factor %g), squares of\n",
                std::min(o.crop, full.clean.rows), std::min(o.crop, full.clean.cols),
                swbench::kFirstPassFactor);
    std::printf("  side 2H-1, best of %u each, runs alternating; no validation in either.\n\n",
                o.variant_reps);
    std::printf("   H   keys   variant (s)   general (s)   general/variant   bit-identical\n");
    for (uint32_t hv = 4; hv <= 11; ++hv) {
        const swbench::Workload c = swbench::crop_workload(full, o.crop, hv);
        swtest::ModuleCall crop_call(c.shapes, c.psd, c.noisy, c.noisy, swbench::first_pass_settings());
        const swtest::ModuleCall::Entry variant = sw::variant_for(hv);
        double best_variant = 1e300;
        double best_general = 1e300;
        bool identical = true;
        swcaller::Image reference;
        for (uint32_t r = 0; r < o.variant_reps; ++r) {
            swbench::TimedCall v = swbench::time_call(crop_call, variant);
            swbench::TimedCall g = swbench::time_call(crop_call, nullptr, hv);
            best_variant = std::min(best_variant, v.seconds);
            best_general = std::min(best_general, g.seconds);
            identical = identical && swbench::bit_identical(v.output, g.output);
            if (r == 0) reference = std::move(v.output);
            identical = identical && swbench::bit_identical(reference, g.output);
        }
        std::printf("  %2u   %4u   %11.3f   %11.3f   %15.2f   %s\n", hv, c.shapes.list.key_changes,
                    best_variant, best_general, best_general / best_variant,
                    identical ? "yes" : "NO");
        std::fflush(stdout);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const Options o = parse(argc, argv);
    try {
        run(o);
    } catch (const mx_host::MexError& e) {
        std::fprintf(stderr, "%s: filter error %s: %s\n", argv[0], e.identifier().c_str(), e.what());
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s: %s\n", argv[0], e.what());
        return 1;
    }
    return 0;
}
