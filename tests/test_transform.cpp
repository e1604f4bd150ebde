// The shape-adaptive transform: re-alignment, products, inverse, clearing.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "driver/box.h"
#include "shape/gather.h"
#include "support/test_args.h"
#include "transform/shape_transform.h"

namespace {

std::vector<double> identity(uint32_t len) {
    std::vector<double> t(len * len, 0.0);
    for (uint32_t i = 0; i < len; ++i) t[i + i * len] = 1.0;
    return t;
}

// Packed blocks and counts for a box side w, with a bank of matrices.
struct Packed {
    Packed(uint32_t h, std::vector<std::vector<double>> bank_in)
        : box{h},
          w(2 * h - 1),
          noisy(w * w, 0.0f),
          pilot(w * w, 0.0f),
          noisy_coef(w * w, 0.0f),
          pilot_coef(w * w, 0.0f),
          column_count(w, 0),
          row_count(w, 0),
          row_cursor(w, 55),
          bank(std::move(bank_in)) {
        for (const auto& t : bank) table.push_back(t.data());
    }

    // Fills block column j with values (and the pilot with their negatives).
    void set_column(uint32_t j, const std::vector<float>& values) {
        column_count[j] = static_cast<int32_t>(values.size());
        for (size_t s = 0; s < values.size(); ++s) {
            noisy[j * w + s] = values[s];
            pilot[j * w + s] = -values[s];
        }
        max = 0;
        for (int32_t c : column_count) max = std::max(max, c);
    }

    void forward() {
        sw::forward_transform(box, noisy.data(), pilot.data(), noisy_coef.data(), pilot_coef.data(),
                              column_count.data(), row_count.data(), max, table.data());
    }

    // Inverse of `coef` into `out` (which must be zero).
    void inverse(std::vector<float>& coef, std::vector<float>& out) {
        sw::inverse_transform(box, coef.data(), out.data(), column_count.data(), row_count.data(),
                              row_cursor.data(), max, table.data());
    }

    sw::RuntimeBox box;
    uint32_t w;
    std::vector<float> noisy, pilot, noisy_coef, pilot_coef;
    std::vector<int32_t> column_count, row_count, row_cursor;
    int32_t max = 0;
    std::vector<std::vector<double>> bank;
    std::vector<const double*> table;
};

std::vector<std::vector<double>> identity_bank(uint32_t w) {
    std::vector<std::vector<double>> bank;
    for (uint32_t len = 1; len <= w; ++len) bank.push_back(identity(len));
    return bank;
}

// With identity matrices the output shows where each value was re-aligned to.
TEST(Realignment, LengthsThreeAndOne) {
    Packed p(3, identity_bank(5));
    p.set_column(0, {1, 2, 3});
    p.set_column(1, {4});
    p.forward();
    EXPECT_EQ(p.row_count[0], 2);
    EXPECT_EQ(p.row_count[1], 1);
    EXPECT_EQ(p.row_count[2], 1);
    EXPECT_EQ(p.noisy_coef[0], 1);  // group 0: u(0,0) then u(1,0)
    EXPECT_EQ(p.noisy_coef[1], 4);
    EXPECT_EQ(p.noisy_coef[5], 2);  // group 1
    EXPECT_EQ(p.noisy_coef[10], 3);  // group 2
    EXPECT_EQ(p.pilot_coef[1], -4);
}

TEST(Realignment, LengthsFiveAndTwo) {
    Packed p(3, identity_bank(5));
    p.set_column(0, {1, 2, 3, 4, 5});
    p.set_column(1, {6, 7});
    p.forward();
    const int32_t counts[5] = {2, 1, 2, 1, 1};
    for (int r = 0; r < 5; ++r) EXPECT_EQ(p.row_count[r], counts[r]) << r;
    EXPECT_EQ(p.noisy_coef[0], 1);
    EXPECT_EQ(p.noisy_coef[1], 6);
    EXPECT_EQ(p.noisy_coef[5], 2);
    EXPECT_EQ(p.noisy_coef[10], 3);
    EXPECT_EQ(p.noisy_coef[11], 7);  // floor(5 * 1 / 2) = 2
    EXPECT_EQ(p.noisy_coef[15], 4);
    EXPECT_EQ(p.noisy_coef[20], 5);
}

TEST(Realignment, LengthsFourAndThreeWithAnEmptyColumnBetween) {
    Packed p(3, identity_bank(5));
    p.set_column(0, {1, 2, 3, 4});
    p.set_column(2, {5, 6, 7});  // block column 1 is empty
    p.forward();
    const int32_t counts[4] = {2, 2, 2, 1};
    for (int r = 0; r < 4; ++r) EXPECT_EQ(p.row_count[r], counts[r]) << r;
    EXPECT_EQ(p.noisy_coef[1], 5);
    EXPECT_EQ(p.noisy_coef[6], 6);   // floor(4/3) = 1
    EXPECT_EQ(p.noisy_coef[11], 7);  // floor(8/3) = 2
    EXPECT_EQ(p.noisy_coef[15], 4);
}

TEST(Realignment, InverseReturnsEveryValueToItsColumnAndIndex) {
    Packed p(3, identity_bank(5));
    p.set_column(0, {1, 2, 3, 4, 5});
    p.set_column(2, {6, 7});
    p.set_column(4, {8, 9, 10});
    p.forward();
    std::vector<float> out(25, 0.0f);
    p.inverse(p.noisy_coef, out);
    const std::vector<std::vector<float>> expected = {{1, 2, 3, 4, 5}, {}, {6, 7}, {}, {8, 9, 10}};
    for (uint32_t j = 0; j < 5; ++j) {
        for (uint32_t s = 0; s < 5; ++s) {
            const float want = s < expected[j].size() ? expected[j][s] : 0.0f;
            EXPECT_EQ(out[j * 5 + s], want) << j << "," << s;
            // The coefficient block holds the de-aligned first-stage values.
            EXPECT_EQ(p.noisy_coef[j * 5 + s], want);
        }
    }
    for (int r = 0; r < 5; ++r) EXPECT_EQ(p.row_cursor[r], p.row_count[r]);
}

TEST(ShapeTransform, OnePixelShapeUsesOneProductPerStage) {
    for (uint32_t column : {0u, 3u}) {
        auto bank = identity_bank(5);
        bank[0] = {0.7};
        Packed p(3, bank);
        p.set_column(column, {0.3f});
        p.forward();
        const float u = static_cast<float>(static_cast<double>(0.3f) * 0.7);
        const float c = static_cast<float>(static_cast<double>(u) * 0.7);
        EXPECT_EQ(p.row_count[0], 1);
        EXPECT_EQ(p.noisy_coef[0], c);
        for (uint32_t t = 1; t < 25; ++t) EXPECT_EQ(p.noisy_coef[t], 0.0f);
        std::vector<float> out(25, 0.0f);
        std::vector<float> coef = {1.5f};
        coef.resize(25, 0.0f);
        p.inverse(coef, out);
        const float w = static_cast<float>(1.5 * 0.7);
        EXPECT_EQ(out[column * 5], static_cast<float>(static_cast<double>(w) * 0.7));
    }
}

TEST(ShapeTransform, RunningSumIsRoundedAfterEveryTerm) {
    // Row 0 of T_3 is (1, 2^-24, 2^-24): rounding after every term keeps 1,
    // a sum rounded once would give 1 + 2^-23.
    const double tiny = std::ldexp(1.0, -24);
    auto bank = identity_bank(3);
    bank[2] = {1.0, 0.0, 0.0, tiny, 1.0, 0.0, tiny, 0.0, 1.0};
    Packed p(2, bank);
    p.set_column(1, {1.0f, 1.0f, 1.0f});
    p.forward();
    EXPECT_EQ(p.noisy_coef[0], 1.0f);
    EXPECT_EQ(p.noisy_coef[3], 1.0f);
    EXPECT_EQ(p.noisy_coef[6], 1.0f);
    // The transposed product rounds the same way: sample 1 of T_3^T (1,1,1)
    // is fl(fl(1 * tiny) + 1) + 0 = 1.
    std::vector<float> coef = {1.0f, 0.0f, 0.0f, 1.0f, 0.0f, 0.0f, 1.0f, 0.0f, 0.0f};
    std::vector<float> out(9, 0.0f);
    p.inverse(coef, out);
    EXPECT_EQ(out[3 + 1], 1.0f);
}

TEST(ShapeTransform, EmptyShapeLeavesEverythingZero) {
    Packed p(3, swtest::dct_bank(5));
    p.forward();
    for (float c : p.noisy_coef) EXPECT_EQ(c, 0.0f);
    std::vector<float> out(25, 0.0f);
    p.inverse(p.noisy_coef, out);
    for (float v : out) EXPECT_EQ(v, 0.0f);
}

TEST(ShapeTransform, UnitImpulseResponse) {
    // Columns of lengths 3, 0, 2, 3 (max 3). Row group 1 holds index 1 of
    // columns 0 and 3 and index 1 of column 2 (floor(3 * 1 / 2) = 1).
    Packed p(3, swtest::dct_bank(5));
    p.set_column(0, {1, 1, 1});
    p.set_column(2, {1, 1});
    p.set_column(3, {1, 1, 1});
    p.forward();
    ASSERT_EQ(p.row_count[1], 3);
    const uint32_t r = 1;
    const uint32_t k = 2;
    std::vector<float> coef(25, 0.0f);
    coef[r * 5 + k] = 1.0f;
    std::vector<float> out(25, 0.0f);
    p.inverse(coef, out);
    const auto& t3 = p.bank[2];  // T_3, entry (f, s) at f + 3s
    const auto& t2 = p.bank[1];
    const uint32_t columns[3] = {0, 2, 3};
    for (uint32_t slot = 0; slot < 3; ++slot) {
        const uint32_t j = columns[slot];
        const auto& tj = p.column_count[j] == 3 ? t3 : t2;
        const uint32_t len = static_cast<uint32_t>(p.column_count[j]);
        const float carried = static_cast<float>(t3[k + 3 * slot]);  // T_3 entry (k, slot)
        for (uint32_t s = 0; s < len; ++s) {
            const float want = static_cast<float>(static_cast<double>(carried) * tj[1 + s * len]);
            EXPECT_EQ(out[j * 5 + s], want) << j << "," << s;
        }
    }
    for (uint32_t s = 0; s < 5; ++s) EXPECT_EQ(out[1 * 5 + s], 0.0f);
    for (uint32_t s = 0; s < 5; ++s) EXPECT_EQ(out[4 * 5 + s], 0.0f);
}

// Random shapes from random masks, both orientations, W up to 21, DCT and
// random orthogonal banks: forward then inverse gives back the centred
// values, the forward transform keeps the energy, and the coefficient
// blocks hold exact zeros outside the layout.
TEST(ShapeTransformProperty, RoundTripAndEnergyOnRandomShapes) {
    std::mt19937 rng(20261123);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    int checked = 0;
    for (int trial = 0; trial < 300; ++trial) {
        const uint32_t h = 1 + rng() % 11;
        const uint32_t w = 2 * h - 1;
        const bool by_columns = rng() % 2 == 0;
        const bool random_bank = rng() % 2 == 0;
        std::vector<std::vector<double>> bank;
        for (uint32_t len = 1; len <= w; ++len) {
            bank.push_back(random_bank ? swtest::random_orthogonal(len, rng) : swtest::dct_matrix(len));
        }
        std::vector<const double*> table;
        for (const auto& t : bank) table.push_back(t.data());

        const uint32_t m = w + 2;
        std::vector<double> img(m * m);
        for (auto& v : img) v = unit(rng);
        std::vector<std::vector<uint8_t>> masks(8, std::vector<uint8_t>(w * w, 0));
        const double density = 0.05 + 0.5 * unit(rng);
        for (auto& mask : masks) {
            for (auto& b : mask) b = unit(rng) < density / 4 ? 1 : 0;
        }
        const uint8_t* mask_ptrs[8];
        for (int d = 0; d < 8; ++d) mask_ptrs[d] = masks[d].data();

        const sw::RuntimeBox box{h};
        std::vector<uint8_t> shape(w * w);
        std::vector<float> ng(w * w), pg(w * w), nc(w * w, 7.0f), pc(w * w, 7.0f);
        std::vector<int32_t> cc(w), rc(w), cursor(w);
        const uint32_t row = m / 2 - 1 + rng() % 3;
        const uint32_t col = m / 2 - 1 + rng() % 3;
        const sw::ClippedBox clip = sw::clipped_box(row, col, m, m, h);
        const sw::GatherResult g =
            sw::gather_shape(box, row, col, clip, mask_ptrs, by_columns, img.data(), img.data(), m,
                             shape.data(), ng.data(), pg.data(), cc.data(), rc.data(), cursor.data());
        sw::remove_mean(box, g.noisy_mean, ng.data(), pg.data(), nc.data(), pc.data());
        const std::vector<float> centred = ng;
        double energy_in = 0.0;
        float largest = 0.0f;
        for (float v : centred) {
            energy_in += static_cast<double>(v) * v;
            largest = std::max(largest, std::fabs(v));
        }

        sw::forward_transform(box, ng.data(), pg.data(), nc.data(), pc.data(), cc.data(), rc.data(),
                              g.max_column_count, table.data());
        double energy_out = 0.0;
        uint32_t support = 0;
        for (uint32_t r = 0; r < w; ++r) {
            for (uint32_t k = 0; k < w; ++k) {
                const float c = nc[r * w + k];
                const bool inside = static_cast<int32_t>(r) < g.max_column_count &&
                                    static_cast<int32_t>(k) < rc[r];
                if (!inside) {
                    ASSERT_EQ(c, 0.0f) << "trial " << trial;
                    ASSERT_EQ(pc[r * w + k], 0.0f) << "trial " << trial;
                }
                support += inside;
                energy_out += static_cast<double>(c) * c;
            }
        }
        ASSERT_EQ(support, g.shape_size);
        ASSERT_NEAR(energy_out, energy_in, 1e-5 * energy_in + 1e-30) << "trial " << trial;

        std::fill(ng.begin(), ng.end(), 0.0f);
        sw::inverse_transform(box, nc.data(), ng.data(), cc.data(), rc.data(), cursor.data(),
                              g.max_column_count, table.data());
        const float tolerance = 8.0f * std::numeric_limits<float>::epsilon() * std::max(largest, 1e-30f);
        for (uint32_t t = 0; t < w * w; ++t) {
            ASSERT_NEAR(ng[t], centred[t], tolerance) << "trial " << trial << " t " << t;
            if (centred[t] == 0.0f && (t % w) >= static_cast<uint32_t>(cc[t / w])) {
                ASSERT_EQ(ng[t], 0.0f);  // outside the packed layout
            }
        }
        for (uint32_t r = 0; r < w; ++r) ASSERT_EQ(cursor[r], rc[r]);
        ++checked;
    }
    EXPECT_EQ(checked, 300);
}

}  // namespace
