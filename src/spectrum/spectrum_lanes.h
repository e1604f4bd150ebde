// Weighted squared-spectrum sums of several blocks at once, one block per
// vector lane. Every lane performs the float and double operations of
// block_spectrum() and spectrum_sum() in their order, so each lane's sum has
// the bits of the reference computation on its own block.
//
// This file has no include guard on purpose: spectrum_kernels.cpp includes
// it once per instruction set, inside a namespace of its own that declares
// kLanes (float lanes per vector, 1 for plain scalars), with the macro
// SHAPEWIENER_LANES defined to the same number, under that instruction
// set's target attribute. It must not include anything itself.
//
// Zero lines are skipped. Only block columns b < W and rows a < W are
// non-zero, so the first axis runs over W columns only and treats the rows
// past a multiple of 8 above W as absent, and the second axis leaves out the
// absent columns. Leaving out a zero operand changes nothing but possibly the
// sign of a zero: x + 0 and x - 0 are x for every non-zero x (infinities and
// NaN included), a product of a zero with a finite non-zero constant is a
// zero, and a sum of zeros is a zero. No result depends on the sign of a
// zero, since only squared magnitudes leave the spectrum.

namespace {

#if SHAPEWIENER_LANES == 1
struct LT {
    typedef float F;
    typedef double D;
    static inline D widen(F x) { return static_cast<double>(x); }
    static inline F narrow(D x) {
        F f = static_cast<float>(x);
        SHAPEWIENER_KEEP(f);
        return f;
    }
    static inline F splat(float x) { return x; }
    static inline D splat_d(double x) { return x; }
    static inline double lane(D v, uint32_t) { return v; }
};
#else
struct LT {
    typedef float F __attribute__((vector_size(4 * SHAPEWIENER_LANES)));
    typedef double D __attribute__((vector_size(8 * SHAPEWIENER_LANES)));
    static inline D widen(F x) { return __builtin_convertvector(x, D); }
    static inline F narrow(D x) {
        F f = __builtin_convertvector(x, F);
        SHAPEWIENER_KEEP(f);
        return f;
    }
    static inline F splat(float x) { return F{} + x; }
    static inline D splat_d(double x) { return D{} + x; }
    static inline double lane(D v, uint32_t i) { return v[i]; }
};
#endif
static_assert(sizeof(LT::F) == 4 * kLanes, "lane count");

using F = LT::F;
using D = LT::D;

struct C {
    F re;
    F im;
};

inline F mul(F x, double c) { return LT::narrow(LT::widen(x) * c); }
inline C add(C a, C b) { return {a.re + b.re, a.im + b.im}; }
inline C sub(C a, C b) { return {a.re - b.re, a.im - b.im}; }
inline C times_minus_i(C a) { return {a.im, -a.re}; }
inline C times_plus_i(C a) { return {-a.im, a.re}; }

// ---- First axis: real 32-point DFT (as real_dft32) ----

// v * exp(-i K pi / 16), K = 0..8, with the first axis's rounding.
template <int K>
inline C rotate_real(C v) {
    if constexpr (K == 0) {
        return v;
    } else if constexpr (K == 8) {
        return {v.im, -v.re};
    } else if constexpr (K == 4) {
        return {mul(v.re + v.im, kC4), mul(v.im - v.re, kC4)};
    } else {
        constexpr double c = kCos[K];
        constexpr double s = kSin[K];
        const D re = LT::widen(v.re);
        const D im = LT::widen(v.im);
        return {LT::narrow(re * c + im * s), LT::narrow(im * c - re * s)};
    }
}

// Half spectrum of x[OFF], x[OFF + STRIDE], ... (LEN values) where rows at
// or past NZ are zero. The first and the middle output of a real transform
// are real: operations on their zero imaginary parts are left out.
template <int LEN, int OFF, int STRIDE, int NZ>
struct RealDft {
    template <int k>
    static inline void combine(const C* e, const C* o, C* y) {
        if constexpr (k == 0) {
            // e[0] and o[0] are real (zero imaginary parts), and so are
            // y[0] and y[LEN/2].
            const F zero = LT::splat(0.0f);
            y[0] = {e[0].re + o[0].re, zero};
            y[LEN / 2] = {e[0].re - o[0].re, zero};
        } else if constexpr (4 * k == LEN) {
            // e[k] and o[k] are real: a quarter turn of o[k] leaves only -o[k].re.
            y[k] = {e[k].re, -o[k].re};
        } else {
            const C t = rotate_real<k * (32 / LEN)>(o[k]);
            y[k] = {e[k].re + t.re, e[k].im + t.im};
            y[LEN / 2 - k] = {e[k].re - t.re, -(e[k].im - t.im)};
        }
    }
    template <int... ks>
    static inline void combine_all(const C* e, const C* o, C* y, std::integer_sequence<int, ks...>) {
        (combine<ks>(e, o, y), ...);
    }
    static inline void run(const F* x, C* y) {
        C e[LEN / 4 + 1];
        C o[LEN / 4 + 1];
        RealDft<LEN / 2, OFF, 2 * STRIDE, NZ>::run(x, e);
        RealDft<LEN / 2, OFF + STRIDE, 2 * STRIDE, NZ>::run(x, o);
        combine_all(e, o, y, std::make_integer_sequence<int, LEN / 4 + 1>{});
    }
};

template <int OFF, int STRIDE, int NZ>
struct RealDft<2, OFF, STRIDE, NZ> {
    static inline void run(const F* x, C* y) {
        const F zero = LT::splat(0.0f);
        if constexpr (OFF + STRIDE < NZ) {
            y[0] = {x[OFF] + x[OFF + STRIDE], zero};
            y[1] = {x[OFF] - x[OFF + STRIDE], zero};
        } else {
            y[0] = {x[OFF], zero};
            y[1] = {x[OFF], zero};
        }
    }
};

// ---- Second axis: fft32 ----

template <int K>
inline C rotate(C v) {
    if constexpr (K == 0) {
        return v;
    } else if constexpr (K == 8) {
        return {v.im, -v.re};
    } else if constexpr (K == 4 || K == 12) {
        const F p = mul(v.re, kC4);
        const F q = mul(v.im, kC4);
        if constexpr (K == 4) {
            return {p + q, q - p};
        } else {
            return {q - p, -(p + q)};
        }
    } else {
        constexpr double c = kCos[K];
        constexpr double s = kSin[K];
        return {mul(v.re, c) + mul(v.im, s), mul(v.im, c) - mul(v.re, s)};
    }
}

// 4-point transform of x[r], x[r+8], x[r+16], x[r+24]; inputs at or past
// NZ are zero.
template <int R, int NZ>
inline void four_point(const C* x, C* y) {
    const C x0 = x[R];
    if constexpr (R + 8 >= NZ) {
        y[0] = x0;
        y[1] = x0;
        y[2] = x0;
        y[3] = x0;
    } else {
        const C x1 = x[R + 8];
        C a0 = x0, a1 = x0, b0 = x1, b1 = x1;
        if constexpr (R + 16 < NZ) {
            a0 = add(x0, x[R + 16]);
            a1 = sub(x0, x[R + 16]);
        }
        if constexpr (R + 24 < NZ) {
            b0 = add(x1, x[R + 24]);
            b1 = sub(x1, x[R + 24]);
        }
        y[0] = add(a0, b0);
        y[2] = sub(a0, b0);
        y[1] = {a1.re + b1.im, a1.im - b1.re};
        y[3] = {a1.re - b1.im, a1.im + b1.re};
    }
}

template <int k>
inline void radix4(const C* y0, const C* y1, const C* y2, const C* y3, C* z) {
    const C a = y0[k];
    const C b = rotate<2 * k>(y1[k]);
    const C c = rotate<4 * k>(y2[k]);
    const C d = rotate<6 * k>(y3[k]);
    const C t0 = add(a, c);
    const C t1 = sub(a, c);
    const C u0 = add(b, d);
    const C u1 = sub(b, d);
    z[k] = add(t0, u0);
    z[k + 8] = sub(t0, u0);
    z[k + 4] = add(t1, times_minus_i(u1));
    z[k + 12] = add(t1, times_plus_i(u1));
}

template <int k>
inline void radix2_power(const C* e, const C* o, F* power) {
    const C t = rotate<k>(o[k]);
    const C lo = add(e[k], t);
    const C hi = sub(e[k], t);
    power[k] = lo.re * lo.re + lo.im * lo.im;
    power[k + 16] = hi.re * hi.re + hi.im * hi.im;
}

template <int... ks>
inline void radix2_all(const C* e, const C* o, F* power, std::integer_sequence<int, ks...>) {
    (radix2_power<ks>(e, o, power), ...);
}

// |fft32(x)|^2 into power[0..31], x[b] zero for b >= NZ.
template <int NZ>
inline void fft32_power(const C* x, F* power) {
    C y[8][4];
    four_point<0, NZ>(x, y[0]);
    four_point<1, NZ>(x, y[1]);
    four_point<2, NZ>(x, y[2]);
    four_point<3, NZ>(x, y[3]);
    four_point<4, NZ>(x, y[4]);
    four_point<5, NZ>(x, y[5]);
    four_point<6, NZ>(x, y[6]);
    four_point<7, NZ>(x, y[7]);
    C e[16];
    C o[16];
    radix4<0>(y[0], y[2], y[4], y[6], e);
    radix4<1>(y[0], y[2], y[4], y[6], e);
    radix4<2>(y[0], y[2], y[4], y[6], e);
    radix4<3>(y[0], y[2], y[4], y[6], e);
    radix4<0>(y[1], y[3], y[5], y[7], o);
    radix4<1>(y[1], y[3], y[5], y[7], o);
    radix4<2>(y[1], y[3], y[5], y[7], o);
    radix4<3>(y[1], y[3], y[5], y[7], o);
    radix2_all(e, o, power, std::make_integer_sequence<int, 16>{});
}

// ---- Weighted sum (as spectrum_sum) ----

// power[u * n + v]; weight[v * (half + 1) + u] is the doubled or single
// spectrum value. Columns v outer, rows u inner, in double; lane i's sum
// goes to sums[i]. (Writing the sums here, rather than returning the
// vector, keeps a wide vector out of any call interface.)
inline void weighted_sum(const F* power, const double* weight, uint32_t n, uint32_t rows,
                         double* sums) {
    D acc = LT::splat_d(0.0);
    for (uint32_t v = 0; v < n; ++v) {
        const double* wv = weight + static_cast<size_t>(rows) * v;
        for (uint32_t u = 0; u < rows; ++u) {
            acc = acc + wv[u] * LT::widen(power[static_cast<size_t>(u) * n + v]);
        }
    }
    for (uint32_t i = 0; i < kLanes; ++i) sums[i] = LT::lane(acc, i);
}

// ---- N = 32 ----

template <int NZ>
void sums32(const SpectrumSumsJob& job, double* sums) {
    const uint32_t w = job.w;
    const F* x = reinterpret_cast<const F*>(job.blocks);
    C* rows = reinterpret_cast<C*>(job.scratch);           // 17 x 32
    F* power = reinterpret_cast<F*>(job.scratch) + 2 * 17 * 32;  // 17 x 32
    const F zero = LT::splat(0.0f);
    if (!job.same_scratch) {  // the columns past w stay zero from batch to batch
        for (uint32_t k = 0; k <= 16; ++k) {
            for (uint32_t b = w; b < static_cast<uint32_t>(NZ); ++b) rows[32 * k + b] = {zero, zero};
        }
    }
    for (uint32_t b = 0; b < w; ++b) {
        C half[17];
        RealDft<32, 0, 1, NZ>::run(x + 32 * static_cast<size_t>(b), half);
        half[0].im = zero;
        half[16].im = zero;
        for (uint32_t k = 0; k <= 16; ++k) rows[32 * k + b] = half[k];
    }
    for (uint32_t k = 0; k <= 16; ++k) fft32_power<NZ>(rows + 32 * k, power + 32 * k);
    weighted_sum(power, job.weight, 32, 17, sums);
}

// ---- Any N: direct DFT with the twiddle table ----

void sums_table(const SpectrumSumsJob& job, double* sums) {
    const uint32_t n = job.n;
    const uint32_t w = job.w;
    const uint32_t rows = n / 2 + 1;
    const float* tw = job.twiddle;
    const F* x = reinterpret_cast<const F*>(job.blocks);
    C* first = reinterpret_cast<C*>(job.scratch);  // w x rows, R(b, u) at b * rows + u
    // First axis: R(b, u) = sum over a < w of x(a, b) T(u, a).
    for (uint32_t b = 0; b < w; ++b) {
        const F* col = x + static_cast<size_t>(n) * b;
        for (uint32_t u = 0; u < rows; ++u) {
            const float* t = tw + 2 * static_cast<size_t>(n) * u;
            F re = col[0] * t[0];
            F im = col[0] * t[1];
            for (uint32_t a = 1; a < w; ++a) {
                re = re + col[a] * t[2 * a];
                im = im + col[a] * t[2 * a + 1];
            }
            first[static_cast<size_t>(b) * rows + u] = {re, im};
        }
    }
    // Second axis and the weighted sum, in the sum's order: S(u, v) over b < w.
    D acc = LT::splat_d(0.0);
    for (uint32_t v = 0; v < n; ++v) {
        const float* t = tw + 2 * static_cast<size_t>(n) * v;
        const double* wv = job.weight + static_cast<size_t>(rows) * v;
        for (uint32_t u = 0; u < rows; ++u) {
            const C r0 = first[u];
            F re = r0.re * t[0] - r0.im * t[1];
            F im = r0.im * t[0] + r0.re * t[1];
            for (uint32_t b = 1; b < w; ++b) {
                const C r = first[static_cast<size_t>(b) * rows + u];
                const float c = t[2 * b];
                const float s = t[2 * b + 1];
                re = re + (r.re * c - r.im * s);
                im = im + (r.im * c + r.re * s);
            }
            const F power = re * re + im * im;
            acc = acc + wv[u] * LT::widen(power);
        }
    }
    for (uint32_t i = 0; i < kLanes; ++i) sums[i] = LT::lane(acc, i);
}

}  // namespace

// Walks every (column, slot) of every run's feeds with its lanes' values.
template <class Visit>
inline void each_response(const ResponseLayout& layout, const ResponseRun* runs, uint32_t run_count,
                          float* blocks, Visit visit) {
    const uint32_t w = layout.w;
    F* x = reinterpret_cast<F*>(blocks);
    for (uint32_t q = 0; q < run_count; ++q) {
        const ResponseRun& run = runs[q];
        const uint32_t len_r = static_cast<uint32_t>(layout.row_count[run.row]);
        const double* t_r = layout.table[len_r - 1];
        for (uint32_t p = 0; p < len_r; ++p) {
            const uint32_t j = layout.feed_column[run.row * w + p];
            const uint32_t f = layout.feed_index[run.row * w + p];
            const uint32_t len = static_cast<uint32_t>(layout.column_count[j]);
            // T_{L'}(k, p) of each lane as a float, widened; 0 in other lanes.
            alignas(64) double a[kLanes] = {};
            for (uint32_t i = 0; i < run.count; ++i) {
                a[run.first + i] = static_cast<float>(t_r[p * len_r + run.index[i]]);
            }
            D av;
            __builtin_memcpy(&av, a, sizeof av);
            visit(av, layout.table[len - 1] + f, len, x + j, layout.along + j * w,
                  layout.line_length[j]);
        }
    }
}

void lay_out(const ResponseLayout& layout, const ResponseRun* runs, uint32_t run_count,
             float* blocks) {
    const size_t stride = layout.n;
    each_response(layout, runs, run_count, blocks,
                  [&](D a, const double* t, uint32_t len, F* column, const uint32_t* along,
                      uint32_t slots) {
                      for (uint32_t s = 0; s < slots; ++s) {
                          F& cell = column[along[s] * stride];
                          cell = cell + LT::narrow(a * t[s * len]);
                      }
                  });
}

void clear_out(const ResponseLayout& layout, const ResponseRun* runs, uint32_t run_count,
               float* blocks) {
    const size_t stride = layout.n;
    const F zero = LT::splat(0.0f);
    each_response(layout, runs, run_count, blocks,
                  [&](D, const double*, uint32_t, F* column, const uint32_t* along, uint32_t slots) {
                      for (uint32_t s = 0; s < slots; ++s) column[along[s] * stride] = zero;
                  });
}

void spectrum_sums(const SpectrumSumsJob& job, double* sums) {
    if (job.n != 32) {
        sums_table(job, sums);
    } else if (job.w <= 8) {
        sums32<8>(job, sums);
    } else if (job.w <= 16) {
        sums32<16>(job, sums);
    } else if (job.w <= 24) {
        sums32<24>(job, sums);
    } else {
        sums32<32>(job, sums);
    }
}
