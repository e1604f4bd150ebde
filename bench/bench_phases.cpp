// Time per phase of the filter's pixel loop, from a profiling build of the
// core (SHAPEWIENER_PHASE_MARKS): every mark ends the running phase and
// starts the next. Also counts the entries that reach the shape phase
// (accepted entries) and the noise-level phase (ShapeKey changes), and
// checks the output against the normal build, bit for bit.
#include <algorithm>
#include <array>
#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "driver/phase_marks.h"
#include "workload.h"

namespace {

using Clock = std::chrono::steady_clock;

struct PhaseClock {
    std::array<double, sw::kPhaseCount> seconds{};
    std::array<uint64_t, sw::kPhaseCount> marks{};
    int running = -1;
    Clock::time_point since;

    void reset() { *this = PhaseClock{}; }
};

PhaseClock g_phases;

}  // namespace

namespace sw {

void phase_mark(Phase phase) {
    const Clock::time_point now = Clock::now();
    if (g_phases.running >= 0) {
        g_phases.seconds[g_phases.running] += std::chrono::duration<double>(now - g_phases.since).count();
    }
    ++g_phases.marks[phase];
    g_phases.running = phase == kPhaseDone ? -1 : phase;
    g_phases.since = now;
}

}  // namespace sw

namespace {

// Runs the normal build's benchmark for its checksum and time of the same call.
bool normal_build_result(uint64_t* checksum, double* seconds, const std::string& input,
                         uint32_t h, uint32_t side, uint32_t reps) {
    const std::string command = std::string("\"") + SHAPEWIENER_NORMAL_BENCH +
                                "\" --checksum --reps " + std::to_string(reps) + " --h " +
                                std::to_string(h) + " --side " + std::to_string(side) +
                                " --input \"" + input + "\"";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return false;
    char line[256] = {0};
    const bool got = std::fgets(line, sizeof line, pipe) != nullptr;
    const int status = pclose(pipe);
    return got && status == 0 && std::sscanf(line, "checksum %" SCNx64 " seconds %lf", checksum, seconds) == 2;
}

int run(const std::string& input, uint32_t h, uint32_t side) {
    const swbench::Workload w = swbench::crop_workload(swbench::make_workload(input, 4),
                                                       side == 0 ? UINT32_MAX : side, h);
    const swcaller::Image pilot =
        swtest::filter_pass(w.shapes, w.psd, w.noisy, w.noisy, swbench::first_pass_settings());
    swtest::ModuleCall call(w.shapes, w.psd, w.noisy, pilot, swbench::second_pass_settings());

    // The fastest of a few runs, with its own phase split.
    const uint32_t reps = 3;
    PhaseClock fastest;
    swbench::TimedCall t;
    for (uint32_t r = 0; r < reps; ++r) {
        g_phases.reset();
        swbench::TimedCall run = swbench::time_call(call, mexFunction);
        if (r == 0 || run.seconds < t.seconds) {
            t = std::move(run);
            fastest = g_phases;
        }
    }
    g_phases = fastest;

    struct Row {
        sw::Phase phase;
        const char* name;
    };
    const Row rows[] = {
        {sw::kPhaseShape, "shape + gathering"},   {sw::kPhaseForward, "forward transform"},
        {sw::kPhaseNoiseLevel, "noise levels"},   {sw::kPhaseShrink, "shrinkage"},
        {sw::kPhaseInverse, "inverse transform"}, {sw::kPhaseAggregate, "aggregation"},
        {sw::kPhaseLoop, "list walking"},         {sw::kPhaseSetup, "set-up"},
        {sw::kPhaseFinish, "normalisation"},
    };
    double marked_total = 0.0;
    for (const Row& r : rows) marked_total += g_phases.seconds[r.phase];

    std::printf("Workload: %s (%u x %u), coloured noise sigma %g (3x3 binomial, seed %u),\n",
                w.image_path.c_str(), w.clean.rows, w.clean.cols, w.sigma, w.seed);
    std::printf("          fixed %u x %u squares (H = %u), spectrum grid %u, never skip.\n",
                2 * h - 1, 2 * h - 1, h, swcaller::kSpectrumGrid);
    std::printf("Call:     pass 2 (PilotImage = pass-1 output, WienerVarianceFactor %g),\n",
                swbench::kSecondPassFactor);
    std::printf("          profiling build of the core (phase marks).\n\n");
    std::printf("  phase                 time (ms)    share      marks\n");
    for (const Row& r : rows) {
        std::printf("  %-20s %10.1f   %5.1f %%   %8" PRIu64 "\n", r.name, 1e3 * g_phases.seconds[r.phase],
                    100.0 * g_phases.seconds[r.phase] / marked_total, g_phases.marks[r.phase]);
    }
    std::printf("  %-20s %10.1f   100.0 %%\n\n", "sum of phases", 1e3 * marked_total);
    std::printf("  accepted entries (shape marks)           %" PRIu64 "\n", g_phases.marks[sw::kPhaseShape]);
    std::printf("  ShapeKey changes (noise-level marks)     %" PRIu64 " (list has %u runs)\n",
                g_phases.marks[sw::kPhaseNoiseLevel], w.shapes.list.key_changes);
    std::printf("  call time, profiling build, best of %u    %.3f s\n", reps, t.seconds);

    uint64_t normal_checksum = 0;
    double normal_seconds = 0.0;
    const uint64_t marked_checksum = swbench::checksum(t.output);
    if (!normal_build_result(&normal_checksum, &normal_seconds, input, h, side, reps)) {
        std::printf("  normal build                             could not run %s\n", SHAPEWIENER_NORMAL_BENCH);
        return 1;
    }
    std::printf("  call time, normal build, best of %u       %.3f s (profiling / normal %.2f)\n",
                reps, normal_seconds, t.seconds / normal_seconds);
    std::printf("  output checksum, profiling / normal      %016" PRIx64 " / %016" PRIx64 "\n",
                marked_checksum, normal_checksum);
    std::printf("  bit-identical to the normal build        %s\n",
                marked_checksum == normal_checksum ? "yes" : "NO");
    return marked_checksum == normal_checksum ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    std::string input = SHAPEWIENER_DEFAULT_IMAGE;
    uint32_t h = 4;
    uint32_t side = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--input" && i + 1 < argc) {
            input = argv[++i];
        } else if (a == "--h" && i + 1 < argc) {
            h = static_cast<uint32_t>(std::min(16, std::max(1, std::atoi(argv[++i]))));
        } else if (a == "--side" && i + 1 < argc) {
            side = static_cast<uint32_t>(std::max(0, std::atoi(argv[++i])));
        } else if (a == "--help" || a == "-h") {
            std::printf(
                "Usage: %s [--input PATH] [--h H] [--side SIDE]\n"
                "Time per phase of one module call (pass 2 of the demo) with square shapes\n"
                "of maximum scale H (default 4) on the image or its centred SIDE x SIDE crop.\n",
                argv[0]);
            return 0;
        } else {
            std::fprintf(stderr, "%s: unknown or incomplete option '%s'\n", argv[0], a.c_str());
            return 2;
        }
    }
    try {
        return run(input, h, side);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s: %s\n", argv[0], e.what());
        return 1;
    }
}
