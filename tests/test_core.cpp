// Properties of the core's parts that the golden checksums cannot explain
// when they fail: scalar rounding and dispatch, the FFTs against a plain
// DFT and both block-spectrum paths. (The shape transform's round trip and
// the levels of white noise: test_fast_paths.cpp.)
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "driver/workspace.h"
#include "mex/gateway.h"
#include "shapewiener/filter.h"
#include "spectrum/block_spectrum.h"
#include "spectrum/fft32.h"
#include "support/test_args.h"

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

}  // namespace
