// Properties of the core's parts that the golden checksums cannot explain
// when they fail: scalar rounding and dispatch, the FFTs against a plain
// DFT, both block-spectrum paths, the shape transform's round trip and
// energy, and the noise levels of white noise.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "driver/box.h"
#include "driver/workspace.h"
#include "mex/gateway.h"
#include "shape/gather.h"
#include "shapewiener/filter.h"
#include "spectrum/block_spectrum.h"
#include "spectrum/fft32.h"
#include "spectrum/noise_level.h"
#include "support/test_args.h"
#include "transform/shape_transform.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

TEST(RoundToUnsigned, RoundsHalvesUpAndSaturates) {
    const double inf = std::numeric_limits<double>::infinity();
    const std::pair<double, uint32_t> cases[] = {{-7.2, 0},
                                                 {-0.5, 0},
                                                 {-0.0, 0},
                                                 {0.49999999999999994, 1},
                                                 {2.5, 3},
                                                 {3.49, 3},
                                                 {3.5, 4},
                                                 {4294967294.4, 4294967294u},
                                                 {1e10, 4294967295u},
                                                 {inf, 4294967295u},
                                                 {-inf, 0},
                                                 {std::nan(""), 2147483648u}};
    for (const auto& c : cases) EXPECT_EQ(sw::round_to_unsigned(c.first), c.second) << c.first;
}

TEST(Dispatch, VariantsServeFourToElevenOnly) {
    for (uint32_t h = 0; h < 14; ++h) EXPECT_EQ(sw::variant_for(h) != nullptr, h >= 4 && h <= 11) << h;
    EXPECT_EQ(sw::variant_for(7), &sw::mexFunction_h<7>);
}

std::complex<double> dft_term(const std::vector<float>& x, int k, int len, bool complex_input) {
    std::complex<double> acc = 0.0;
    for (int n = 0; n < len; ++n) {
        const std::complex<double> v = complex_input ? std::complex<double>(x[2 * n], x[2 * n + 1]) : x[n];
        acc += v * std::polar(1.0, -2.0 * kPi * n * k / len);
    }
    return acc;
}

TEST(Fft32, MatchesTheDftAndWorksInPlace) {
    std::mt19937 rng(7);
    for (int trial = 0; trial < 100; ++trial) {
        std::vector<float> in(64), out(64), half(34);
        for (auto& v : in) v = static_cast<float>(2.0 * swtest::unit(rng) - 1.0);
        sw::fft32(in.data(), out.data());
        sw::real_dft32(in.data(), half.data());  // the first 32 values as a real column
        double energy = 0.0;
        for (float v : in) energy += static_cast<double>(v) * v;
        const double bound = 8.0 * 5.96e-8 * std::sqrt(32.0 * energy);  // a few ulps of the largest output
        for (int k = 0; k < 32; ++k) {
            const std::complex<double> want = dft_term(in, k, 32, true);
            ASSERT_NEAR(out[2 * k], want.real(), bound) << k;
            ASSERT_NEAR(out[2 * k + 1], want.imag(), bound) << k;
            if (k > 16) continue;
            const std::complex<double> real_want = dft_term(in, k, 32, false);
            ASSERT_NEAR(half[2 * k], real_want.real(), bound) << k;
            ASSERT_NEAR(half[2 * k + 1], (k == 0 || k == 16) ? 0.0 : real_want.imag(), bound) << k;
        }
        std::vector<float> same = in;
        sw::fft32(same.data(), same.data());
        ASSERT_EQ(0, std::memcmp(out.data(), same.data(), sizeof(float) * 64));
    }
}

// Spectra of one n x n block by the table path (and the fast path for 32).
struct Spectra {
    explicit Spectra(uint32_t n_in)
        : n(n_in), spatial(n * n, 0.0f), row(2 * n * (n / 2 + 1)), block(row.size()), table(2 * n * n) {
        sw::twiddle_fill(table.data(), n);
    }
    std::vector<float> run(bool fast) {
        fast ? sw::block_spectrum_fast32(spatial.data(), row.data(), block.data())
             : sw::block_spectrum_table(spatial.data(), row.data(), block.data(), table.data(), n);
        return block;
    }
    uint32_t n;
    std::vector<float> spatial, row, block, table;
};

TEST(BlockSpectrum, BothPathsComputeTheTwoDimensionalDft) {
    // The fast path has the sign of exp(-i...), the table path exp(+i...):
    // complex conjugates for real blocks.
    std::mt19937 rng(3);
    for (uint32_t n : {32u, 32u, 2u, 6u, 20u}) {
        Spectra s(n);
        const uint32_t used = std::min(n, 13u);  // a W x W corner holds the data
        double scale = 0.0;
        for (uint32_t b = 0; b < used; ++b) {
            for (uint32_t a = 0; a < used; ++a)
                scale += std::fabs(s.spatial[a + n * b] = static_cast<float>(swtest::unit(rng) - 0.5));
        }
        const double bound = 4e-6 * scale;
        const std::vector<float> table = s.run(false);
        const std::vector<float> fast = n == 32 ? s.run(true) : table;
        for (uint32_t u = 0; u <= n / 2; ++u) {
            for (uint32_t v = 0; v < n; ++v) {
                std::complex<double> want = 0.0;
                for (uint32_t b = 0; b < n; ++b) {
                    for (uint32_t a = 0; a < n; ++a) {
                        want += static_cast<double>(s.spatial[a + n * b]) *
                                std::polar(1.0, 2 * kPi * ((u * a + v * b) % n) / n);
                    }
                }
                const size_t i = 2 * (u * n + v);
                ASSERT_NEAR(table[i], want.real(), bound) << n << ": " << u << "," << v;
                ASSERT_NEAR(table[i + 1], want.imag(), bound) << n << ": " << u << "," << v;
                ASSERT_NEAR(fast[i], want.real(), bound) << u << "," << v;
                ASSERT_NEAR(fast[i + 1], n == 32 ? -want.imag() : want.imag(), bound) << u << "," << v;
            }
        }
    }
}

// A random shape (random masks, both orientations, W up to 21, DCT or random
// orthogonal bank), gathered, centred and transformed.
struct RandomShape {
    RandomShape(std::mt19937& rng, uint32_t max_h, bool random_bank)
        : box{static_cast<uint32_t>(1 + rng() % max_h)}, w(box.W()) {
        for (uint32_t len = 1; len <= w; ++len)
            bank.push_back(random_bank ? swtest::random_orthogonal(len, rng) : swtest::dct_matrix(len));
        for (const auto& t : bank) table.push_back(t.data());
        m = w + 2;
        std::vector<double> img(m * m);
        for (auto& v : img) v = swtest::unit(rng);
        std::vector<std::vector<uint8_t>> masks(8, std::vector<uint8_t>(w * w, 0));
        const double density = 0.05 + 0.5 * swtest::unit(rng);
        for (auto& mask : masks) {
            for (auto& b : mask) b = swtest::unit(rng) < density / 4;
        }
        masks[0][(box.H() - 1) * (w + 1)] = 1;  // never empty
        const uint8_t* ptrs[8];
        for (int d = 0; d < 8; ++d) ptrs[d] = masks[d].data();
        by_columns = rng() % 2 == 0;
        const uint32_t row = m / 2 - 1 + rng() % 3, col = m / 2 - 1 + rng() % 3;
        shape.resize(w * w);
        ng.resize(w * w);
        pg.resize(w * w);
        nc.assign(w * w, 7.0f);
        pc.assign(w * w, 7.0f);
        cc.resize(w);
        rc.resize(w);
        cursor.resize(w);
        g = sw::gather_shape(box, row, col, sw::clipped_box(row, col, m, m, box.H()), ptrs, by_columns,
                             img.data(), img.data(), m, shape.data(), ng.data(), pg.data(), cc.data(),
                             rc.data(), cursor.data());
        sw::remove_mean(box, g.noisy_mean, ng.data(), pg.data(), nc.data(), pc.data());
        centred = ng;
        sw::forward_transform(box, ng.data(), pg.data(), nc.data(), pc.data(), cc.data(), rc.data(),
                              g.max_column_count, table.data());
    }
    sw::RuntimeBox box;
    uint32_t w, m;
    bool by_columns;
    std::vector<std::vector<double>> bank;
    std::vector<const double*> table;
    std::vector<uint8_t> shape;
    std::vector<float> ng, pg, nc, pc, centred;
    std::vector<int32_t> cc, rc, cursor;
    sw::GatherResult g{};
};

TEST(ShapeTransform, RoundTripKeepsValuesAndEnergyOnRandomShapes) {
    std::mt19937 rng(20261123);
    for (int trial = 0; trial < 200; ++trial) {
        RandomShape s(rng, 11, trial % 2 == 0);
        const uint32_t w = s.w;
        double energy_in = 0.0, energy_out = 0.0;
        float largest = 0.0f;
        for (float v : s.centred) {
            energy_in += static_cast<double>(v) * v;
            largest = std::max(largest, std::fabs(v));
        }
        uint32_t support = 0;
        for (uint32_t r = 0; r < w; ++r) {
            for (uint32_t k = 0; k < w; ++k) {
                const bool inside =
                    static_cast<int32_t>(r) < s.g.max_column_count && static_cast<int32_t>(k) < s.rc[r];
                support += inside;
                energy_out += static_cast<double>(s.nc[r * w + k]) * s.nc[r * w + k];
                if (!inside) {
                    ASSERT_TRUE(s.nc[r * w + k] == 0.0f && s.pc[r * w + k] == 0.0f) << trial;
                }
            }
        }
        ASSERT_EQ(support, s.g.shape_size);
        ASSERT_NEAR(energy_out, energy_in, 1e-5 * energy_in + 1e-30) << trial;
        std::fill(s.ng.begin(), s.ng.end(), 0.0f);
        sw::inverse_transform(s.box, s.nc.data(), s.ng.data(), s.cc.data(), s.rc.data(), s.cursor.data(),
                              s.g.max_column_count, s.table.data());
        const float tolerance = 8.0f * std::numeric_limits<float>::epsilon() * std::max(largest, 1e-30f);
        for (uint32_t t = 0; t < w * w; ++t)
            ASSERT_NEAR(s.ng[t], s.centred[t], tolerance) << trial << " " << t;
        for (uint32_t r = 0; r < w; ++r) ASSERT_EQ(s.cursor[r], s.rc[r]);
    }
}

TEST(NoiseLevels, WhiteSpectrumGivesSigmaForEveryCoefficientAndTheMean) {
    std::mt19937 rng(99);
    for (int trial = 0; trial < 40; ++trial) {
        RandomShape s(rng, 6, trial % 2 == 1);
        const uint32_t n = trial % 4 == 0 ? 2 * (s.w / 2 + 1 + rng() % 4) : 32;
        Spectra sp(n);
        const double sigma = 0.05 + swtest::unit(rng);
        const std::vector<double> psd(n * n, sigma * sigma);
        const double factor = 0.5 + swtest::unit(rng);
        const sw::SpectrumContext ctx{n,
                                      n == 32 ? nullptr : sp.table.data(),
                                      sp.spatial.data(),
                                      sp.row.data(),
                                      sp.block.data(),
                                      psd.data(),
                                      factor};
        std::vector<float> levels(s.w * s.w, -1.0f);
        const float dc = sw::noise_levels(s.box, ctx, s.nc.data(), s.ng.data(), s.cc.data(), s.rc.data(),
                                          s.cursor.data(), s.g.max_column_count, s.table.data(),
                                          s.shape.data(), s.by_columns, s.g.shape_size, levels.data());
        const double want = sigma * factor;
        EXPECT_NEAR(dc, want, 2e-5 * want) << trial;
        for (uint32_t t = 0; t < s.w * s.w; ++t) {
            EXPECT_NEAR(levels[t], s.nc[t] != 0.0f ? want : 0.0, 2e-5 * want) << trial << " " << t;
        }
    }
}

}  // namespace
