// Benchmark of the shared adaptive-shape workloads: the reference path, the
// optimised path on one thread and on several, measured side by side.
//
// Every timed call runs in a child process of its own (fork), which loads
// the workload and makes the one call; its wall-clock time and output
// SHA-256 come back through a pipe and its peak resident memory from
// wait4(). A child that only loads the workload gives the baseline of that
// memory. Modes alternate within every repetition, so a noisy machine
// disturbs them alike; compare figures of one run.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "driver/box.h"
#include "shape/gather.h"
#include "shape/shape.h"
#include "shapewiener/filter.h"
#include "support/shared_workload.h"
#include "transform/shape_transform.h"

namespace {

struct Mode {
    const char* name;
    bool reference;
    unsigned threads;  // 0: load only, no call
    bool load_only;
};

struct ChildReport {
    double seconds = 0.0;
    char sha256[65] = {0};
    int ok = 0;
};

struct Sample {
    ChildReport report;
    long max_rss_kb = 0;
    double cpu_seconds = 0.0;  // the child's user + system time, loading included
};

// Runs `mode` on the workload in a child process.
Sample measure(const std::string& folder, const Mode& mode) {
    int fd[2];
    if (pipe(fd) != 0) throw std::runtime_error("pipe failed");
    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        close(fd[0]);
        ChildReport r;
        try {
            swtest::SharedWorkload workload(folder);
            std::vector<double> out(workload.pixels());
            const sw::FilterCall& call = workload.fresh_call();
            if (!mode.load_only) {
                sw::RunOptions options;
                options.reference = mode.reference;
                options.threads = mode.threads;
                const auto t0 = std::chrono::steady_clock::now();
                const sw::Error e = sw::run(call, out.data(), options);
                const auto t1 = std::chrono::steady_clock::now();
                r.seconds = std::chrono::duration<double>(t1 - t0).count();
                r.ok = !e;
                const std::string sha = swtest::output_sha256(out);
                std::snprintf(r.sha256, sizeof r.sha256, "%s", sha.c_str());
            } else {
                r.ok = 1;
            }
        } catch (const std::exception& e) {
            std::fprintf(stderr, "child: %s\n", e.what());
        }
        const ssize_t written = write(fd[1], &r, sizeof r);
        _exit(written == static_cast<ssize_t>(sizeof r) ? 0 : 1);
    }
    close(fd[1]);
    Sample s;
    const ssize_t got = read(fd[0], &s.report, sizeof s.report);
    close(fd[0]);
    int status = 0;
    struct rusage usage;
    wait4(pid, &status, 0, &usage);
    if (got != static_cast<ssize_t>(sizeof s.report) || !s.report.ok) {
        throw std::runtime_error("the child for " + std::string(mode.name) + " failed");
    }
    s.max_rss_kb = usage.ru_maxrss;
    s.cpu_seconds = usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
                    1e-6 * (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
    return s;
}

struct Counts {
    uint64_t accepted = 0;
    uint64_t key_changes = 0;
    uint64_t spectra = 0;  // non-zero coefficients at key changes, plus one mean per key change
};

// Walks the list as the filter does (threshold 1e9: every entry accepted)
// and, at every key change, gathers and transforms the shape to count its
// non-zero noisy coefficients: those are the coefficients that get a noise
// level, each through one spectrum.
Counts count_work(swtest::SharedWorkload& workload) {
    const sw::FilterCall& call = workload.fresh_call();
    const uint32_t m = static_cast<uint32_t>(call.image_dims.rows());
    const uint32_t k = static_cast<uint32_t>(call.image_dims.cols());
    const uint32_t mk = m * k;
    const uint32_t h = sw::round_to_unsigned(call.max_scale);
    const sw::RuntimeBox box{h};
    const uint32_t w = box.W();
    sw::dither_images(call.noisy_image, call.pilot_image, mk);
    std::vector<uint32_t> scales(call.scale_set.dims.elements());
    for (size_t i = 0; i < scales.size(); ++i) scales[i] = sw::round_to_unsigned(call.scale_set.data[i]);
    std::vector<const double*> table(w);
    for (uint32_t i = 0; i < w; ++i) table[i] = call.transforms[i].data;
    std::vector<float> ng(w * w), pg(w * w), nc(w * w), pc(w * w);
    std::vector<int32_t> cc(w), rc(w), cursor(w);
    std::vector<uint8_t> mask(w * w);
    Counts counts;
    const int32_t* pixels = call.processing_list.data;
    const int32_t* keys = pixels + mk;
    uint32_t scale[8];
    bool by_columns = false;
    for (uint32_t i = 0; i < mk; ++i) {
        ++counts.accepted;
        if (i > 0 && keys[i] == keys[i - 1]) continue;
        const uint32_t q = static_cast<uint32_t>(pixels[i]) - 1;
        const uint32_t col = q / m;
        const uint32_t row = q - col * m;
        sw::shape_parameters(call.direction_scale_map.data, q, mk, scales.data(), scale, &by_columns);
        const uint8_t* masks[8];
        sw::fetch_sector_masks(call.sector_masks, scale, h, masks);
        const sw::ClippedBox clip = sw::clipped_box(row, col, m, k, h);
        const sw::GatherResult g =
            sw::gather_shape(box, row, col, clip, masks, by_columns, call.noisy_image, call.pilot_image, m,
                             mask.data(), ng.data(), pg.data(), cc.data(), rc.data(), cursor.data());
        sw::remove_mean(box, g.noisy_mean, ng.data(), pg.data(), nc.data(), pc.data());
        sw::forward_transform(box, ng.data(), pg.data(), nc.data(), pc.data(), cc.data(), rc.data(),
                              g.max_column_count, table.data());
        ++counts.key_changes;
        counts.spectra += 1;
        for (float c : nc) counts.spectra += c != 0.0f;
    }
    return counts;
}

double best(std::vector<double> v) { return *std::min_element(v.begin(), v.end()); }
double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

void usage(const char* program) {
    std::printf(
        "Usage: %s [--workloads DIR] [--reps N] [--threads T] [--only NAME]\n"
        "Times the shared workloads (adaptive_h7, adaptive_h9 in DIR, default\n"
        "tests/data/workloads of the repository) on the reference path, the\n"
        "optimised path on one thread and on T threads (default: all hardware\n"
        "threads), N repetitions each (default 3), and checks every output against\n"
        "the workload's out.sha256. --single T runs one call of the --only workload\n"
        "on T threads (0: the reference path) in this process, for profilers.\n",
        program);
}

}  // namespace

int main(int argc, char** argv) {
    std::string root = SHAPEWIENER_SHARED_WORKLOADS;
    uint32_t reps = 3;
    unsigned threads = std::max(1u, std::thread::hardware_concurrency());
    std::string only;
    int single = -1;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            usage(argv[0]);
            return 0;
        }
        if (i + 1 >= argc) {
            usage(argv[0]);
            return 2;
        }
        const std::string v = argv[++i];
        if (a == "--workloads") {
            root = v;
        } else if (a == "--reps") {
            reps = static_cast<uint32_t>(std::max(1, std::atoi(v.c_str())));
        } else if (a == "--threads") {
            threads = static_cast<unsigned>(std::max(1, std::atoi(v.c_str())));
        } else if (a == "--single") {
            single = std::atoi(v.c_str());
        } else if (a == "--only") {
            only = v;
        } else {
            usage(argv[0]);
            return 2;
        }
    }
    root = swtest::shared_workload_root(root);
    if (root.empty()) {
        std::fprintf(stderr, "shared workloads not found; give --workloads DIR\n");
        return 1;
    }
    if (single >= 0) {
        swtest::SharedWorkload workload(root + "/" + (only.empty() ? "adaptive_h7" : only));
        std::vector<double> out(workload.pixels());
        sw::RunOptions options;
        options.reference = single == 0;
        options.threads = single == 0 ? 1 : static_cast<unsigned>(single);
        const auto t0 = std::chrono::steady_clock::now();
        const sw::Error e = sw::run(workload.fresh_call(), out.data(), options);
        const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        const bool match = swtest::output_sha256(out) ==
                           workload.expected_sha256();
        std::printf("%.3f s, output %s\n", s, e ? e.message : match ? "matches" : "DIFFERS");
        return match ? 0 : 1;
    }
    const std::string many = std::to_string(threads) + " threads";
    const Mode modes[] = {{"reference", true, 1, false},
                          {"optimised, 1 thread", false, 1, false},
                          {many.c_str(), false, threads, false}};
    const Mode load_only{"load only", false, 0, true};
    std::printf("hardware threads: %u; repetitions: %u\n", std::thread::hardware_concurrency(), reps);
    bool all_match = true;
    try {
        for (const char* name : {"adaptive_h7", "adaptive_h9"}) {
            if (!only.empty() && only != name) continue;
            const std::string folder = root + "/" + name;
            swtest::SharedWorkload workload(folder);
            const Counts counts = count_work(workload);
            const Sample baseline = measure(folder, load_only);
            const long baseline_kb = baseline.max_rss_kb;
            std::vector<double> seconds[3], cpu[3];
            long rss_kb[3] = {0, 0, 0};
            bool match[3] = {true, true, true};
            for (uint32_t r = 0; r < reps; ++r) {
                for (int mi = 0; mi < 3; ++mi) {
                    const Sample s = measure(folder, modes[mi]);
                    seconds[mi].push_back(s.report.seconds);
                    cpu[mi].push_back(s.cpu_seconds - baseline.cpu_seconds);
                    rss_kb[mi] = std::max(rss_kb[mi], s.max_rss_kb);
                    match[mi] = match[mi] && workload.expected_sha256() == s.report.sha256;
                }
            }
            std::printf("\n%s: %" PRIu64 " accepted entries, %" PRIu64 " key changes, %" PRIu64
                        " coefficient spectra\n",
                        name, counts.accepted, counts.key_changes, counts.spectra);
            double load[3] = {0, 0, 0};
            getloadavg(load, 3);
            std::printf("(load average after the runs: %.1f)\n\n", load[0]);
            std::printf("| mode | best s | median s | vs reference | us / entry | us / spectrum |"
                        " CPU s (best) | peak RSS MiB (load only %.1f) | SHA-256 |\n",
                        baseline_kb / 1024.0);
            std::printf("|---|---:|---:|---:|---:|---:|---:|---:|---|\n");
            const double ref = best(seconds[0]);
            for (int mi = 0; mi < 3; ++mi) {
                const double b = best(seconds[mi]);
                std::printf("| %s | %.3f | %.3f | %.2fx | %.2f | %.3f | %.2f | %.1f | %s |\n",
                            modes[mi].name, b, median(seconds[mi]), ref / b,
                            1e6 * b / counts.accepted, 1e6 * b / counts.spectra, best(cpu[mi]),
                            rss_kb[mi] / 1024.0,
                            match[mi] ? "matches" : "DIFFERS");
                all_match = all_match && match[mi];
            }
            std::printf("\n%s / 1 thread: %.2fx\n", many.c_str(), best(seconds[1]) / best(seconds[2]));
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return all_match ? 0 : 1;
}
