// The gateway: scalar conversion, dispatch, empty calls, the in-place dither,
// the workspace and the twiddle table.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "driver/workspace.h"
#include "shapewiener/filter.h"
#include "mex/gateway.h"
#include "support/test_args.h"

namespace {

using swtest::CallPlan;
using swtest::MexCall;

TEST(RoundToUnsigned, RoundsHalvesUpAndSaturates) {
    EXPECT_EQ(sw::round_to_unsigned(-7.2), 0u);
    EXPECT_EQ(sw::round_to_unsigned(-0.4), 0u);
    EXPECT_EQ(sw::round_to_unsigned(-0.5), 0u);
    EXPECT_EQ(sw::round_to_unsigned(-0.0), 0u);
    EXPECT_EQ(sw::round_to_unsigned(2.5), 3u);
    EXPECT_EQ(sw::round_to_unsigned(3.49), 3u);
    EXPECT_EQ(sw::round_to_unsigned(3.5), 4u);
    EXPECT_EQ(sw::round_to_unsigned(1e10), 4294967295u);
    EXPECT_EQ(sw::round_to_unsigned(4294967294.4), 4294967294u);
    EXPECT_EQ(sw::round_to_unsigned(std::nan("")), 2147483648u);
    EXPECT_EQ(sw::round_to_unsigned(std::numeric_limits<double>::infinity()), 4294967295u);
    EXPECT_EQ(sw::round_to_unsigned(-std::numeric_limits<double>::infinity()), 0u);
}

TEST(Dispatch, VariantsServeFourToElevenOnly) {
    EXPECT_EQ(sw::variant_for(sw::round_to_unsigned(3.49)), nullptr);
    EXPECT_EQ(sw::variant_for(sw::round_to_unsigned(3.5)), &sw::mexFunction_h<4>);
    EXPECT_EQ(sw::variant_for(sw::round_to_unsigned(3.6)), &sw::mexFunction_h<4>);
    EXPECT_EQ(sw::variant_for(sw::round_to_unsigned(11.49)), &sw::mexFunction_h<11>);
    EXPECT_EQ(sw::variant_for(sw::round_to_unsigned(11.5)), nullptr);
    EXPECT_EQ(sw::variant_for(12), nullptr);
    EXPECT_EQ(sw::variant_for(7), &sw::mexFunction_h<7>);
}

TEST(Dispatch, FractionalMaxScaleSelectsTheRoundedSize) {
    // 3.5 rounds to 4: arguments built for H = 4 are accepted.
    CallPlan plan = swtest::square_plan(6, 5, 4, 32);
    plan.h_argument = 3.5;
    MexCall call = swtest::make_call(plan);
    EXPECT_NO_THROW(call.run());
    // 3.49 rounds to 3, and the H = 4 mask bank no longer fits.
    plan.h_argument = 3.49;
    MexCall wrong = swtest::make_call(plan);
    try {
        wrong.run();
        FAIL() << "expected an error";
    } catch (const mx_host::MexError& e) {
        EXPECT_EQ(e.identifier(), "shapewiener:SectorMaskBank:cellCount");
    }
}

TEST(Gateway, EmptyImageGivesEmptyOutputAndReleasesEverything) {
    const long before = mx_host::live_array_count();
    {
        CallPlan plan = swtest::square_plan(0, 0, 2, 32);
        MexCall call = swtest::make_call(plan);
        call.run();
        ASSERT_NE(call.out.get(), nullptr);
        EXPECT_EQ(mxGetM(call.out.get()), 0u);
        EXPECT_EQ(mxGetN(call.out.get()), 0u);
        // A 0 x 7 image too.
        plan = swtest::square_plan(0, 7, 2, 16);
        MexCall wide = swtest::make_call(plan);
        wide.run();
        EXPECT_EQ(mxGetN(wide.out.get()), 7u);
        EXPECT_EQ(mxGetNumberOfElements(wide.out.get()), 0u);
    }
    EXPECT_EQ(mx_host::live_array_count(), before);
}

TEST(Gateway, OutputIsCreatedEvenWithoutRequestedOutputs) {
    MexCall call = swtest::make_call(swtest::square_plan(5, 4, 2, 32));
    mxArray* plhs[1] = {nullptr};
    mexFunction(0, plhs, 16, call.prhs.data());
    call.out.reset(plhs[0]);
    ASSERT_NE(plhs[0], nullptr);
    EXPECT_EQ(mxGetM(plhs[0]), 5u);
    EXPECT_EQ(mxGetN(plhs[0]), 4u);
}

TEST(Gateway, IgnoredArgumentsDoNotChangeTheResult) {
    const CallPlan plan = swtest::square_plan(7, 6, 3, 32);
    MexCall a = swtest::make_call(plan);
    a.run();
    MexCall b = swtest::make_call(plan);
    b.args[4].reset(mxCreateString("anything"));
    b.args[5].reset(mxCreateCellMatrix(2, 2));
    b.args[11].reset(mxCreateNumericMatrix(3, 3, mxINT16_CLASS, mxREAL));
    for (int i = 0; i < 16; ++i) b.prhs[i] = b.args[i].get();
    b.run();
    const auto x = a.output();
    const auto y = b.output();
    ASSERT_EQ(x.size(), y.size());
    EXPECT_EQ(0, std::memcmp(x.data(), y.data(), sizeof(double) * x.size()));
}

TEST(Dither, TwoByTwoAmountsStayInTheCallersArrays) {
    CallPlan plan = swtest::square_plan(2, 2, 1, 2);
    plan.noisy = {0.0, 0.0, 0.0, 0.0};
    plan.pilot = {0.0, 0.0, 0.0, 0.0};
    MexCall call = swtest::make_call(plan);
    call.run();
    const auto noisy = call.noisy();
    const auto pilot = call.pilot();
    EXPECT_EQ(noisy[3], 0.0);
    EXPECT_EQ(noisy[2], 3e-17);
    EXPECT_EQ(noisy[1], 2.0 * 3e-17);
    EXPECT_EQ(noisy[0], 3.0 * 3e-17);
    EXPECT_EQ(pilot[3], 13.0 * 3e-17);
    EXPECT_EQ(pilot[0], 16.0 * 3e-17);
    // A second call dithers again.
    call.run();
    EXPECT_EQ(call.noisy()[0], 3.0 * 3e-17 + 3.0 * 3e-17);
}

TEST(Dither, StepWrapsEvery256Pixels) {
    CallPlan plan = swtest::square_plan(300, 1, 1, 2);
    plan.noisy.assign(300, 0.0);
    plan.pilot.assign(300, 0.0);
    MexCall call = swtest::make_call(plan);
    call.run();
    const auto noisy = call.noisy();
    // Pixel q gets ((300 - 1 - q) mod 256) * 3e-17.
    EXPECT_EQ(noisy[299 - 255], 255.0 * 3e-17);
    EXPECT_EQ(noisy[299 - 256], 0.0);
    EXPECT_EQ(noisy[0], 43.0 * 3e-17);
}

TEST(TwiddleTable, SmallSizesAndFirstRow) {
    float one[2];
    sw::twiddle_fill(one, 1);
    EXPECT_EQ(one[0], 1.0f);
    EXPECT_EQ(one[1], 0.0f);

    float two[8];
    sw::twiddle_fill(two, 2);
    EXPECT_EQ(two[0], 1.0f);
    EXPECT_EQ(two[1], 0.0f);
    EXPECT_EQ(two[2], 1.0f);
    EXPECT_EQ(two[3], 0.0f);
    EXPECT_EQ(two[4], 1.0f);  // row 1
    EXPECT_EQ(two[5], 0.0f);
    EXPECT_EQ(two[6], -1.0f);
    // The float rounding of the double sine of pi, not 0.
    EXPECT_EQ(two[7], static_cast<float>(std::sin(3.141592653589793)));
    EXPECT_NE(two[7], 0.0f);
    EXPECT_NEAR(two[7], 1.2246469e-16f, 1e-22f);

    for (uint32_t n : {3u, 8u, 20u, 64u}) {
        std::vector<float> table(2 * n * n);
        sw::twiddle_fill(table.data(), n);
        for (uint32_t k = 0; k < n; ++k) {
            EXPECT_EQ(table[2 * k], 1.0f) << n;
            EXPECT_EQ(table[2 * k + 1], 0.0f) << n;
        }
        // Element (j, k) approximates exp(+2 pi i jk/n).
        const double pi = 3.14159265358979323846;
        for (uint32_t j = 0; j < n; ++j) {
            for (uint32_t k = 0; k < n; ++k) {
                const double angle = 2.0 * pi * j * k / n;
                EXPECT_NEAR(table[2 * (j * n + k)], std::cos(angle), 1e-5);
                EXPECT_NEAR(table[2 * (j * n + k) + 1], std::sin(angle), 1e-5);
            }
        }
    }
}

TEST(Workspace, TableOnlyWhenNotThirtyTwoAndCountedInTheSize) {
    const sw::WorkspaceSizes fast{4, 5, 7, 32, 3};
    const sw::WorkspaceSizes table{4, 5, 7, 16, 3};
    sw::Workspace ws;
    ASSERT_TRUE(sw::workspace_create(fast, 2, &ws));
    EXPECT_EQ(ws.twiddle, nullptr);
    for (unsigned i = 0; i < 2; ++i) {
        const float* spatial = sw::workspace_scratch(ws, fast, i).spatial_block;
        for (int e = 0; e < 32 * 32; ++e) ASSERT_EQ(spatial[e], 0.0f);
    }
    sw::workspace_release(&ws);
    ASSERT_TRUE(sw::workspace_create(table, 1, &ws));
    ASSERT_NE(ws.twiddle, nullptr);
    EXPECT_EQ(ws.twiddle[0], 1.0f);
    sw::workspace_release(&ws);
    // The twiddle table (8 N^2 bytes) counts towards the call's memory.
    EXPECT_GE(sw::workspace_bytes(table, 1), 8u * 16 * 16 + 12u * 16 * 16);
}

}  // namespace
