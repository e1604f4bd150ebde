#include "spectrum/block_spectrum.h"

#include <cstddef>
#include <utility>

#include "spectrum/fft32.h"
#include "spectrum/twiddle_constants.h"

namespace sw {
namespace {

struct Cx {
    float re;
    float im;
};

inline float fl(double x) { return static_cast<float>(x); }

// v * exp(-i * K * pi / 16) for the first axis, K = 0..8: an exchange for a
// quarter turn, one product of a float sum or difference for an eighth turn,
// otherwise both products and their sum in double, rounded once.
template <int K>
inline Cx rotate(Cx v) {
    static_assert(K >= 0 && K <= 8, "angle out of range");
    if constexpr (K == 0) {
        return v;
    } else if constexpr (K == 8) {
        return {v.im, -v.re};
    } else if constexpr (K == 4) {
        return {fl((v.re + v.im) * kC4), fl((v.im - v.re) * kC4)};
    } else {
        constexpr double c = kCos[K];
        constexpr double s = kSin[K];
        return {fl(static_cast<double>(v.re) * c + static_cast<double>(v.im) * s),
                fl(static_cast<double>(v.im) * c - static_cast<double>(v.re) * s)};
    }
}

// Real DFT of length LEN over x[0], x[stride], ...: writes the half spectrum
// y[0 .. LEN/2]. Decimation in time on real data: with E and O the half
// spectra of the even and odd samples, for k = 0 .. LEN/4
//   t = w^k O(k),  y[k] = E(k) + t,  y[LEN/2 - k] = conj(E(k) - t).
template <int LEN>
struct RealDft {
    template <int k>
    static inline void combine(const Cx* e, const Cx* o, Cx* y) {
        const Cx t = rotate<k * (32 / LEN)>(o[k]);
        y[k] = {e[k].re + t.re, e[k].im + t.im};
        if constexpr (2 * k != LEN / 2) {
            y[LEN / 2 - k] = {e[k].re - t.re, -(e[k].im - t.im)};
        }
    }

    template <int... ks>
    static inline void combine_all(const Cx* e, const Cx* o, Cx* y,
                                   std::integer_sequence<int, ks...> /*unused*/) {
        (combine<ks>(e, o, y), ...);
    }

    static inline void run(const float* x, int stride, Cx* y) {
        Cx e[LEN / 4 + 1];
        Cx o[LEN / 4 + 1];
        RealDft<LEN / 2>::run(x, 2 * stride, e);
        RealDft<LEN / 2>::run(x + stride, 2 * stride, o);
        combine_all(e, o, y, std::make_integer_sequence<int, LEN / 4 + 1>{});
    }
};

template <>
struct RealDft<2> {
    static inline void run(const float* x, int stride, Cx* y) {
        y[0] = {x[0] + x[stride], 0.0f};
        y[1] = {x[0] - x[stride], 0.0f};
    }
};

}  // namespace

void real_dft32(const float* x, float* y) {
    Cx half[17];
    RealDft<32>::run(x, 1, half);
    half[0].im = 0.0f;
    half[16].im = 0.0f;
    for (int k = 0; k <= 16; ++k) {
        y[2 * k] = half[k].re;
        y[2 * k + 1] = half[k].im;
    }
}

void block_spectrum_fast32(const float* spatial_block, float* row_spectrum,
                           float* block_spectrum) {
    float column[34];
    for (int b = 0; b < 32; ++b) {
        real_dft32(spatial_block + 32 * b, column);
        for (int k = 0; k <= 16; ++k) {
            row_spectrum[2 * (32 * k + b)] = column[2 * k];
            row_spectrum[2 * (32 * k + b) + 1] = column[2 * k + 1];
        }
    }
    for (int k = 0; k <= 16; ++k) {
        fft32(row_spectrum + 64 * k, block_spectrum + 64 * k);
    }
}

void block_spectrum_table(const float* spatial_block, float* row_spectrum,
                          float* block_spectrum, const float* twiddle, uint32_t n) {
    const uint32_t half = n / 2 + 1;
    // First axis: R(b, u) = sum_a x(a, b) T(u, a).
    for (uint32_t b = 0; b < n; ++b) {
        const float* x = spatial_block + static_cast<size_t>(n) * b;
        for (uint32_t u = 0; u < half; ++u) {
            const float* t = twiddle + 2 * static_cast<size_t>(n) * u;
            float re = x[0] * t[0];
            float im = x[0] * t[1];
            for (uint32_t a = 1; a < n; ++a) {
                re = re + x[a] * t[2 * a];
                im = im + x[a] * t[2 * a + 1];
            }
            float* r = row_spectrum + 2 * (static_cast<size_t>(b) * half + u);
            r[0] = re;
            r[1] = im;
        }
    }
    // Second axis: S(u, v) = sum_b R(b, u) T(v, b).
    for (uint32_t u = 0; u < half; ++u) {
        for (uint32_t v = 0; v < n; ++v) {
            const float* t = twiddle + 2 * static_cast<size_t>(n) * v;
            // Term b: (p c - q s, q c + p s), four float products.
            const float* r = row_spectrum + 2 * static_cast<size_t>(u);
            float re = r[0] * t[0] - r[1] * t[1];
            float im = r[1] * t[0] + r[0] * t[1];
            for (uint32_t b = 1; b < n; ++b) {
                r = row_spectrum + 2 * (static_cast<size_t>(b) * half + u);
                const float p = r[0];
                const float q = r[1];
                const float c = t[2 * b];
                const float s = t[2 * b + 1];
                re = re + (p * c - q * s);
                im = im + (q * c + p * s);
            }
            float* out = block_spectrum + 2 * (static_cast<size_t>(u) * n + v);
            out[0] = re;
            out[1] = im;
        }
    }
}

void block_spectrum(const float* spatial_block, float* row_spectrum, float* block_spectrum,
                    const float* twiddle, uint32_t n) {
    if (n == 32) {
        block_spectrum_fast32(spatial_block, row_spectrum, block_spectrum);
    } else {
        block_spectrum_table(spatial_block, row_spectrum, block_spectrum, twiddle, n);
    }
}

}  // namespace sw
