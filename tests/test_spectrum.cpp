// The 32-point FFT, the block spectrum and the coefficient noise levels.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <random>
#include <vector>

#include "driver/box.h"
#include "driver/workspace.h"
#include "shape/gather.h"
#include "spectrum/block_spectrum.h"
#include "spectrum/fft32.h"
#include "spectrum/noise_level.h"
#include "support/test_args.h"
#include "transform/shape_transform.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

std::vector<std::complex<double>> reference_dft(const std::vector<float>& in) {
    std::vector<std::complex<double>> out(32);
    for (int k = 0; k < 32; ++k) {
        std::complex<double> acc = 0.0;
        for (int n = 0; n < 32; ++n) {
            acc += std::complex<double>(in[2 * n], in[2 * n + 1]) *
                   std::polar(1.0, -2.0 * kPi * n * k / 32.0);
        }
        out[k] = acc;
    }
    return out;
}

TEST(Fft32, MatchesTheDftOfRandomInputs) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    for (int trial = 0; trial < 200; ++trial) {
        std::vector<float> in(64);
        for (auto& v : in) v = value(rng);
        std::vector<float> out(64);
        sw::fft32(in.data(), out.data());
        const auto ref = reference_dft(in);
        double norm = 0.0;
        for (float v : in) norm += static_cast<double>(v) * v;
        // Error of a float32 network of five levels: a few ulps of sqrt(32 * energy).
        const double bound = 8.0 * 5.96e-8 * std::sqrt(32.0 * norm);
        for (int k = 0; k < 32; ++k) {
            ASSERT_NEAR(out[2 * k], ref[k].real(), bound) << k;
            ASSERT_NEAR(out[2 * k + 1], ref[k].imag(), bound) << k;
        }
    }
}

TEST(Fft32, ExactResults) {
    std::vector<float> in(64, 0.0f), out(64, 1.0f);
    sw::fft32(in.data(), out.data());
    for (float v : out) EXPECT_EQ(v, 0.0f);

    in[0] = 1.0f;  // impulse at n = 0
    sw::fft32(in.data(), out.data());
    for (int k = 0; k < 32; ++k) {
        EXPECT_EQ(out[2 * k], 1.0f) << k;
        EXPECT_EQ(out[2 * k + 1], 0.0f) << k;
    }

    in.assign(64, 0.0f);
    in[2] = 1.0f;  // impulse at n = 1
    sw::fft32(in.data(), out.data());
    EXPECT_EQ(out[2 * 8 + 1], -1.0f);
    EXPECT_EQ(out[2 * 8], 0.0f);
    EXPECT_EQ(out[2 * 16], -1.0f);
    EXPECT_EQ(out[2 * 16 + 1], 0.0f);
    for (int k = 0; k < 32; ++k) {
        EXPECT_NEAR(out[2 * k], std::cos(2 * kPi * k / 32), 1e-7);
        EXPECT_NEAR(out[2 * k + 1], -std::sin(2 * kPi * k / 32), 1e-7);
    }

    for (int n = 0; n < 32; ++n) {
        in[2 * n] = 0.375f;  // constant input
        in[2 * n + 1] = -1.25f;
    }
    sw::fft32(in.data(), out.data());
    EXPECT_EQ(out[0], 12.0f);
    EXPECT_EQ(out[1], -40.0f);
    for (int k = 1; k < 32; ++k) {
        EXPECT_EQ(out[2 * k], 0.0f) << k;
        EXPECT_EQ(out[2 * k + 1], 0.0f) << k;
    }
}

TEST(Fft32, InPlaceEqualsOutOfPlace) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> value(-3.0f, 3.0f);
    std::vector<float> in(64);
    for (auto& v : in) v = value(rng);
    std::vector<float> out(64);
    sw::fft32(in.data(), out.data());
    std::vector<float> same = in;
    sw::fft32(same.data(), same.data());
    EXPECT_EQ(0, std::memcmp(out.data(), same.data(), sizeof(float) * 64));
}

TEST(RealDft32, HalfSpectrumOfRealColumns) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    std::vector<float> x(32), y(34);
    for (auto& v : x) v = value(rng);
    sw::real_dft32(x.data(), y.data());
    EXPECT_EQ(y[1], 0.0f);
    EXPECT_EQ(y[33], 0.0f);
    for (int k = 0; k <= 16; ++k) {
        std::complex<double> acc = 0.0;
        for (int a = 0; a < 32; ++a) acc += static_cast<double>(x[a]) * std::polar(1.0, -2 * kPi * a * k / 32);
        EXPECT_NEAR(y[2 * k], acc.real(), 2e-6) << k;
        EXPECT_NEAR(y[2 * k + 1], acc.imag(), 2e-6) << k;
    }
}

// Spectra of one block by both paths.
struct Spectra {
    explicit Spectra(uint32_t n_in) : n(n_in), spatial(n * n, 0.0f), row(2 * n * (n / 2 + 1)), block(row.size()), table(2 * n * n) {
        sw::twiddle_fill(table.data(), n);
    }
    void fast() { sw::block_spectrum_fast32(spatial.data(), row.data(), block.data()); }
    void by_table() { sw::block_spectrum_table(spatial.data(), row.data(), block.data(), table.data(), n); }
    std::complex<float> at(uint32_t u, uint32_t v) const {
        return {block[2 * (u * n + v)], block[2 * (u * n + v) + 1]};
    }
    uint32_t n;
    std::vector<float> spatial, row, block, table;
};

TEST(BlockSpectrum, BothPathsAgreeInPower) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    for (int trial = 0; trial < 20; ++trial) {
        Spectra s(32);
        // A W x W corner holds the data, as in the noise levels.
        for (uint32_t b = 0; b < 13; ++b) {
            for (uint32_t a = 0; a < 13; ++a) s.spatial[a + 32 * b] = value(rng);
        }
        s.fast();
        const std::vector<float> fast = s.block;
        s.by_table();
        for (uint32_t u = 0; u <= 16; ++u) {
            for (uint32_t v = 0; v < 32; ++v) {
                const size_t i = 2 * (u * 32 + v);
                const float pf = fast[i] * fast[i] + fast[i + 1] * fast[i + 1];
                const float pt = s.block[i] * s.block[i] + s.block[i + 1] * s.block[i + 1];
                ASSERT_NEAR(pf, pt, 1e-4f * (1.0f + pf)) << u << "," << v;
                // The table path is the complex conjugate.
                ASSERT_NEAR(fast[i], s.block[i], 2e-4f);
                ASSERT_NEAR(fast[i + 1], -s.block[i + 1], 2e-4f);
            }
        }
    }
}

TEST(BlockSpectrum, ExactCases) {
    for (bool fast_path : {true, false}) {
        Spectra s(32);
        s.spatial[0] = 1.0f;
        fast_path ? s.fast() : s.by_table();
        for (uint32_t u = 0; u <= 16; ++u) {
            for (uint32_t v = 0; v < 32; ++v) {
                EXPECT_EQ(s.at(u, v), std::complex<float>(1.0f, 0.0f)) << fast_path << u << "," << v;
            }
        }
    }
    Spectra s(32);
    s.spatial[1] = 1.0f;  // (a, b) = (1, 0)
    s.fast();
    for (uint32_t v = 0; v < 32; ++v) {
        EXPECT_EQ(s.at(8, v), std::complex<float>(0.0f, -1.0f)) << v;
        EXPECT_EQ(s.at(16, v), std::complex<float>(-1.0f, 0.0f)) << v;
    }
    std::fill(s.spatial.begin(), s.spatial.end(), 0.3f);
    s.fast();
    EXPECT_EQ(s.at(0, 0), std::complex<float>(1024 * 0.3f, 0.0f));
    for (uint32_t u = 0; u <= 16; ++u) {
        for (uint32_t v = 0; v < 32; ++v) {
            if (u == 0 && v == 0) continue;
            EXPECT_EQ(s.at(u, v), std::complex<float>(0.0f, 0.0f)) << u << "," << v;
        }
    }
}

TEST(BlockSpectrum, TablePathForOtherSizesHasUnitMagnitudeImpulses) {
    for (uint32_t n : {2u, 6u, 16u, 20u}) {
        Spectra s(n);
        const uint32_t a0 = 1, b0 = n / 2;
        s.spatial[a0 + n * b0] = 1.0f;
        s.by_table();
        for (uint32_t u = 0; u <= n / 2; ++u) {
            for (uint32_t v = 0; v < n; ++v) {
                const std::complex<float> z = s.at(u, v);
                EXPECT_NEAR(std::abs(z), 1.0f, 1e-5f);
                const double phase = 2 * kPi * (u * a0 + v * b0) / n;  // positive sign
                EXPECT_NEAR(z.real(), std::cos(phase), 1e-5);
                EXPECT_NEAR(z.imag(), std::sin(phase), 1e-5);
            }
        }
    }
}

// Everything the noise levels read and write, for one shape.
struct LevelCase {
    LevelCase(uint32_t h, uint32_t n_in, std::vector<std::vector<double>> bank_in)
        : box{h},
          w(2 * h - 1),
          n(n_in),
          bank(std::move(bank_in)),
          spatial(n * n, 0.0f),
          row(2 * n * (n / 2 + 1)),
          block(row.size()),
          twiddle(2 * n * n),
          psd(n * n, 0.0),
          shape(w * w),
          ng(w * w),
          pg(w * w),
          nc(w * w),
          pc(w * w),
          levels(w * w, -1.0f),
          cc(w),
          rc(w),
          cursor(w) {
        sw::twiddle_fill(twiddle.data(), n);
        for (const auto& t : bank) table.push_back(t.data());
    }

    // Gathers the union of `masks` around (row, col) of img and transforms it.
    void prepare(const std::vector<uint8_t>& mask, bool by_columns, const std::vector<double>& img,
                 uint32_t m, uint32_t row, uint32_t col) {
        const uint8_t* ptrs[8];
        for (auto& p : ptrs) p = mask.data();
        clip = sw::clipped_box(row, col, m, m, box.H());
        g = sw::gather_shape(box, row, col, clip, ptrs, by_columns, img.data(), img.data(), m,
                             shape.data(), ng.data(), pg.data(), cc.data(), rc.data(), cursor.data());
        sw::remove_mean(box, g.noisy_mean, ng.data(), pg.data(), nc.data(), pc.data());
        sw::forward_transform(box, ng.data(), pg.data(), nc.data(), pc.data(), cc.data(), rc.data(),
                              g.max_column_count, table.data());
        this->by_columns = by_columns;
    }

    float run(double factor) {
        const sw::SpectrumContext ctx{n, n == 32 ? nullptr : twiddle.data(), spatial.data(), row.data(),
                                      block.data(), psd.data(), factor};
        return sw::noise_levels(box, ctx, nc.data(), ng.data(), cc.data(), rc.data(), cursor.data(),
                                g.max_column_count, table.data(), shape.data(), by_columns,
                                g.shape_size, levels.data());
    }

    sw::RuntimeBox box;
    uint32_t w, n;
    std::vector<std::vector<double>> bank;
    std::vector<const double*> table;
    std::vector<float> spatial, row, block, twiddle;
    std::vector<double> psd;
    std::vector<uint8_t> shape;
    std::vector<float> ng, pg, nc, pc, levels;
    std::vector<int32_t> cc, rc, cursor;
    sw::ClippedBox clip{};
    sw::GatherResult g{};
    bool by_columns = false;
};

TEST(NoiseLevels, WhiteSpectrumGivesSigmaForEveryCoefficient) {
    std::mt19937 rng(99);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (int trial = 0; trial < 40; ++trial) {
        const uint32_t h = 1 + rng() % 6;
        const uint32_t w = 2 * h - 1;
        const uint32_t n = trial % 4 == 0 ? 2 * (w / 2 + 1 + rng() % 4) : 32;
        std::vector<std::vector<double>> bank;
        for (uint32_t len = 1; len <= w; ++len) {
            bank.push_back(trial % 2 ? swtest::random_orthogonal(len, rng) : swtest::dct_matrix(len));
        }
        LevelCase c(h, n, bank);
        const double sigma = 0.05 + unit(rng);
        std::fill(c.psd.begin(), c.psd.end(), sigma * sigma);
        std::vector<uint8_t> mask(w * w);
        for (auto& b : mask) b = unit(rng) < 0.6 ? 1 : 0;
        mask[(h - 1) * (w + 1)] = 1;  // never empty
        const uint32_t m = w + 4;
        std::vector<double> img(m * m);
        for (auto& v : img) v = unit(rng);
        c.prepare(mask, trial % 3 == 0, img, m, m / 2, m / 2);
        const double factor = 0.5 + unit(rng);
        const float dc = c.run(factor);
        const double want = sigma * factor;
        EXPECT_NEAR(dc, want, 2e-5 * want) << "trial " << trial;
        for (uint32_t t = 0; t < w * w; ++t) {
            if (c.nc[t] != 0.0f) {
                EXPECT_NEAR(c.levels[t], want, 2e-5 * want) << "trial " << trial << " t " << t;
            } else {
                EXPECT_EQ(c.levels[t], 0.0f);  // outside the support
            }
        }
    }
}

TEST(NoiseLevels, OnePixelShapeDcFormula) {
    // A one-pixel shape whose centred value is exactly 0: no coefficient gets
    // a level, and the DC block is a single 1.0 at SpatialBlock position 0.
    for (uint32_t n : {32u, 8u}) {
        LevelCase c(2, n, swtest::dct_bank(3));
        std::mt19937 rng(n);
        std::uniform_real_distribution<double> unit(0.0, 0.02);
        for (auto& p : c.psd) p = unit(rng);
        std::vector<uint8_t> mask(9, 0);
        mask[4] = 1;
        const std::vector<double> img(9, 0.5);
        c.prepare(mask, false, img, 3, 1, 1);
        ASSERT_EQ(c.nc[0], 0.0f);
        const float dc = c.run(1.5);
        for (float level : c.levels) EXPECT_EQ(level, 0.0f);
        double acc = 0.0;
        for (uint32_t v = 0; v < n; ++v) {
            for (uint32_t u = 0; u <= n / 2; ++u) {
                const double p = c.psd[u + n * v];
                acc += (u == 0 || u == n / 2) ? p : p + p;
            }
        }
        EXPECT_EQ(dc, static_cast<float>(std::sqrt(acc / (static_cast<double>(n) * n)) * 1.5)) << n;
    }
}

TEST(NoiseLevels, FactorZeroGivesZeroLevels) {
    LevelCase c(3, 32, swtest::dct_bank(5));
    std::fill(c.psd.begin(), c.psd.end(), 0.04);
    std::vector<uint8_t> mask(25, 1);
    std::vector<double> img(49);
    for (uint32_t i = 0; i < img.size(); ++i) img[i] = 0.1 + 0.01 * i;
    c.prepare(mask, true, img, 7, 3, 3);
    EXPECT_EQ(c.run(0.0), 0.0f);
    for (float level : c.levels) EXPECT_EQ(level, 0.0f);
}

TEST(NoiseLevels, FourPixelLayoutInBothOrientations) {
    // Shape pixels at (box row, box column) (0,1), (1,0), (1,1), (1,2), box
    // position i + 5j; packed slots hold 1, 2, 3, ... in block column order.
    const uint32_t n = 8;
    std::vector<uint8_t> mask(25, 0);
    mask[0 + 5 * 1] = mask[1 + 5 * 0] = mask[1 + 5 * 1] = mask[1 + 5 * 2] = 1;
    const sw::RuntimeBox box{3};
    for (bool by_columns : {false, true}) {
        std::vector<int32_t> counts(5, 0);
        std::vector<float> packed(25, 0.0f);
        std::vector<std::pair<uint32_t, float>> expected;
        if (!by_columns) {
            counts[0] = 1;  // box row 0: (0,1)
            counts[1] = 3;  // box row 1: (1,0), (1,1), (1,2)
            packed = {1, 0, 0, 0, 0, 2, 3, 4};
            expected = {{n, 1.0f}, {1, 2.0f}, {1 + n, 3.0f}, {1 + 2 * n, 4.0f}};
        } else {
            counts[0] = 1;  // box column 0: (1,0)
            counts[1] = 2;  // box column 1: (0,1), (1,1)
            counts[2] = 1;  // box column 2: (1,2)
            packed = {1, 0, 0, 0, 0, 2, 3, 0, 0, 0, 4};
            expected = {{n, 1.0f}, {1, 2.0f}, {1 + n, 3.0f}, {2 + n, 4.0f}};
        }
        packed.resize(25, 0.0f);
        std::vector<float> spatial(n * n, 0.0f);
        sw::lay_out_packed(box, packed.data(), counts.data(), mask.data(), by_columns,
                           spatial.data(), n);
        std::vector<float> want(n * n, 0.0f);
        for (const auto& e : expected) want[e.first] = e.second;
        EXPECT_EQ(want, spatial) << "by_columns " << by_columns;
    }
}

TEST(NoiseLevels, DcBlockFollowsTheShapeAndLevelsSkipZeroCoefficients) {
    const uint32_t n = 8;
    for (bool by_columns : {false, true}) {
        LevelCase c(3, n, swtest::dct_bank(5));
        std::fill(c.psd.begin(), c.psd.end(), 0.01);
        std::vector<uint8_t> mask(25, 0);
        mask[0 + 5 * 1] = mask[1 + 5 * 0] = mask[1 + 5 * 1] = mask[1 + 5 * 2] = 1;
        std::vector<double> img(25);
        for (uint32_t q = 0; q < 25; ++q) img[q] = 0.1 + 0.03 * q;
        c.prepare(mask, by_columns, img, 5, 2, 2);
        c.nc[0] = 0.0f;  // a support coefficient that happens to be exactly 0
        c.run(1.0);
        EXPECT_EQ(c.levels[0], 0.0f);
        EXPECT_NEAR(c.levels[1], 0.1f, 1e-6f);
        // The call leaves the DC block, 1/sqrt(4) on the four pixels, laid
        // out transposed when packing by columns.
        std::vector<float> want(n * n, 0.0f);
        const std::vector<uint32_t> at = by_columns ? std::vector<uint32_t>{1, n, 1 + n, 2 + n}
                                                    : std::vector<uint32_t>{n, 1, 1 + n, 1 + 2 * n};
        for (uint32_t p : at) want[p] = 0.5f;
        EXPECT_EQ(want, c.spatial) << "by_columns " << by_columns;
    }
}

}  // namespace
