// The threaded driver and the serial loop with the optimised kernels give
// the reference path's bits; interruption through the progress callback.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "driver/parallel.h"
#include "shapewiener/plan.h"
#include "support/test_args.h"

namespace {

using swtest::CallPlan;

using swtest::PlainCall;

struct Result {
    std::vector<double> output, noisy, pilot;
};

Result run(const CallPlan& plan, const sw::RunOptions& options) {
    PlainCall pc(plan);
    EXPECT_FALSE(sw::check(pc.call)) << sw::check(pc.call).message;
    Result r;
    r.output.assign(uint64_t{plan.m} * plan.k, -1.0);
    const sw::Error e = sw::run(pc.call, r.output.data(), options);
    EXPECT_FALSE(e) << e.message;
    r.noisy = pc.noisy;
    r.pilot = pc.pilot;
    return r;
}

sw::RunOptions with_threads(unsigned threads, bool reference = false) {
    sw::RunOptions o;
    o.threads = threads;
    o.reference = reference;
    return o;
}

// Keys in runs drawn from {0, 5, 7}: key 0 first, patterns 5, 7, 5, and
// runs over pixels of different shapes (which reuse the first one's shape).
void key_runs(CallPlan* plan, uint32_t seed) {
    std::mt19937 rng(seed);
    const int32_t choices[3] = {0, 5, 7};
    int32_t key = 0;
    for (size_t i = 0; i < plan->keys.size(); ++i) {
        if (i > 0 && rng() % 3 == 0) key = choices[rng() % 3];
        plan->keys[i] = key;
    }
}

struct Case {
    const char* what;
    uint32_t h, n, m, k;
    unsigned flags;
    bool key_runs;
    double threshold;
};

TEST(Threads, EveryThreadCountGivesTheReferenceBits) {
    const Case cases[] = {
        // Chunks end at the entry, key-change and value limits (256 entries,
        // 99 key changes at H = 11, or values of about 240 boxes clipped to
        // a 20 x 20 image).
        {"H 11, a key per entry", 11, 32, 12, 12, 0, false, 1e9},
        {"H 11, key runs", 11, 32, 20, 20, 0, true, 1e9},
        {"large list", 4, 32, 36, 30, 0, false, 1e9},
        {"threshold 0", 4, 32, 30, 30, 0, false, 0},
        {"threshold 1, repeated pixels", 5, 32, 24, 26, swtest::kRepeatPixels, false, 1},
        {"threshold 3, key runs", 4, 32, 30, 24, swtest::kSquareMasks | swtest::kRepeatPixels, true, 3},
        {"key runs, table path", 4, 16, 20, 18, 0, true, 1e9},
        {"general H, table path", 3, 10, 17, 15, swtest::kRepeatPixels, false, 1},
        {"general H, key runs", 2, 32, 25, 30, 0, true, 0},
        {"tiny image", 6, 32, 3, 2, swtest::kRepeatPixels, false, 1e9},
    };
    uint32_t seed = 40;
    for (const Case& c : cases) {
        CallPlan plan = swtest::random_plan(++seed, swtest::random_options(c.h, c.n, c.m, c.k, c.flags, c.threshold));
        if (c.key_runs) key_runs(&plan, seed);
        const Result reference = run(plan, with_threads(1, true));
        for (unsigned threads : {1u, 2u, 3u, 8u}) {
            const Result r = run(plan, with_threads(threads));
            EXPECT_TRUE(swtest::same_bits(r.output, reference.output)) << c.what << ", " << threads;
            EXPECT_TRUE(swtest::same_bits(r.noisy, reference.noisy)) << c.what;
            EXPECT_TRUE(swtest::same_bits(r.pilot, reference.pilot)) << c.what;
        }

        // One plan executed pass after pass gives each pass's own call's
        // bits: stored levels are reused against a new pilot and factor, and
        // recomputed for a new noisy image (constant on its first columns, and
        // too large there for the dither to change it: every coefficient of a
        // shape inside them is exactly 0, so its levels are too). Levels kept
        // for any image give the same: a key's levels depend on the noisy
        // image only through which coefficients are exactly 0, and a level
        // the first image left out (its coefficient was 0) is computed when
        // a later image needs it.
        CallPlan second = plan, flat = plan;
        second.pilot = reference.output;
        second.wiener_variance_factor = 2.5;
        std::fill(flat.noisy.begin(), flat.noisy.begin() + flat.noisy.size() / 2, 1024.0);
        flat.pilot = reference.output;
        PlainCall planned(plan);
        for (sw::LevelScope scope : {sw::LevelScope::kThisImage, sw::LevelScope::kAnyImage}) {
            sw::Plan engine;
            ASSERT_FALSE(sw::make_plan(planned.call, &engine, true, sw::LevelRule::kComputed, scope))
                << c.what;
            unsigned pass = 0;
            for (const CallPlan* p : {&flat, &plan, &second, &flat, &second}) {
                const unsigned threads = ++pass % 2 == 0 ? 3u : 1u;
                std::vector<double> noisy = p->noisy, pilot = p->pilot, out(noisy.size(), -1.0);
                EXPECT_FALSE(sw::execute(engine, noisy.data(), pilot.data(),
                                         p->wiener_variance_factor, {}, out.data(),
                                         with_threads(threads)));
                EXPECT_TRUE(swtest::same_bits(out, run(*p, with_threads(1, true)).output))
                    << c.what << ", pass " << pass << ", scope " << static_cast<int>(scope);
            }
        }
    }
}

// The flat-levels rule applies to a flat spectrum with orthonormal
// matrices only, and there gives the computed levels up to rounding: the
// output stays within a few float roundings of the call's own.
TEST(Threads, FlatLevelsOnlyForAFlatSpectrumAndOrthonormalMatrices) {
    const struct {
        const char* what;
        bool random_matrices, flat_psd;
        double matrix_scale;  // of the largest matrix
        bool flat;
    } rows[] = {
        {"white, DCT", false, true, 1.0, true},
        {"white, random orthogonal", true, true, 1.0, true},
        {"white, one matrix scaled", false, true, 1.5, false},
        {"coloured, DCT", false, false, 1.0, false},
    };
    uint32_t seed = 70;
    for (const auto& row : rows) {
        CallPlan plan = swtest::random_plan(
            ++seed, swtest::random_options(5, 32, 16, 14, row.random_matrices ? swtest::kRandomMatrices : 0));
        if (row.flat_psd) std::fill(plan.psd.begin(), plan.psd.end(), 0.37);
        for (double& v : plan.transforms.back()) v *= row.matrix_scale;
        const std::vector<double> expected = run(plan, with_threads(1, true)).output;
        PlainCall planned(plan);
        sw::Plan engine;
        ASSERT_FALSE(sw::make_plan(planned.call, &engine, true, sw::LevelRule::kFlatShortcut));
        EXPECT_EQ(engine.flat_levels(), row.flat) << row.what;
        for (unsigned threads : {1u, 3u}) {
            std::vector<double> noisy = plan.noisy, pilot = plan.pilot, out(noisy.size());
            ASSERT_FALSE(sw::execute(engine, noisy.data(), pilot.data(), plan.wiener_variance_factor,
                                     {}, out.data(), with_threads(threads)));
            if (!row.flat) {
                EXPECT_TRUE(swtest::same_bits(out, expected)) << row.what;
                continue;
            }
            double largest = 0.0, error = 0.0;
            for (size_t p = 0; p < out.size(); ++p) {
                largest = std::max(largest, std::abs(expected[p]));
                error = std::max(error, std::abs(out[p] - expected[p]));
            }
            EXPECT_LE(error, 1e-5 * largest) << row.what << ", " << threads << " threads";
        }
    }
}

TEST(Threads, ProgressRunsOnTheCallingThreadAndStopsTheCall) {
    // 9000 entries: progress is offered a turn.
    CallPlan plan = swtest::random_plan(7, swtest::random_options(4, 32, 90, 100, swtest::kSquareMasks));
    for (int32_t& key : plan.keys) key = 1;  // one noise-level computation
    for (unsigned threads : {1u, 3u}) {
        std::vector<double> seen;
        bool other_thread = false;
        const std::thread::id caller = std::this_thread::get_id();
        sw::RunOptions options = with_threads(threads);
        options.progress = [&](double f) {
            other_thread |= std::this_thread::get_id() != caller;
            seen.push_back(f);
            return seen.size() < 2;
        };
        PlainCall pc(plan);
        std::vector<double> out(uint64_t{plan.m} * plan.k);
        EXPECT_EQ(sw::run(pc.call, out.data(), options).code, sw::ErrorCode::kInterrupted);
        EXPECT_FALSE(other_thread);
        ASSERT_EQ(seen.size(), 2u) << threads;
        EXPECT_TRUE(seen[0] >= 0.0 && seen[0] <= seen[1] && seen[1] < 1.0) << threads;
    }
    // A call after an interrupted one runs as usual.
    EXPECT_TRUE(swtest::same_bits(run(plan, with_threads(3)).output,
                                  run(plan, with_threads(1, true)).output));
}

TEST(Threads, CountFromOptionsEnvironmentOrHardware) {
    const unsigned hardware = std::max(1u, std::thread::hardware_concurrency());
    const struct {
        const char* env;
        unsigned option, expected;
    } rows[] = {{nullptr, 5, 5}, {"3", 5, 5}, {"3", 0, 3}, {nullptr, 0, hardware},
                {"0", 0, hardware}, {"-2", 0, hardware}, {"4x", 0, hardware},
                {"100000", 0, hardware}};
    for (const auto& row : rows) {
        if (row.env != nullptr) {
            setenv("SHAPEWIENER_THREADS", row.env, 1);
        } else {
            unsetenv("SHAPEWIENER_THREADS");
        }
        EXPECT_EQ(sw::requested_threads(with_threads(row.option)), row.expected)
            << (row.env ? row.env : "unset") << " " << row.option;
    }
    unsetenv("SHAPEWIENER_THREADS");
    // Scratch sets beyond 4 GiB are not taken: a 40000 x 40000 image leaves
    // room for few of them.
    EXPECT_EQ(sw::affordable_threads({40000, 40000, 21, 1024, 5}, 64), 1u);
    EXPECT_EQ(sw::affordable_threads({512, 512, 17, 32, 6}, 8), 8u);
}

}  // namespace
