// Three-stage decimation-in-time network: eight 4-point transforms over the
// residues modulo 8, two radix-4 combinations into the even and odd 16-point
// halves, and a final radix-2 combination. The code is straight-line: each
// helper below is instantiated for compile-time twiddle angles and called
// once per use, so no loop runs over the data and no table is consulted.
#include "spectrum/fft32.h"

#include "spectrum/twiddle_constants.h"

namespace sw {
namespace {

struct Cx {
    float re;
    float im;
};

inline float fl(double x) { return static_cast<float>(x); }
inline Cx add(Cx a, Cx b) { return {a.re + b.re, a.im + b.im}; }
inline Cx sub(Cx a, Cx b) { return {a.re - b.re, a.im - b.im}; }
inline Cx times_minus_i(Cx a) { return {a.im, -a.re}; }
inline Cx times_plus_i(Cx a) { return {-a.im, a.re}; }

// v * exp(-i * K * pi / 16).
template <int K>
inline Cx rotate(Cx v) {
    static_assert(K >= 0 && K < 32, "angle out of range");
    if constexpr (K == 0) {
        return v;
    } else if constexpr (K == 8) {
        return {v.im, -v.re};
    } else if constexpr (K == 4 || K == 12) {
        const float p = fl(v.re * kC4);
        const float q = fl(v.im * kC4);
        if constexpr (K == 4) {
            return {p + q, q - p};
        } else {
            return {q - p, -(p + q)};
        }
    } else {
        constexpr double c = kCos[K];
        constexpr double s = kSin[K];
        return {fl(v.re * c) + fl(v.im * s), fl(v.im * c) - fl(v.re * s)};
    }
}

// 4-point transform of (x0, x1, x2, x3) = (x[r], x[r+8], x[r+16], x[r+24]).
inline void four_point(Cx x0, Cx x1, Cx x2, Cx x3, Cx* y) {
    const Cx a0 = add(x0, x2);
    const Cx a1 = sub(x0, x2);
    const Cx b0 = add(x1, x3);
    const Cx b1 = sub(x1, x3);
    y[0] = add(a0, b0);
    y[2] = sub(a0, b0);
    y[1] = {a1.re + b1.im, a1.im - b1.re};
    y[3] = {a1.re - b1.im, a1.im + b1.re};
}

// Radix-4 combination for one k of a 16-point half whose residue classes
// are y0..y3 (each the 4-point result of one class).
template <int k>
inline void radix4(const Cx* y0, const Cx* y1, const Cx* y2, const Cx* y3, Cx* z) {
    const Cx a = y0[k];
    const Cx b = rotate<2 * k>(y1[k]);
    const Cx c = rotate<4 * k>(y2[k]);
    const Cx d = rotate<6 * k>(y3[k]);
    const Cx t0 = add(a, c);
    const Cx t1 = sub(a, c);
    const Cx u0 = add(b, d);
    const Cx u1 = sub(b, d);
    z[k] = add(t0, u0);
    z[k + 8] = sub(t0, u0);
    z[k + 4] = add(t1, times_minus_i(u1));
    z[k + 12] = add(t1, times_plus_i(u1));
}

template <int k>
inline void radix2(const Cx* e, const Cx* o, Cx* x) {
    const Cx t = rotate<k>(o[k]);
    x[k] = add(e[k], t);
    x[k + 16] = sub(e[k], t);
}

}  // namespace

void fft32(const float* in, float* out) {
    Cx x[32];
    for (int n = 0; n < 32; ++n) x[n] = {in[2 * n], in[2 * n + 1]};

    Cx y[8][4];
    four_point(x[0], x[8], x[16], x[24], y[0]);
    four_point(x[1], x[9], x[17], x[25], y[1]);
    four_point(x[2], x[10], x[18], x[26], y[2]);
    four_point(x[3], x[11], x[19], x[27], y[3]);
    four_point(x[4], x[12], x[20], x[28], y[4]);
    four_point(x[5], x[13], x[21], x[29], y[5]);
    four_point(x[6], x[14], x[22], x[30], y[6]);
    four_point(x[7], x[15], x[23], x[31], y[7]);

    Cx e[16];
    Cx o[16];
    radix4<0>(y[0], y[2], y[4], y[6], e);
    radix4<1>(y[0], y[2], y[4], y[6], e);
    radix4<2>(y[0], y[2], y[4], y[6], e);
    radix4<3>(y[0], y[2], y[4], y[6], e);
    radix4<0>(y[1], y[3], y[5], y[7], o);
    radix4<1>(y[1], y[3], y[5], y[7], o);
    radix4<2>(y[1], y[3], y[5], y[7], o);
    radix4<3>(y[1], y[3], y[5], y[7], o);

    Cx r[32];
    radix2<0>(e, o, r);
    radix2<1>(e, o, r);
    radix2<2>(e, o, r);
    radix2<3>(e, o, r);
    radix2<4>(e, o, r);
    radix2<5>(e, o, r);
    radix2<6>(e, o, r);
    radix2<7>(e, o, r);
    radix2<8>(e, o, r);
    radix2<9>(e, o, r);
    radix2<10>(e, o, r);
    radix2<11>(e, o, r);
    radix2<12>(e, o, r);
    radix2<13>(e, o, r);
    radix2<14>(e, o, r);
    radix2<15>(e, o, r);

    for (int k = 0; k < 32; ++k) {
        out[2 * k] = r[k].re;
        out[2 * k + 1] = r[k].im;
    }
}

}  // namespace sw
