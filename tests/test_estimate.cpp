// Wiener shrinkage and aggregation.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "driver/box.h"
#include "estimate/aggregate.h"
#include "estimate/wiener.h"

namespace {

struct Shrink {
    explicit Shrink(uint32_t h) : box{h}, w(2 * h - 1), y(w * w, 0.0f), e(w * w, 0.0f), sigma(w * w, 0.0f), ng(w * w, 5.0f), pg(w * w, 5.0f) {}
    sw::ShrinkResult run(float dc_level, float noisy_mean, float pilot_mean, double n, double lambda) {
        return sw::wiener_shrink(box, y.data(), e.data(), sigma.data(), dc_level, noisy_mean, pilot_mean, n,
                                 lambda, ng.data(), pg.data());
    }
    sw::RuntimeBox box;
    uint32_t w;
    std::vector<float> y, e, sigma, ng, pg;
};

TEST(Wiener, CoefficientFactorsAndVarianceGrowth) {
    Shrink s(2);
    s.y[0] = 1.0f;
    s.e[0] = 0.5f;
    s.sigma[0] = 0.25f;
    // With DcNoiseLevel 0 the mean term vanishes and the variance is A alone.
    sw::ShrinkResult r = s.run(0.0f, 0.3f, 0.4f, 1.0, 1.0);
    EXPECT_EQ(s.y[0], 0.800000011920929f);
    EXPECT_EQ(r.estimate_variance, 0.04000000283122063f);

    Shrink t(2);
    t.y[4] = 2.0f;
    t.e[4] = 3.0f;
    t.sigma[4] = 4.0f;
    r = t.run(0.0f, 0.3f, 0.4f, 1.0, 1.0);
    EXPECT_EQ(t.y[4], 2.0f * 0.36000001430511475f);
    EXPECT_EQ(r.estimate_variance, 2.0736000537872314f);
    // The gather arrays are cleared at every position.
    for (uint32_t i = 0; i < 9; ++i) {
        EXPECT_EQ(t.ng[i], 0.0f);
        EXPECT_EQ(t.pg[i], 0.0f);
    }
}

TEST(Wiener, MeanFactorUsesTheVarianceOfTheMean) {
    Shrink s(1);
    const sw::ShrinkResult r = s.run(0.5f, 0.25f, 0.5f, 4.0, 1.0);
    EXPECT_EQ(r.dc_estimate, 0.20000000298023224f);
    // No coefficient: the variance is the mean's term w0^2 s0^2 (not / n).
    EXPECT_EQ(r.estimate_variance, 0.1600000113248825f);
}

TEST(Wiener, ZeroCoefficientsAreOutsideTheSupportAndNanIsInside) {
    Shrink s(2);
    s.y[1] = 0.0f;
    s.e[1] = 7.0f;
    s.sigma[1] = std::nanf("");  // never read: the coefficient is exactly 0
    s.y[2] = std::nanf("");
    s.e[2] = 1.0f;
    s.sigma[2] = 1.0f;
    const sw::ShrinkResult r = s.run(0.0f, 0.5f, 0.5f, 2.0, 1.0);
    EXPECT_EQ(s.y[1], 0.0f);
    EXPECT_TRUE(std::isnan(s.y[2]));
    // w = 1 / (1 + 1) = 0.5: the NaN coefficient adds 1 * 0.25 * 1.
    EXPECT_EQ(r.estimate_variance, 0.25f);
}

TEST(Wiener, LambdaOnlyInsideTheFactors) {
    Shrink s(1);
    s.y[0] = 1.0f;
    s.e[0] = 1.0f;
    s.sigma[0] = 1.0f;
    const sw::ShrinkResult r = s.run(0.0f, 1.0f, 1.0f, 1.0, 3.0);
    EXPECT_EQ(s.y[0], 0.25f);  // 1 / (1 * 3 + 1)
    EXPECT_EQ(r.estimate_variance, 0.0625f);  // sigma^2 w^2, no lambda
    // lambda = 0: every factor is 1 where the pilot is non-zero.
    Shrink z(1);
    z.y[0] = 0.7f;
    z.e[0] = -0.2f;
    z.sigma[0] = 9.0f;
    z.run(1.0f, 0.5f, 0.5f, 1.0, 0.0);
    EXPECT_EQ(z.y[0], 0.7f);
}

struct Accumulator {
    Accumulator(uint32_t m_in, uint32_t k_in) : m(m_in), k(k_in), output(m * k, 0.0), weight_sum(m * k, 0.0f), coverage(m * k, 0) {}
    std::vector<double> finish() {
        std::vector<double> out = output;
        sw::normalise_output(out.data(), weight_sum.data(), m * k);
        return out;
    }
    uint32_t m, k;
    std::vector<double> output;
    std::vector<float> weight_sum;
    std::vector<uint16_t> coverage;
};

// A one-pixel shape (H = 1) at pixel (row, col) whose reconstructed value is
// value - dc; aggregates it with the given variance and size.
void add_pixel(Accumulator& acc, uint32_t row, uint32_t col, float value, float variance, double n) {
    const sw::RuntimeBox box{1};
    const int32_t counts[1] = {1};
    const uint8_t mask[1] = {1};
    const float packed[1] = {value - 0.25f};
    float recon[1];
    const sw::ClippedBox clip = sw::clipped_box(row, col, acc.m, acc.k, 1);
    sw::aggregate_shape(box, row, col, clip, packed, counts, false, mask, 0.25f, variance, n, acc.m,
                        recon, acc.output.data(), acc.weight_sum.data(), acc.coverage.data());
}

TEST(Aggregate, ClippingWeightsAndCoverage) {
    Accumulator acc(1, 4);
    add_pixel(acc, 0, 0, -0.3f, 0.5f, 1.0);
    add_pixel(acc, 0, 1, 1.0f, 0.5f, 1.0);
    add_pixel(acc, 0, 2, 1.7f, 0.5f, 1.0);
    add_pixel(acc, 0, 3, std::nanf(""), 0.5f, 1.0);
    EXPECT_EQ(acc.output[0], 0.0);
    EXPECT_EQ(acc.output[1], 2.0);
    EXPECT_EQ(acc.output[2], 2.0);
    EXPECT_EQ(acc.output[3], 0.0);
    for (uint32_t p = 0; p < 4; ++p) {
        EXPECT_EQ(acc.weight_sum[p], 2.0f);
        EXPECT_EQ(acc.coverage[p], 1);
    }
}

TEST(Aggregate, WeightedMeanExamples) {
    Accumulator acc(1, 2);
    // EstimateVariance float 0.1 and n = 4: weight 2.4999999627470975,
    // stored as 2.5.
    add_pixel(acc, 0, 0, 1.0f, 0.1f, 4.0);
    EXPECT_EQ(acc.output[0], 2.4999999627470975);
    EXPECT_EQ(acc.weight_sum[0], 2.5f);
    // Two shapes on pixel 1: 0.75 at that weight, -0.05 (clipped to 0) at
    // the weight of variance float 0.2 and n = 9.
    add_pixel(acc, 0, 1, 0.75f, 0.1f, 4.0);
    add_pixel(acc, 0, 1, -0.05f, 0.2f, 9.0);
    const auto out = acc.finish();
    EXPECT_EQ(out[0], 0.999999985098839);
    EXPECT_EQ(out[1], 0.6136363491723855);
}

TEST(Aggregate, ScatterOrderInBothOrientations) {
    const sw::RuntimeBox box{3};
    std::vector<float> packed(25, 0.0f);
    packed[10] = 0.4f;  // block column 2, slot 0
    packed[11] = 0.6f;  // slot 1
    std::vector<int32_t> counts(5, 0);
    counts[2] = 2;
    for (bool by_columns : {false, true}) {
        std::vector<uint8_t> mask(25, 0);
        uint32_t first, second;
        if (!by_columns) {
            first = 2 + 5 * 1;  // box (2, 1)
            second = 2 + 5 * 4;  // box (2, 4)
        } else {
            first = 1 + 5 * 2;  // box (1, 2)
            second = 4 + 5 * 2;  // box (4, 2)
        }
        mask[first] = mask[second] = 1;
        Accumulator acc(5, 5);
        std::vector<float> recon(25, 9.0f);
        const sw::ClippedBox clip = sw::clipped_box(2, 2, 5, 5, 3);
        sw::aggregate_shape(box, 2, 2, clip, packed.data(), counts.data(), by_columns, mask.data(), 0.0f,
                            1.0f, 1.0, 5, recon.data(), acc.output.data(), acc.weight_sum.data(),
                            acc.coverage.data());
        EXPECT_EQ(recon[first], 0.4f);
        EXPECT_EQ(recon[second], 0.6f);
        // Box (i, j) is image (i, j) here: the pixel is the centre of a 5 x 5 image.
        EXPECT_EQ(acc.output[first], static_cast<double>(0.4f));
        EXPECT_EQ(acc.output[second], static_cast<double>(0.6f));
        double total = 0.0;
        for (double v : acc.output) total += v;
        EXPECT_EQ(total, static_cast<double>(0.4f) + static_cast<double>(0.6f));
    }
}

TEST(Aggregate, OnlyTheClippedBoxIsTouchedAndCountsWrap) {
    // Pixel (0, 0) of a 2 x 2 image with a full 3 x 3 shape mask: only the
    // four image pixels change, and a count of 65535 wraps to 0.
    const sw::RuntimeBox box{2};
    std::vector<uint8_t> mask(9, 0);
    for (uint32_t i : {4u, 5u, 7u, 8u}) mask[i] = 1;  // the in-image part only
    std::vector<int32_t> counts = {0, 2, 2};
    std::vector<float> packed(9, 0.0f);
    Accumulator acc(2, 2);
    acc.coverage[3] = 65535;
    std::vector<float> recon(9);
    const sw::ClippedBox clip = sw::clipped_box(0, 0, 2, 2, 2);
    sw::aggregate_shape(box, 0, 0, clip, packed.data(), counts.data(), false, mask.data(), 0.5f, 1.0f, 4.0,
                        2, recon.data(), acc.output.data(), acc.weight_sum.data(), acc.coverage.data());
    EXPECT_EQ(acc.coverage[0], 1);
    EXPECT_EQ(acc.coverage[3], 0);
    for (uint32_t p = 0; p < 4; ++p) EXPECT_EQ(acc.output[p], 0.125);
}

TEST(Normalise, UncoveredPixelsBecomeNan) {
    std::vector<double> out = {0.0, 3.0};
    const std::vector<float> ws = {0.0f, 2.0f};
    sw::normalise_output(out.data(), ws.data(), 2);
    EXPECT_TRUE(std::isnan(out[0]));
    EXPECT_EQ(out[1], 1.5);
}

}  // namespace
