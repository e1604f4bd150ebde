// What whole calls mean: coverage skipping, shape-key reuse, uncovered
// pixels, the unit Wiener factor and the zero noise level. (That the passes
// denoise: the denoiser's tests, through these calls.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "support/test_args.h"

namespace {

using swtest::CallPlan;
using swtest::same_bits;

std::vector<double> run(const CallPlan& plan) {
    swtest::MexCall call = swtest::make_call(plan);
    call.run();
    return call.output();
}

std::vector<double> with_noise(std::vector<double> img, double sigma, uint32_t seed) {
    std::mt19937 rng(seed);
    for (auto& v : img) v += sigma * std::sqrt(12.0) * (swtest::unit(rng) - 0.5);
    return img;
}

// A 1 x 4 image whose every shape is its pixel and the right neighbour.
CallPlan pairs_plan(std::vector<int32_t> pixels, double threshold) {
    CallPlan s = swtest::square_plan(1, 4, 2, 4);
    for (auto& mask : s.sector_masks) mask = {0, 0, 0, 0, 1, 0, 0, 1, 0};  // box (1,1) and (1,2)
    s.noisy = {0.2, 0.7, 0.4, 0.9};
    s.pilot = {0.25, 0.6, 0.45, 0.8};
    s.pixels = std::move(pixels);
    s.keys = {1, 2, 3, 4};
    s.coverage_threshold = threshold;
    return s;
}

TEST(Coverage, ThresholdDecidesWhichEntriesRun) {
    // Threshold 0: pixels 2 and 4 are covered by the time their entries come,
    // as if their entries named an already covered pixel.
    const auto skipping = run(pairs_plan({1, 2, 3, 4}, 0));
    EXPECT_TRUE(same_bits(skipping, run(pairs_plan({1, 1, 3, 1}, 0))));
    const auto all = run(pairs_plan({1, 2, 3, 4}, 1e9));
    EXPECT_FALSE(same_bits(skipping, all));
    // Threshold 1: every pixel is covered at most once before its entry; NaN
    // and anything from 65535 up never skip (the count has 16 bits).
    for (double never : {1.0, std::nan(""), 65535.0})
        EXPECT_TRUE(same_bits(all, run(pairs_plan({1, 2, 3, 4}, never))));
}

// A 5 x 5 image, H = 2, scales {1, 2}: scale 1 is the pixel alone, scale 2
// the 3 x 3 square. The centre pixel 13 has scale 2, and so do `second` and
// 25 when large_followers; the list starts 13, `second`, 25 with the given keys.
CallPlan reuse_plan(int32_t second, const std::vector<int32_t>& keys, bool large_followers,
                    double threshold) {
    CallPlan s = swtest::square_plan(5, 5, 2, 4);
    s.scale_set = {1, 2};
    for (uint32_t d = 0; d < 8; ++d) {
        s.direction_scale_map[12 + 25 * d] = 2;
        if (large_followers)
            s.direction_scale_map[(second - 1) + 25 * d] = s.direction_scale_map[24 + 25 * d] = 2;
    }
    s.psd.assign(16, 0.02);
    s.noisy = with_noise(s.pilot, 0.1, 3);
    s.pixels = {13, second, 25};
    s.keys = keys;
    for (int32_t p = 1; p <= 25; ++p) {
        if (p != 13 && p != second && p != 25) {
            s.pixels.push_back(p);
            s.keys.push_back(100 + p);
        }
    }
    s.coverage_threshold = threshold;
    return s;
}

TEST(ShapeKeys, EqualKeysReuseShapeAndLevelsWhateverThePixelHolds) {
    const auto reused = run(reuse_plan(1, {5, 5, 5}, false, 1e9));
    EXPECT_TRUE(same_bits(reused, run(reuse_plan(1, {5, 5, 5}, true, 1e9))));
    EXPECT_FALSE(same_bits(reused, run(reuse_plan(1, {5, 7, 5}, false, 1e9))));
}

TEST(ShapeKeys, SkippedEntriesAreInvisibleToKeyReuse) {
    // Pixel 7 lies in the centre's shape: with threshold 0 its entry is
    // skipped, and keys 5, 7, 5 behave as 5, 5, 5.
    const auto skipped = run(reuse_plan(7, {5, 7, 5}, false, 0));
    EXPECT_TRUE(same_bits(skipped, run(reuse_plan(7, {5, 5, 5}, false, 0))));
    EXPECT_FALSE(same_bits(skipped, run(reuse_plan(7, {5, 8, 9}, false, 0))));
}

TEST(ShapeKeys, KeyZeroOnTheFirstEntryIsAKeyChange) {
    CallPlan plan = swtest::square_plan(9, 8, 3, 32);
    plan.noisy = with_noise(plan.noisy, 0.05, 1);
    const auto reference = run(plan);
    std::replace(plan.keys.begin(), plan.keys.end(), plan.keys[0], 0);
    EXPECT_TRUE(same_bits(reference, run(plan)));
}

TEST(Filter, PixelsThatNoShapeCoversAreNan) {
    CallPlan plan = swtest::square_plan(4, 3, 1, 2);  // every shape is its own pixel
    for (uint32_t i = 0; i < 12; ++i) {
        plan.pixels[i] = static_cast<int32_t>(i % 6 + 1);
        plan.keys[i] = static_cast<int32_t>(i + 1);
    }
    const auto out = run(plan);
    for (uint32_t q = 0; q < 12; ++q) EXPECT_EQ(std::isnan(out[q]), q >= 6) << q;
}

TEST(Filter, UnitWienerFactorsReproduceTheClippedNoisyImage) {
    // WienerVarianceFactor 0 with the noisy image as pilot: every factor is 1,
    // so the output is the noisy image clipped to [0, 1], up to float rounding.
    for (uint32_t n : {32u, 12u}) {
        CallPlan plan = swtest::square_plan(16, 13, 3, n);
        plan.noisy = plan.pilot = with_noise(plan.noisy, 0.2, 5);
        plan.wiener_variance_factor = 0.0;
        const auto out = run(plan);
        for (size_t q = 0; q < out.size(); ++q)
            ASSERT_NEAR(out[q], std::clamp(plan.noisy[q], 0.0, 1.0), 1e-6) << q;
    }
}

TEST(Filter, ZeroNoiseLevelFactorGivesZeroVarianceAndNan) {
    // Every estimate has variance 0 and infinite weight: infinity over infinity.
    CallPlan plan = swtest::square_plan(6, 6, 2, 32);
    plan.noise_level_factor = 0.0;
    for (double v : run(plan)) EXPECT_TRUE(std::isnan(v));
}

}  // namespace
