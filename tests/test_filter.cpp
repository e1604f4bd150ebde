// Whole calls: the processing list, coverage skipping, key reuse, and the
// filter's end-to-end behaviour.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "support/test_args.h"

namespace {

using swtest::same_bits;

using swtest::CallPlan;
using swtest::MexCall;

std::vector<double> run(const CallPlan& plan) {
    MexCall call = swtest::make_call(plan);
    call.run();
    return call.output();
}

double mse(const std::vector<double>& a, const std::vector<double>& b) {
    double e = 0.0;
    for (size_t i = 0; i < a.size(); ++i) e += (a[i] - b[i]) * (a[i] - b[i]);
    return e / a.size();
}

std::vector<double> with_noise(std::vector<double> img, double sigma, uint32_t seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<double> g(0.0, sigma);
    for (auto& v : img) v += g(rng);
    return img;
}

// A 1 x 4 image whose every shape is its pixel and the right neighbour.
CallPlan pairs_plan(std::vector<int32_t> pixels, double threshold) {
    CallPlan s;
    s.m = 1;
    s.k = 4;
    s.h = 2;
    s.n = 4;
    s.scale_set = {1};
    s.direction_scale_map.assign(4 * 8, 1);
    s.transforms = swtest::dct_bank(3);
    s.sector_masks.assign(8 * 4, std::vector<uint8_t>(9, 0));
    for (auto& mask : s.sector_masks) mask[4] = mask[7] = 1;  // box (1,1) and (1,2)
    s.psd.assign(16, 0.01);
    s.noisy = {0.2, 0.7, 0.4, 0.9};
    s.pilot = {0.25, 0.6, 0.45, 0.8};
    s.pixels = std::move(pixels);
    s.keys = {1, 2, 3, 4};
    s.coverage_threshold = threshold;
    return s;
}

TEST(Coverage, ThresholdDecidesWhichEntriesRun) {
    const double never = 1e9;
    // Threshold 0: pixels 2 and 4 are covered by the time their entries come.
    const auto skipping = run(pairs_plan({1, 2, 3, 4}, 0));
    // The same entries run when the skipped ones are replaced by entries of
    // an already covered pixel.
    EXPECT_TRUE(same_bits(skipping, run(pairs_plan({1, 1, 3, 1}, 0))));
    const auto all = run(pairs_plan({1, 2, 3, 4}, never));
    EXPECT_FALSE(same_bits(skipping, all));
    // Threshold 1: every pixel is covered at most once before its entry.
    EXPECT_TRUE(same_bits(all, run(pairs_plan({1, 2, 3, 4}, 1))));
    // NaN and anything from 65535 up never skip: the count is 16 bits.
    EXPECT_TRUE(same_bits(all, run(pairs_plan({1, 2, 3, 4}, std::nan("")))));
    EXPECT_TRUE(same_bits(all, run(pairs_plan({1, 2, 3, 4}, 65535))));
}

// A 5 x 5 image, H = 2, scales {1, 2}: scale 1 is the pixel alone, scale 2
// the 3 x 3 square. The centre pixel (1-based 13) has scale 2, and so do
// `second` and 25 when large_followers; the list starts with 13, `second`
// and 25, with the given keys.
CallPlan reuse_plan(int32_t second, const std::vector<int32_t>& first_keys, bool large_followers,
                    double threshold) {
    CallPlan s;
    s.m = 5;
    s.k = 5;
    s.h = 2;
    s.n = 4;
    s.scale_set = {1, 2};
    s.direction_scale_map.assign(25 * 8, 1);
    for (uint32_t d = 0; d < 8; ++d) {
        s.direction_scale_map[12 + 25 * d] = 2;
        if (large_followers) {
            s.direction_scale_map[(second - 1) + 25 * d] = 2;
            s.direction_scale_map[24 + 25 * d] = 2;
        }
    }
    s.transforms = swtest::dct_bank(3);
    s.sector_masks = swtest::square_masks(2);
    s.psd.assign(16, 0.02);
    s.noisy = with_noise(swtest::smooth_image(5, 5), 0.1, 3);
    s.pilot = swtest::smooth_image(5, 5);
    s.pixels = {13, second, 25};
    s.keys = first_keys;
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
    const double never = 1e9;
    // Keys 5, 5, 5: pixels 1 and 25 take the centre's scales and levels, so
    // their own scale indices do not matter.
    const auto reused = run(reuse_plan(1, {5, 5, 5}, false, never));
    EXPECT_TRUE(same_bits(reused, run(reuse_plan(1, {5, 5, 5}, true, never))));
    // Keys 5, 7, 5: three key changes, every entry uses its own scales.
    const auto changed = run(reuse_plan(1, {5, 7, 5}, false, never));
    EXPECT_FALSE(same_bits(reused, changed));
}

TEST(ShapeKeys, SkippedEntriesAreInvisibleToKeyReuse) {
    // Pixel 7 lies in the centre's 3 x 3 shape: with threshold 0 its entry is
    // skipped, and keys 5, 7, 5 then behave as 5, 5, 5.
    const auto skipped = run(reuse_plan(7, {5, 7, 5}, false, 0));
    EXPECT_TRUE(same_bits(skipped, run(reuse_plan(7, {5, 5, 5}, false, 0))));
    EXPECT_FALSE(same_bits(skipped, run(reuse_plan(7, {5, 8, 9}, false, 0))));
}

TEST(ShapeKeys, KeyZeroOnTheFirstEntryIsAKeyChange) {
    CallPlan plan = swtest::square_plan(9, 8, 3, 32);
    plan.noisy = with_noise(plan.noisy, 0.05, 1);
    const auto reference = run(plan);
    const int32_t first = plan.keys[0];
    for (auto& key : plan.keys) {
        if (key == first) key = 0;
    }
    EXPECT_TRUE(same_bits(reference, run(plan)));
}

TEST(Filter, PixelsThatNoShapeCoversAreNan) {
    // Every shape is its own pixel; the list names only the first 6 pixels.
    CallPlan plan = swtest::square_plan(4, 3, 2, 4);
    plan.direction_scale_map.assign(12 * 8, 1);
    plan.scale_set = {1};
    for (uint32_t i = 0; i < 12; ++i) {
        plan.pixels[i] = static_cast<int32_t>(i % 6 + 1);
        plan.keys[i] = static_cast<int32_t>(i + 1);
    }
    const auto out = run(plan);
    for (uint32_t q = 0; q < 12; ++q) {
        EXPECT_EQ(std::isnan(out[q]), q >= 6) << q;
    }
}

TEST(Filter, UnitWienerFactorsReproduceTheClippedNoisyImage) {
    // WienerVarianceFactor 0 with the noisy image as pilot: every factor is 1,
    // so each shape returns its own values and the output is the noisy image
    // clipped to [0, 1], up to float rounding.
    for (uint32_t n : {32u, 12u}) {
        CallPlan plan = swtest::square_plan(16, 13, 3, n);
        plan.noisy = with_noise(plan.noisy, 0.2, 5);  // some values leave [0, 1]
        plan.pilot = plan.noisy;
        plan.wiener_variance_factor = 0.0;
        const auto out = run(plan);
        for (size_t q = 0; q < out.size(); ++q) {
            const double clipped = std::min(1.0, std::max(0.0, plan.noisy[q]));
            ASSERT_NEAR(out[q], clipped, 1e-6) << q;
        }
    }
}

TEST(Filter, ZeroNoiseLevelFactorGivesZeroVarianceAndNan) {
    // Every level is 0, so every estimate has variance 0 and infinite
    // weight: the weighted means are infinity over infinity.
    CallPlan plan = swtest::square_plan(6, 6, 2, 32);
    plan.noise_level_factor = 0.0;
    for (double v : run(plan)) EXPECT_TRUE(std::isnan(v));
}

TEST(Filter, TwoPassesRemoveMostOfTheNoise) {
    const uint32_t m = 48;
    const uint32_t k = 40;
    CallPlan plan = swtest::square_plan(m, k, 4, 32);
    const std::vector<double> clean = plan.noisy;
    const double sigma = 0.1;
    const std::vector<double> noisy = with_noise(clean, sigma, 11);
    plan.psd.assign(32 * 32, sigma * sigma);
    plan.noisy = noisy;
    plan.pilot = noisy;
    plan.wiener_variance_factor = 9.0;
    const auto first = run(plan);
    plan.noisy = noisy;
    plan.pilot = first;
    plan.wiener_variance_factor = 1.5;
    const auto second = run(plan);
    const double before = mse(noisy, clean);
    EXPECT_LT(mse(first, clean), before / 4);
    EXPECT_LT(mse(second, clean), mse(first, clean));
    EXPECT_LT(mse(second, clean), before / 8);
}

TEST(Filter, RepeatedCallsAreDeterministic) {
    swtest::RandomOptions options;
    options.repeat_pixels = true;
    options.coverage_threshold = 2;
    const CallPlan plan = swtest::random_plan(42, options);
    const auto a = run(plan);
    const auto b = run(plan);
    EXPECT_TRUE(same_bits(a, b));
}

}  // namespace
