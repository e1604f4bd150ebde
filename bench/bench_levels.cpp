// The hot paths of the adaptive-shape workloads at every SIMD level against
// the reference routines, side by side in one run:
//   - the noise levels of a sample of the workload's shapes (every STRIDE-th
//     key), as time per coefficient spectrum (impulse response, spectrum and
//     weighted sum; the DC block counts as one spectrum);
//   - the forward and inverse shape transforms of all entries of those keys,
//     in the order of the processing list;
//   - with --pass, whole module calls, single-threaded, with the output's
//     SHA-256 checked against the workload's.
// Levels alternate within every repetition; the best repetition counts.
// Times are the thread's CPU time.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <ctime>
#include <string>
#include <vector>

#include "driver/box.h"
#include "shapewiener/filter.h"
#include "shape/gather.h"
#include "shape/shape.h"
#include "simd/simd.h"
#include "spectrum/levels_fast.h"
#include "spectrum/noise_level.h"
#include "support/shared_workload.h"
#include "transform/shape_transform.h"
#include "transform/transform_fast.h"

namespace {

using sw::simd::Level;

// The thread's CPU time: the machine may be shared, and wall-clock time
// would count the time other jobs hold the core.
struct Clock {
    using time_point = double;
    static double now() {
        timespec ts;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
        return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
    }
};

double seconds_since(double start) { return Clock::now() - start; }

// One entry of the workload: the shape and its gathered, centred values as
// the driver has them before the forward transform.
struct Entry {
    bool key_change = false;  // the driver computes noise levels here
    std::vector<uint8_t> mask;
    std::vector<float> ng, pg;
    std::vector<int32_t> cc;
    int32_t mcc = 0;
    bool by_columns = false;
    uint32_t shape_size = 0;
    // After the reference forward transform.
    std::vector<float> nc, pc, fng, fpg;
    std::vector<int32_t> rc;
    uint32_t spectra = 0;  // non-zero noisy coefficients + the DC block
};

struct Sample {
    uint32_t h = 0;
    uint32_t w = 0;
    std::vector<const double*> table;
    const double* psd = nullptr;
    std::vector<Entry> entries;
    uint64_t spectra = 0;
};

Sample sample_shapes(const swtest::SharedWorkload& wl, uint32_t stride) {
    const swtest::CallPlan& call = wl.plan();
    Sample s;
    s.h = wl.h();
    s.w = 2 * s.h - 1;
    const uint32_t w = s.w;
    const sw::RuntimeBox box{s.h};
    const uint32_t m = call.m;
    const uint32_t k = call.k;
    const double* image = call.noisy.data();
    const uint8_t* dsm = call.direction_scale_map.data();
    std::vector<uint32_t> rounded;
    for (double v : call.scale_set) rounded.push_back(sw::round_to_unsigned(v));
    for (uint32_t i = 0; i < w; ++i) s.table.push_back(call.transforms[i].data());
    s.psd = call.psd.data();
    const uint32_t count = m * k;
    int32_t previous = 0;
    uint32_t changes = 0;
    bool taking = false;
    for (uint32_t i = 0; i < count; ++i) {
        const int32_t key = call.keys[i];
        const bool key_change = i == 0 || key != previous;
        previous = key;
        if (key_change) taking = changes++ % stride == 0;
        if (!taking) continue;
        const uint32_t q = static_cast<uint32_t>(call.pixels[i]) - 1;
        const uint32_t col = q / m, row = q - col * m;
        uint32_t scales[8];
        Entry e;
        e.key_change = key_change;
        sw::shape_parameters(dsm, q, count, rounded.data(), scales, &e.by_columns);
        const uint8_t* masks[8];
        for (uint32_t d = 0; d < 8; ++d) {
            masks[d] = call.sector_masks[sw::sector_cell_index(d, scales, s.h)].data();
        }
        const sw::ClippedBox clip = sw::clipped_box(row, col, m, k, s.h);
        e.mask.assign(w * w, 0);
        e.ng.assign(w * w, 0.0f);
        e.pg = e.nc = e.pc = e.ng;
        e.cc.assign(w, 0);
        e.rc = e.cc;
        std::vector<int32_t> cursor(w);
        const sw::GatherResult g =
            sw::gather_shape(box, row, col, clip, masks, e.by_columns, image, image, m, e.mask.data(),
                             e.ng.data(), e.pg.data(), e.cc.data(), e.rc.data(), cursor.data());
        sw::remove_mean(box, g.noisy_mean, e.ng.data(), e.pg.data(), e.nc.data(), e.pc.data());
        e.mcc = g.max_column_count;
        e.shape_size = g.shape_size;
        e.fng = e.ng;
        e.fpg = e.pg;
        sw::forward_transform(box, e.fng.data(), e.fpg.data(), e.nc.data(), e.pc.data(), e.cc.data(),
                              e.rc.data(), e.mcc, s.table.data());
        e.spectra = 1;
        for (float c : e.nc) e.spectra += c != 0.0f ? 1 : 0;
        if (e.key_change) s.spectra += e.spectra;
        s.entries.push_back(std::move(e));
    }
    return s;
}

struct Timing {
    double levels = 0.0;
    double forward = 0.0;
    double inverse = 0.0;
    std::vector<float> bits;  // all levels and transform outputs, for comparison
};

template <uint32_t HC>
Timing run_level(const Sample& s, Level level) {
    sw::simd::set_level(level);
    const sw::Box<HC> box{s.h};
    const uint32_t w = s.w;
    const uint32_t n = 32;
    std::vector<float> spatial(n * n), rows(2 * n * (n / 2 + 1)), block(rows.size());
    const sw::SpectrumContext ctx{n, nullptr, spatial.data(), rows.data(), block.data(), s.psd, 1.0};
    std::vector<float> levels(w * w), ng(w * w), pg(w * w), nc(w * w), pc(w * w), out(w * w);
    std::vector<int32_t> rc(w), cursor(w);
    Timing t;
    const bool reference = level == Level::reference;
    // Room for every result, so that no allocation falls into a timed loop.
    const size_t area = static_cast<size_t>(w) * w;
    t.bits.assign(s.entries.size() * (3 * area + 1), 0.0f);
    float* bits = t.bits.data();

    // The transforms run on copies of each entry's arrays, so that they see
    // their data in cache as in the filter; the time of the copies alone is
    // taken off.
    std::vector<int32_t> cc(w), rc0(w);
    auto load_forward = [&](const Entry& e) {
        std::copy(e.ng.begin(), e.ng.end(), ng.begin());
        std::copy(e.pg.begin(), e.pg.end(), pg.begin());
        std::copy(e.cc.begin(), e.cc.end(), cc.begin());
        std::fill(nc.begin(), nc.end(), 0.0f);
        std::fill(pc.begin(), pc.end(), 0.0f);
        std::fill(rc.begin(), rc.end(), 0);
    };
    auto start = Clock::now();
    for (const Entry& e : s.entries) {
        load_forward(e);
        bits = std::copy(nc.begin(), nc.end(), bits);
    }
    const double forward_copies = seconds_since(start);
    bits = t.bits.data();
    start = Clock::now();
    for (const Entry& e : s.entries) {
        load_forward(e);
        if (reference) {
            sw::forward_transform(box, ng.data(), pg.data(), nc.data(), pc.data(), cc.data(),
                                  rc.data(), e.mcc, s.table.data());
        } else {
            sw::forward_transform_fast(box, ng.data(), pg.data(), nc.data(), pc.data(), cc.data(),
                                       rc.data(), e.mcc, s.table.data());
        }
        bits = std::copy(nc.begin(), nc.end(), bits);
    }
    t.forward = seconds_since(start) - forward_copies;

    start = Clock::now();
    for (const Entry& e : s.entries) {
        if (!e.key_change) continue;
        const float dc = sw::noise_levels_fast(box, ctx, e.nc.data(), ng.data(), e.cc.data(),
                                               e.rc.data(), cursor.data(), e.mcc, s.table.data(),
                                               e.mask.data(), e.by_columns, e.shape_size, levels.data());
        bits = std::copy(levels.begin(), levels.end(), bits);
        *bits++ = dc;
    }
    t.levels = seconds_since(start);

    auto load_inverse = [&](const Entry& e) {
        std::copy(e.nc.begin(), e.nc.end(), nc.begin());
        std::copy(e.cc.begin(), e.cc.end(), cc.begin());
        std::copy(e.rc.begin(), e.rc.end(), rc0.begin());
        std::fill(out.begin(), out.end(), 0.0f);
    };
    float* const inverse_bits = bits;
    start = Clock::now();
    for (const Entry& e : s.entries) {
        load_inverse(e);
        bits = std::copy(out.begin(), out.end(), bits);
    }
    const double inverse_copies = seconds_since(start);
    bits = inverse_bits;
    start = Clock::now();
    for (const Entry& e : s.entries) {
        load_inverse(e);
        if (reference) {
            sw::inverse_transform(box, nc.data(), out.data(), cc.data(), rc0.data(), cursor.data(),
                                  e.mcc, s.table.data());
        } else {
            sw::inverse_transform_fast(box, nc.data(), out.data(), cc.data(), rc0.data(),
                                       cursor.data(), e.mcc, s.table.data());
        }
        bits = std::copy(out.begin(), out.end(), bits);
    }
    t.inverse = seconds_since(start) - inverse_copies;
    return t;
}

Timing run_level_any(const Sample& s, Level level) {
    switch (s.h) {
        case 7: return run_level<7>(s, level);
        case 9: return run_level<9>(s, level);
        default: return run_level<0>(s, level);
    }
}

bool same_bits(const std::vector<float>& a, const std::vector<float>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), sizeof(float) * a.size()) == 0;
}

std::vector<Level> levels_to_run() {
    std::vector<Level> out;
    for (int i = 0; i < sw::simd::kLevelCount; ++i) {
        if (sw::simd::supported(static_cast<Level>(i))) out.push_back(static_cast<Level>(i));
    }
    return out;
}

int bench_shapes(const swtest::SharedWorkload& wl, std::vector<Level> levels, uint32_t stride,
                 uint32_t reps) {
    const Sample s = sample_shapes(wl, stride);
    size_t shapes = 0;
    for (const Entry& e : s.entries) shapes += e.key_change ? 1 : 0;
    std::printf("H = %u: %zu shapes (every %u-th key), %llu coefficient spectra, %zu entries\n", s.h,
                shapes, stride, static_cast<unsigned long long>(s.spectra), s.entries.size());
    std::vector<Timing> best(levels.size());
    bool identical = true;
    for (uint32_t r = 0; r < reps; ++r) {
        for (size_t i = 0; i < levels.size(); ++i) {
            Timing t = run_level_any(s, levels[i]);
            if (r == 0 || t.levels < best[i].levels) best[i].levels = t.levels;
            if (r == 0 || t.forward < best[i].forward) best[i].forward = t.forward;
            if (r == 0 || t.inverse < best[i].inverse) best[i].inverse = t.inverse;
            if (r == 0) best[i].bits = std::move(t.bits);
            if (r == 0 && i > 0) identical = identical && same_bits(best[0].bits, best[i].bits);
        }
    }
    const double entries = static_cast<double>(s.entries.size());
    std::printf("  %-10s %14s %8s %14s %8s %14s %8s\n", "level", "us/spectrum", "speedup",
                "forward us", "speedup", "inverse us", "speedup");
    for (size_t i = 0; i < levels.size(); ++i) {
        std::printf("  %-10s %14.3f %7.1fx %14.3f %7.1fx %14.3f %7.1fx\n", sw::simd::name(levels[i]),
                    1e6 * best[i].levels / static_cast<double>(s.spectra), best[0].levels / best[i].levels,
                    1e6 * best[i].forward / entries, best[0].forward / best[i].forward,
                    1e6 * best[i].inverse / entries, best[0].inverse / best[i].inverse);
    }
    std::printf("  results bit-identical across levels: %s\n", identical ? "yes" : "NO");
    return identical ? 0 : 1;
}

int bench_pass(const swtest::SharedWorkload& wl, const std::vector<Level>& levels, uint32_t reps) {
    std::printf("H = %u: whole module calls, one thread, best of %u\n", wl.h(), reps);
    std::vector<double> best(levels.size(), 0.0);
    std::vector<bool> match(levels.size(), true);
    for (uint32_t r = 0; r < reps; ++r) {
        for (size_t i = 0; i < levels.size(); ++i) {
            sw::simd::set_level(levels[i]);
            swtest::MexCall call = swtest::make_call(wl.plan());
            const auto start = Clock::now();
            call.run();
            const double t = seconds_since(start);
            if (r == 0 || t < best[i]) best[i] = t;
            match[i] = match[i] && swtest::output_sha256(call.output()) == wl.expected_sha256();
        }
    }
    bool all = true;
    for (size_t i = 0; i < levels.size(); ++i) {
        std::printf("  %-10s %9.3f s  %6.2fx  SHA-256 %s\n", sw::simd::name(levels[i]), best[i],
                    best[0] / best[i], match[i] ? "matches" : "DIFFERS");
        all = all && match[i];
    }
    return all ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    std::string folder;
    uint32_t stride = 10;
    uint32_t reps = 3;
    bool pass = false;
    std::vector<Level> pass_levels;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--stride" && i + 1 < argc) {
            stride = static_cast<uint32_t>(std::max(1, std::atoi(argv[++i])));
        } else if (a == "--reps" && i + 1 < argc) {
            reps = static_cast<uint32_t>(std::max(1, std::atoi(argv[++i])));
        } else if (a == "--pass") {
            pass = true;
        } else if (a == "--levels" && i + 1 < argc) {
            std::string list = argv[++i];
            size_t at = 0;
            while (at <= list.size()) {
                const size_t comma = std::min(list.find(',', at), list.size());
                Level level;
                if (!sw::simd::parse(list.substr(at, comma - at).c_str(), &level) ||
                    !sw::simd::supported(level)) {
                    std::fprintf(stderr, "%s: unknown or unsupported level in '%s'\n", argv[0], list.c_str());
                    return 2;
                }
                pass_levels.push_back(level);
                at = comma + 1;
            }
        } else if (a[0] != '-' && folder.empty()) {
            folder = a;
        } else {
            std::printf(
                "Usage: %s WORKLOAD_FOLDER [--stride S] [--reps R] [--pass] [--levels L1,L2,...]\n"
                "Times the noise levels (per coefficient spectrum) and the shape transforms of\n"
                "every S-th shape of an adaptive workload (for example\n"
                "tests/data/workloads/adaptive_h9) at every SIMD level (or those of --levels;\n"
                "speed-ups are against the first) against the reference.\n"
                "--pass times whole module calls instead (default levels: reference and the\n"
                "best level) and checks their output against the workload's SHA-256.\n",
                argv[0]);
            return a == "--help" ? 0 : 2;
        }
    }
    if (folder.empty()) {
        std::fprintf(stderr, "%s: no workload folder given (see --help)\n", argv[0]);
        return 2;
    }
    try {
        const swtest::SharedWorkload wl(folder);
        if (pass) {
            // One thread: the times are the calling thread's CPU time.
            setenv("SHAPEWIENER_THREADS", "1", 1);
            if (pass_levels.empty()) pass_levels = {Level::reference, sw::simd::best()};
            return bench_pass(wl, pass_levels, reps);
        }
        return bench_shapes(wl, pass_levels.empty() ? levels_to_run() : pass_levels, stride, reps);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s: %s\n", argv[0], e.what());
        return 1;
    }
}
