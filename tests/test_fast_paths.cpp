// The fast hot paths against the reference routines, bit for bit, at every
// SIMD level this machine has: noise levels, forward and inverse shape
// transforms on random shapes, and whole filter calls; and the reference
// routines' own properties on the same shapes. (The listed shapes of the
// optimised loop against the reference path: whole calls, test_threads.cpp.)
#include <gtest/gtest.h>

#include <cmath>
#include <algorithm>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "driver/box.h"
#include "driver/workspace.h"
#include "shape/gather.h"
#include "simd/simd.h"
#include "spectrum/levels_fast.h"
#include "spectrum/noise_level.h"
#include "support/test_args.h"
#include "transform/shape_transform.h"
#include "transform/transform_fast.h"

namespace {

using sw::simd::Level;

std::vector<Level> levels_here() {
    std::vector<Level> out;
    for (int i = 1; i < sw::simd::kLevelCount; ++i) {
        if (sw::simd::supported(static_cast<Level>(i))) out.push_back(static_cast<Level>(i));
    }
    return out;
}

// Restores the level that was active when the test started.
struct LevelGuard {
    Level saved = sw::simd::active();
    ~LevelGuard() { sw::simd::set_level(saved); }
};

// Equal bits, or both NaN (which NaN a sum of two NaNs keeps is the
// compiler's choice of operand order, in the reference as well).
bool same(float a, float b) {
    if (std::isnan(a) && std::isnan(b)) return true;
    return std::memcmp(&a, &b, sizeof a) == 0;
}

template <class T>
uint32_t first_difference(const std::vector<T>& a, const std::vector<T>& b) {
    for (uint32_t i = 0; i < a.size(); ++i) {
        if (!same(a[i], b[i])) return i;
    }
    return UINT32_MAX;
}

// One random shape, gathered and transformed by the reference routines.
struct Shape {
    sw::RuntimeBox box{1};
    uint32_t w = 1, n = 32;
    std::vector<std::vector<double>> bank;
    std::vector<const double*> table;
    std::vector<uint8_t> mask;
    std::vector<float> ng, pg, nc, pc, centred;
    std::vector<int32_t> cc, rc, cursor;
    sw::GatherResult g{};
    bool by_columns = false;
    std::vector<float> twiddle;
    std::vector<double> psd;
    double factor = 1.0;
    bool non_finite = false;
};

// Random scale, mask, clipping, orientation, matrices, spectrum and image.
Shape random_shape(std::mt19937& rng, uint32_t trial) {
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    Shape s;
    const uint32_t h = trial % 17 == 0 ? 11 + rng() % 6 : 1 + rng() % 9;
    s.box = sw::RuntimeBox{h};
    s.w = 2 * h - 1;
    const uint32_t w = s.w;
    switch (trial % 5) {
        case 0: s.n = w; break;                         // odd, the smallest grid
        case 1: s.n = w + 1 + 2 * (rng() % 4); break;  // even, table
        default: s.n = w <= 32 ? 32 : w + 1;
    }
    for (uint32_t len = 1; len <= w; ++len) {
        s.bank.push_back(trial % 3 == 1 ? swtest::dct_matrix(len) : swtest::random_orthogonal(len, rng));
    }
    if (trial % 11 == 3) {  // a matrix far from orthogonal: large products
        for (double& v : s.bank[w / 2]) v *= 1e20;
    }
    for (const auto& t : s.bank) s.table.push_back(t.data());

    // A random mask around the centre, in an image small enough to clip it.
    std::vector<uint8_t> cell(w * w);
    const double density = 0.2 + 0.8 * unit(rng);
    for (auto& b : cell) b = unit(rng) < density ? 1 : 0;
    cell[(h - 1) * (w + 1)] = 1;
    const uint8_t* masks[8];
    for (auto& m : masks) m = cell.data();
    const uint32_t m = w + rng() % (w + 2);
    const uint32_t row = rng() % m, col = rng() % m;
    std::vector<double> image(m * m);
    const bool flat = trial % 13 == 5;  // equal values: centred values come out 0
    for (auto& v : image) v = flat ? 0.5 : unit(rng);
    s.by_columns = rng() % 2 == 0;
    s.mask.assign(w * w, 0);
    s.ng.assign(w * w, 0.0f);
    s.pg = s.nc = s.pc = s.ng;
    s.cc.assign(w, 0);
    s.rc = s.cursor = s.cc;
    const sw::ClippedBox clip = sw::clipped_box(row, col, m, m, h);
    s.g = sw::gather_shape(s.box, row, col, clip, masks, s.by_columns, image.data(), image.data(), m,
                           s.mask.data(), s.ng.data(), s.pg.data(), s.cc.data(), s.rc.data(),
                           s.cursor.data());
    sw::remove_mean(s.box, s.g.noisy_mean, s.ng.data(), s.pg.data(), s.nc.data(), s.pc.data());
    s.centred = s.ng;
    sw::forward_transform(s.box, s.ng.data(), s.pg.data(), s.nc.data(), s.pc.data(), s.cc.data(),
                          s.rc.data(), s.g.max_column_count, s.table.data());
    if (trial % 19 == 7) {  // an infinity: the fast paths leave the shape to the reference
        s.bank[s.g.max_column_count - 1].back() = std::numeric_limits<double>::infinity();
        s.non_finite = true;
    }

    s.twiddle.assign(2 * s.n * s.n, 0.0f);
    sw::twiddle_fill(s.twiddle.data(), s.n);
    s.psd.resize(s.n * s.n);
    const double low = trial % 4 == 2 ? -0.3 : 0.0;  // negative sums give NaN levels
    for (auto& v : s.psd) v = low + unit(rng);
    s.factor = trial % 9 == 4 ? -0.5 : 0.25 + unit(rng);
    return s;
}

// Levels of the shape's noisy coefficients (with some set to 0, NaN or
// infinity) by the reference and by the fast path at every level.
TEST(FastNoiseLevels, MatchReferenceOnRandomShapes) {
    LevelGuard guard;
    std::mt19937 rng(2024);
    const std::vector<Level> levels = levels_here();
    for (uint32_t trial = 0; trial < 300; ++trial) {
        Shape s = random_shape(rng, trial);
        const uint32_t area = s.w * s.w;
        if (trial % 7 == 6) {
            for (uint32_t t = 0; t < area; ++t) {
                if (s.nc[t] == 0.0f) continue;
                switch (rng() % 8) {
                    case 0: s.nc[t] = 0.0f; break;
                    case 1: s.nc[t] = -0.0f; break;
                    case 2: s.nc[t] = std::numeric_limits<float>::quiet_NaN(); break;
                    case 3: s.nc[t] = std::numeric_limits<float>::infinity(); break;
                    default: break;
                }
            }
        }
        std::vector<float> spatial(s.n * s.n), rows(2 * s.n * (s.n / 2 + 1)), block(rows.size());
        const sw::SpectrumContext ctx{s.n,           s.n == 32 ? nullptr : s.twiddle.data(),
                                      spatial.data(), rows.data(), block.data(), s.psd.data(),
                                      s.factor};
        std::vector<float> want(area, -1.0f);
        std::vector<float> ng = s.ng;
        const float want_dc = sw::noise_levels(s.box, ctx, s.nc.data(), ng.data(), s.cc.data(),
                                               s.rc.data(), s.cursor.data(), s.g.max_column_count,
                                               s.table.data(), s.mask.data(), s.by_columns,
                                               s.g.shape_size, want.data());
        const sw::ShapeLevelsInput in{s.w,         &ctx,           s.nc.data(),  s.cc.data(),
                                      s.rc.data(), s.g.max_column_count, s.table.data(),
                                      s.mask.data(), s.by_columns, s.g.shape_size};
        for (Level level : levels) {
            std::vector<float> got(area, -2.0f);
            float dc = -2.0f;
            ASSERT_EQ(sw::noise_levels_lanes(in, level, got.data(), &dc), !s.non_finite)
                << "trial " << trial;
            if (s.non_finite) {  // left to the reference
                ASSERT_TRUE(sw::simd::set_level(level));
                dc = sw::noise_levels_fast(s.box, ctx, s.nc.data(), ng.data(), s.cc.data(),
                                           s.rc.data(), s.cursor.data(), s.g.max_column_count,
                                           s.table.data(), s.mask.data(), s.by_columns,
                                           s.g.shape_size, got.data());
            }
            const uint32_t at = first_difference(want, got);
            ASSERT_EQ(at, UINT32_MAX) << "trial " << trial << " level " << sw::simd::name(level)
                                      << " W " << s.w << " N " << s.n << " t " << at << ": "
                                      << want[at] << " vs " << got[at];
            ASSERT_TRUE(same(want_dc, dc)) << "trial " << trial << " level " << sw::simd::name(level)
                                           << ": " << want_dc << " vs " << dc;
        }
    }
}

// The reference routines themselves on the same random shapes (orthonormal
// matrices, finite values): the inverse transform restores the centred
// values and the forward one keeps their energy, with zeros outside the
// shape's support; a flat spectrum sigma^2 on an even grid gives every
// coefficient and the mean the level sigma * factor.
TEST(ReferencePaths, RoundTripAndWhiteLevelsOnRandomShapes) {
    std::mt19937 rng(99);
    for (uint32_t trial = 0; trial < 300; ++trial) {
        Shape s = random_shape(rng, trial);
        if (trial % 11 == 3 || s.non_finite || s.n % 2 == 1) continue;  // not orthonormal; an odd grid
        const uint32_t w = s.w;
        const double sigma = 0.05 + swtest::unit(rng), factor = 0.5 + swtest::unit(rng);
        const std::vector<double> psd(s.n * s.n, sigma * sigma);
        std::vector<float> spatial(s.n * s.n), rows(2 * s.n * (s.n / 2 + 1)), block(rows.size());
        const sw::SpectrumContext ctx{s.n, s.n == 32 ? nullptr : s.twiddle.data(), spatial.data(),
                                      rows.data(), block.data(), psd.data(), factor};
        std::vector<float> levels(w * w, -1.0f), scratch = s.ng;
        const float dc = sw::noise_levels(s.box, ctx, s.nc.data(), scratch.data(), s.cc.data(), s.rc.data(),
                                          s.cursor.data(), s.g.max_column_count, s.table.data(),
                                          s.mask.data(), s.by_columns, s.g.shape_size, levels.data());
        const double want = sigma * factor;
        EXPECT_NEAR(dc, want, 2e-5 * want) << trial;
        double energy_in = 0.0, energy_out = 0.0;
        float largest = 0.0f;
        for (float v : s.centred) {
            energy_in += static_cast<double>(v) * v;
            largest = std::max(largest, std::fabs(v));
        }
        uint32_t support = 0;
        for (uint32_t r = 0; r < w; ++r) {
            for (uint32_t k = 0; k < w; ++k) {
                const uint32_t t = r * w + k;
                const bool inside = static_cast<int32_t>(r) < s.g.max_column_count && static_cast<int32_t>(k) < s.rc[r];
                support += inside;
                energy_out += static_cast<double>(s.nc[t]) * s.nc[t];
                ASSERT_TRUE(inside || (s.nc[t] == 0.0f && s.pc[t] == 0.0f)) << trial;
                EXPECT_NEAR(levels[t], s.nc[t] != 0.0f ? want : 0.0, 2e-5 * want) << trial << " " << t;
            }
        }
        ASSERT_EQ(support, s.g.shape_size);
        ASSERT_NEAR(energy_out, energy_in, 1e-5 * energy_in + 1e-30) << trial;
        std::vector<float> back(w * w, 0.0f);
        sw::inverse_transform(s.box, s.nc.data(), back.data(), s.cc.data(), s.rc.data(), s.cursor.data(),
                              s.g.max_column_count, s.table.data());
        const float tolerance = 8.0f * std::numeric_limits<float>::epsilon() * std::max(largest, 1e-30f);
        for (uint32_t t = 0; t < w * w; ++t) ASSERT_NEAR(back[t], s.centred[t], tolerance) << trial << " " << t;
        for (uint32_t r = 0; r < w; ++r) ASSERT_EQ(s.cursor[r], s.rc[r]);
    }
}

// The arrays the transforms touch, after a forward and an inverse transform.
struct TransformArrays {
    std::vector<float> ng, pg, nc, pc, out;
    std::vector<int32_t> rc, cursor;
};

TransformArrays run_transforms(const Shape& s, const std::vector<float>& ng,
                               const std::vector<float>& pg, bool fast,
                               bool round_steps = true) {
    const uint32_t area = s.w * s.w;
    TransformArrays a{ng, pg, std::vector<float>(area), std::vector<float>(area),
                      std::vector<float>(area), std::vector<int32_t>(s.w), std::vector<int32_t>(s.w)};
    const int32_t mcc = s.g.max_column_count;
    if (fast) {
        const Level level = sw::simd::active();
        sw::forward_transform_fast(s.box, a.ng.data(), a.pg.data(), a.nc.data(), a.pc.data(),
                                   s.cc.data(), a.rc.data(), mcc, s.table.data(), level,
                                   round_steps);
        sw::inverse_transform_fast(s.box, a.nc.data(), a.out.data(), s.cc.data(), a.rc.data(),
                                   a.cursor.data(), mcc, s.table.data(), level, round_steps);
    } else {
        sw::forward_transform(s.box, a.ng.data(), a.pg.data(), a.nc.data(), a.pc.data(),
                              s.cc.data(), a.rc.data(), mcc, s.table.data());
        sw::inverse_transform(s.box, a.nc.data(), a.out.data(), s.cc.data(), a.rc.data(),
                              a.cursor.data(), mcc, s.table.data());
    }
    return a;
}

// Every level against the reference on one shape and its gathered values;
// the unrounded sums: the same bits at every level (the reference level,
// which runs the one-lane kernels, included).
void expect_transforms_match(const Shape& s, const std::vector<float>& ng,
                             const std::vector<float>& pg, const std::string& what) {
    const TransformArrays want = run_transforms(s, ng, pg, false);
    ASSERT_TRUE(sw::simd::set_level(Level::reference));
    const TransformArrays loose = run_transforms(s, ng, pg, true, false);
    for (Level level : levels_here()) {
        ASSERT_TRUE(sw::simd::set_level(level));
        const TransformArrays unrounded = run_transforms(s, ng, pg, true, false);
        EXPECT_EQ(first_difference(loose.nc, unrounded.nc), UINT32_MAX) << what << " unrounded";
        EXPECT_EQ(first_difference(loose.out, unrounded.out), UINT32_MAX) << what << " unrounded";
    }
    for (Level level : levels_here()) {
        ASSERT_TRUE(sw::simd::set_level(level));
        const TransformArrays got = run_transforms(s, ng, pg, true);
        const std::string where = what + " " + sw::simd::name(level);
        EXPECT_EQ(first_difference(want.ng, got.ng), UINT32_MAX) << where;
        EXPECT_EQ(first_difference(want.pg, got.pg), UINT32_MAX) << where;
        EXPECT_EQ(first_difference(want.nc, got.nc), UINT32_MAX) << where;
        EXPECT_EQ(first_difference(want.pc, got.pc), UINT32_MAX) << where;
        EXPECT_EQ(first_difference(want.out, got.out), UINT32_MAX) << where;
        EXPECT_EQ(want.rc, got.rc) << where;
        ASSERT_EQ(want.cursor, got.cursor) << where;
    }
}

// Random values on the shape's slots, the pilot sharing some lines or all.
void random_values(const Shape& s, std::mt19937& rng, uint32_t trial, std::vector<float>* ng,
                   std::vector<float>* pg) {
    const uint32_t area = s.w * s.w;
    ng->assign(area, 0.0f);
    pg->assign(area, 0.0f);
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    for (uint32_t j = 0; j < s.w; ++j) {
        for (int32_t f = 0; f < s.cc[j]; ++f) {
            (*ng)[j * s.w + f] = value(rng);
            (*pg)[j * s.w + f] = value(rng);
        }
    }
    if (trial % 6 == 1) (*ng)[rng() % area] = std::numeric_limits<float>::quiet_NaN();
    if (trial % 3 == 0) {
        for (uint32_t j = 0; j < s.w; ++j) {
            if (trial % 2 == 0 || rng() % 2 == 0) {
                std::copy_n(ng->begin() + j * s.w, s.w, pg->begin() + j * s.w);
            }
        }
    }
}

// Forward and inverse transforms of random shapes: every array the
// routines touch ends with the reference's bits.
TEST(FastTransforms, MatchReferenceOnRandomShapes) {
    LevelGuard guard;
    std::mt19937 rng(77);
    for (uint32_t trial = 0; trial < 300; ++trial) {
        const Shape s = random_shape(rng, trial);
        std::vector<float> ng, pg;
        random_values(s, rng, trial, &ng, &pg);
        expect_transforms_match(s, ng, pg, "trial " + std::to_string(trial));
    }
}

// The inverse keeps transposed copies of the matrices between calls: a
// matrix changed in place must not be served from an old copy.
TEST(FastTransforms, FollowMatricesChangedInPlace) {
    LevelGuard guard;
    std::mt19937 rng(5);
    Shape s = random_shape(rng, 2);
    while (s.g.shape_size < 40) s = random_shape(rng, 2);  // big enough for the fast inverse
    std::vector<float> ng, pg;
    random_values(s, rng, 1, &ng, &pg);
    expect_transforms_match(s, ng, pg, "before");
    for (auto& m : s.bank) {
        for (double& v : m) v = -v;  // same place, other bits
    }
    expect_transforms_match(s, ng, pg, "after");
}

// Lines longer than the kernels take (a 67 x 67 box) go through the
// reference's products inside the fast routines.
TEST(FastTransforms, LongLines) {
    LevelGuard guard;
    Shape s;
    const uint32_t h = 34;
    s.box = sw::RuntimeBox{h};
    s.w = 2 * h - 1;
    s.bank = swtest::dct_bank(s.w);
    for (const auto& t : s.bank) s.table.push_back(t.data());
    s.cc.assign(s.w, 0);
    for (uint32_t j = 0; j < s.w; j += 3) s.cc[j] = static_cast<int32_t>(s.w - j);
    s.g.max_column_count = static_cast<int32_t>(s.w);
    std::mt19937 rng(9);
    std::vector<float> ng, pg;
    random_values(s, rng, 0, &ng, &pg);
    expect_transforms_match(s, ng, pg, "W 67");
}

// Whole calls (variants, general path, both spectrum paths, skipped and
// repeated pixels) give the reference's bits at every level.
TEST(FastPaths, WholeCallsMatchTheReference) {
    LevelGuard guard;
    const std::vector<Level> levels = levels_here();
    for (uint32_t seed = 0; seed < 12; ++seed) {
        const uint32_t h = 1 + seed % 9, w = 2 * h - 1;
        const swtest::CallPlan plan = swtest::random_plan(
            500 + seed, swtest::random_options(h, seed % 3 == 0 ? w + 1 + (w + 1) % 2 : 32, w + 2, seed % 2 == 0 ? w : 3,
                                               (seed % 2 == 1 ? swtest::kRandomMatrices : 0) |
                                                   (seed % 4 == 2 ? swtest::kRepeatPixels : 0),
                                               seed % 4 == 3 ? 2 : 1e9));
        ASSERT_TRUE(sw::simd::set_level(Level::reference));
        swtest::MexCall want = swtest::make_call(plan);
        want.run();
        for (Level level : levels) {
            ASSERT_TRUE(sw::simd::set_level(level));
            swtest::MexCall got = swtest::make_call(plan);
            if (seed % 2 == 0) {
                got.run();
            } else {
                got.run_general(h);
            }
            EXPECT_TRUE(swtest::same_bits(want.output(), got.output()))
                << "seed " << seed << " level " << sw::simd::name(level);
        }
    }
}

}  // namespace
