// The size-specialised variants compute bit for bit what the general path
// computes for the same maximum scale.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "support/test_args.h"

namespace {

using swtest::same_bits;

class VariantMatchesGeneralPath : public ::testing::TestWithParam<uint32_t> {};

TEST_P(VariantMatchesGeneralPath, OnRandomCalls) {
    const uint32_t h = GetParam();
    const uint32_t w = 2 * h - 1;
    int calls = 0;
    for (uint32_t seed = 0; seed < 4; ++seed) {
        swtest::RandomOptions o;
        o.h = h;
        // N = 32 and an even N other than 32 that still holds the box.
        o.n = seed % 2 == 0 ? 32 : (w + 1 == 32 ? 34 : w + 1 + (w + 1) % 2);
        // Images larger and smaller than the box.
        o.m = seed < 2 ? w + 3 : h - 1 + seed;
        o.k = seed < 2 ? w - 2 + seed : h + 1;
        o.random_masks = seed != 1;
        o.random_matrices = seed == 3;
        o.repeat_pixels = seed >= 2;
        o.coverage_threshold = seed == 2 ? 1 : 1e9;
        const swtest::CallPlan plan = swtest::random_plan(1000 * h + seed, o);

        swtest::MexCall variant = swtest::make_call(plan);
        variant.run();  // dispatches to the variant for h
        swtest::MexCall general = swtest::make_call(plan);
        general.run_general(h);

        EXPECT_TRUE(same_bits(variant.output(), general.output())) << "h " << h << " seed " << seed;
        EXPECT_TRUE(same_bits(variant.noisy(), general.noisy()));
        EXPECT_TRUE(same_bits(variant.pilot(), general.pilot()));
        ++calls;
    }
    EXPECT_EQ(calls, 4);
}

INSTANTIATE_TEST_SUITE_P(EveryVariant, VariantMatchesGeneralPath,
                         ::testing::Values(4u, 5u, 6u, 7u, 8u, 9u, 10u, 11u));

TEST(GeneralPath, MatchesTheGatewayForSizesWithoutVariant) {
    // For H outside 4..11 the gateway runs the general path itself; a call
    // through the gateway (validated) equals a direct one.
    for (uint32_t h : {1u, 2u, 3u, 12u}) {
        swtest::RandomOptions o;
        o.h = h;
        o.n = h == 12 ? 24 : 32;
        o.m = 5;
        o.k = 4;
        const swtest::CallPlan plan = swtest::random_plan(77 + h, o);
        swtest::MexCall a = swtest::make_call(plan);
        a.run();
        swtest::MexCall b = swtest::make_call(plan);
        b.run_general(h);
        EXPECT_TRUE(same_bits(a.output(), b.output())) << h;
    }
}

}  // namespace
