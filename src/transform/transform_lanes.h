// One-dimensional products of the shape transforms with the outputs of a
// line side by side in lanes. Output i of a line with matrix m of length len
// and input x is the running float sum
//   acc = float(double(x[0]) * m[i]);  acc = float(double(acc) + double(x[s]) * m[i + s*len])
// for s = 1 .. len-1, exactly apply_row() of shape_transform.h; lane i
// performs these operations for output i, in double lanes. (The transposed
// products are the same products with the transposed matrix.) With
// SHAPEWIENER_FLOAT_SUMS set to 1 the matrix, the products and the sums are
// all float, in float lanes (apply_row_float(); twice the lanes per vector).
//
// Each step of a sum waits for the step before, so several sums run
// interleaved in registers: a line's outputs are cut into chunks of lanes,
// two inputs under the same matrix share its loads, and pieces of lines of
// similar length run together (about eight sums in flight), going on with
// fewer as the shorter ones end.
//
// This file has no include guard on purpose: transform_kernels.cpp includes
// it (through transform_lanes_both.h) once per instruction set, inside a
// namespace of its own, with the macro SHAPEWIENER_DOUBLE_LANES set to the
// widest double vector (1 for plain scalars), under that instruction set's
// target attribute, and once more with SHAPEWIENER_FLOAT_SUMS 1 in a
// namespace `floats` inside that. It must not include anything itself.

namespace {

#if SHAPEWIENER_FLOAT_SUMS
typedef float E;
typedef ProductLineF Line;
#define SHAPEWIENER_MAX_LANES (SHAPEWIENER_DOUBLE_LANES == 1 ? 1 : 2 * SHAPEWIENER_DOUBLE_LANES)

// Float lanes need no conversions: the generic vectors of the compiler.
template <int L>
struct Lanes {
    typedef float D __attribute__((vector_size(4 * L)));
    static inline D load(const float* p) {
        D v;
        __builtin_memcpy(&v, p, sizeof v);
        return v;
    }
    static inline void store(float* p, D x) { __builtin_memcpy(p, &x, sizeof x); }
};

template <>
struct Lanes<1> {
    typedef float D;
    static inline D load(const float* p) { return *p; }
    static inline void store(float* p, D x) { *p = x; }
};
#else
typedef double E;
typedef ProductLine Line;
#define SHAPEWIENER_MAX_LANES SHAPEWIENER_DOUBLE_LANES

template <int L>
struct Lanes;

template <>
struct Lanes<1> {
    typedef double D;
    static inline D load(const double* p) { return *p; }
    static inline D round(D x) {
        float f = static_cast<float>(x);
        SHAPEWIENER_KEEP(f);
        return f;
    }
    static inline void store(float* p, D x) { *p = static_cast<float>(x); }
};

#if SHAPEWIENER_DOUBLE_LANES > 1
// Two and four lanes: the conversions written as the instructions that
// convert a whole vector at once. GCC 12 splits the generic conversions of
// these widths in halves and passes one half through memory, which costs
// more than the products themselves.
template <>
struct Lanes<2> {
    typedef __m128d D;
    static inline D load(const double* p) { return _mm_loadu_pd(p); }
    static inline D round(D x) {
        __m128 f = _mm_cvtpd_ps(x);
        SHAPEWIENER_KEEP(f);
        return _mm_cvtps_pd(f);
    }
    static inline void store(float* p, D x) {
        const __m128 f = _mm_cvtpd_ps(x);
        __builtin_memcpy(p, &f, 2 * sizeof(float));
    }
};
#endif
#if SHAPEWIENER_DOUBLE_LANES > 2
template <>
struct Lanes<4> {
    typedef __m256d D;
    static inline D load(const double* p) { return _mm256_loadu_pd(p); }
    static inline D round(D x) {
        __m128 f = _mm256_cvtpd_ps(x);
        SHAPEWIENER_KEEP(f);
        return _mm256_cvtps_pd(f);
    }
    static inline void store(float* p, D x) { _mm_storeu_ps(p, _mm256_cvtpd_ps(x)); }
};
#endif
#if SHAPEWIENER_DOUBLE_LANES > 4
// With AVX-512 (the only level with eight double lanes): the compiler
// splits the generic conversions between 8 floats and 8 doubles in two.
template <>
struct Lanes<8> {
    typedef __m512d D;
    static inline D load(const double* p) { return _mm512_loadu_pd(p); }
    static inline D round(D x) {
        __m256 f = _mm512_cvtpd_ps(x);
        SHAPEWIENER_KEEP(f);
        return _mm512_cvtps_pd(f);
    }
    static inline void store(float* p, D x) { _mm256_storeu_ps(p, _mm512_cvtpd_ps(x)); }
};
#endif
#endif  // SHAPEWIENER_FLOAT_SUMS

// A step of a running sum: rounded to float (float sums are so already).
#if SHAPEWIENER_FLOAT_SUMS
#define SHAPEWIENER_STEP(x) (x)
#else
#define SHAPEWIENER_STEP(x) V::round(x)
#endif

// The last chunk of a line ends at len and may overlap the one before it
// (the overlap is computed twice, with the same bits).
inline uint32_t chunk_offset(uint32_t c, uint32_t l, uint32_t len) {
    return (c + 1) * l <= len ? c * l : len - l;
}

// Up to three chunks of L lanes of one line (longer lines are split):
// chunk c covers outputs off[c] .. off[c]+L-1.
struct Piece {
    const Line* line;
    uint32_t first;  // first chunk of the line in the piece
};

// Running sums of R pieces with C chunks each and A inputs (1 or 2), in
// registers.
template <int L, int A, int C, int R>
struct Group {
    using V = Lanes<L>;
    typename V::D acc[R][A][C];
    const E* m[R];
    const E* x[R];
    const E* y[R];
    uint32_t len[R];
    uint32_t off[R][C];

    inline void start(const Piece* p) {
        for (int k = 0; k < R; ++k) {
            const Line& l = *p[k].line;
            m[k] = l.m;
            x[k] = l.x;
            y[k] = l.y;
            len[k] = l.len;
            for (int c = 0; c < C; ++c) off[k][c] = chunk_offset(p[k].first + c, L, l.len);
            const E x0 = l.x[0];
            const E y0 = A == 2 ? l.y[0] : E(0);
            for (int c = 0; c < C; ++c) {
                const typename V::D v = V::load(l.m + off[k][c]);
                acc[k][0][c] = SHAPEWIENER_STEP(x0 * v);
                if constexpr (A == 2) acc[k][A - 1][c] = SHAPEWIENER_STEP(y0 * v);
            }
        }
    }

    // Pieces 0 .. Q-1 are still running, sorted by decreasing length: they
    // run together up to the end of the shortest, which is stored; the
    // others go on.
    template <int Q>
    inline void run_from(const Piece* p, uint32_t s) {
        const uint32_t end = len[Q - 1];
        for (; s < end; ++s) {
            for (int k = 0; k < Q; ++k) {
                const E* col = m[k] + static_cast<size_t>(s) * len[k];
                const E xs = x[k][s];
                const E ys = A == 2 ? y[k][s] : E(0);
                for (int c = 0; c < C; ++c) {
                    const typename V::D v = V::load(col + off[k][c]);
                    acc[k][0][c] = SHAPEWIENER_STEP(acc[k][0][c] + xs * v);
                    if constexpr (A == 2) acc[k][A - 1][c] = SHAPEWIENER_STEP(acc[k][A - 1][c] + ys * v);
                }
            }
        }
        const Line& l = *p[Q - 1].line;
        for (int c = 0; c < C; ++c) {
            V::store(l.out + off[Q - 1][c], acc[Q - 1][0][c]);
            if constexpr (A == 2) V::store(l.yo + off[Q - 1][c], acc[Q - 1][A - 1][c]);
        }
        if constexpr (Q > 1) run_from<Q - 1>(p, s);
    }
};

// Runs the first n (1 <= n <= R) of the pieces together.
template <int L, int A, int C, int R>
inline void run_some(const Piece* p, uint32_t n) {
    if constexpr (R > 1) {
        if (n < static_cast<uint32_t>(R)) {
            run_some<L, A, C, R - 1>(p, n);
            return;
        }
    }
    Group<L, A, C, R> g;
    g.start(p);
    g.template run_from<R>(p, 1);
}

constexpr uint32_t kMaxPieces = 64;

// Pieces of L lanes and C chunks, run in groups of about eight sums (enough
// to cover the latency of a step), in order of decreasing length.
template <int L, int A, int C>
struct PieceList {
    static constexpr int K = (8 + A * C - 1) / (A * C);
    Piece piece[kMaxPieces];
    uint32_t count = 0;

    void add(const Piece& p) {
        if (count == kMaxPieces) run();
        // Insertion by decreasing length.
        uint32_t j = count++;
        for (; j > 0 && piece[j - 1].line->len < p.line->len; --j) piece[j] = piece[j - 1];
        piece[j] = p;
    }
    void run() {
        for (uint32_t first = 0; first < count; first += K) {
            const uint32_t n = count - first < static_cast<uint32_t>(K) ? count - first : K;
            run_some<L, A, C, K>(piece + first, n);
        }
        count = 0;
    }
};

// All pieces of one lane width.
template <int L, int A>
struct Pieces {
    PieceList<L, A, 1> one;
    PieceList<L, A, 2> two;
    PieceList<L, A, 3> three;

    void add(const Line* line) {
        const uint32_t chunks = (line->len + L - 1) / L;
        for (uint32_t c0 = 0; c0 < chunks; c0 += 3) {
            const uint32_t n = chunks - c0;
            if (n == 1) {
                one.add({line, c0});
            } else if (n == 2) {
                two.add({line, c0});
            } else {
                three.add({line, c0});
            }
        }
    }
    void run() {
        one.run();
        two.run();
        three.run();
    }
};

// The widest lane count that fits a line of length len.
inline uint32_t width_for(uint32_t len) {
    uint32_t l = SHAPEWIENER_MAX_LANES;
    while (l > len) l /= 2;
    return l;
}

// A line of length len runs in chunks of the widest lanes that fit.
template <int A>
void run_all(const Line* lines, uint32_t count) {
    Pieces<1, A> p1;
#if SHAPEWIENER_MAX_LANES > 1
    Pieces<2, A> p2;
#endif
#if SHAPEWIENER_MAX_LANES > 2
    Pieces<4, A> p4;
#endif
#if SHAPEWIENER_MAX_LANES > 4
    Pieces<8, A> p8;
#endif
#if SHAPEWIENER_MAX_LANES > 8
    Pieces<16, A> p16;
#endif
    for (uint32_t i = 0; i < count; ++i) {
        const Line* line = lines + i;
        if ((line->y != nullptr) != (A == 2)) continue;
        switch (width_for(line->len)) {
#if SHAPEWIENER_MAX_LANES > 8
            case 16: p16.add(line); break;
#endif
#if SHAPEWIENER_MAX_LANES > 4
            case 8: p8.add(line); break;
#endif
#if SHAPEWIENER_MAX_LANES > 2
            case 4: p4.add(line); break;
#endif
#if SHAPEWIENER_MAX_LANES > 1
            case 2: p2.add(line); break;
#endif
            default: p1.add(line); break;
        }
    }
#if SHAPEWIENER_MAX_LANES > 8
    p16.run();
#endif
#if SHAPEWIENER_MAX_LANES > 4
    p8.run();
#endif
#if SHAPEWIENER_MAX_LANES > 2
    p4.run();
#endif
#if SHAPEWIENER_MAX_LANES > 1
    p2.run();
#endif
    p1.run();
}

#undef SHAPEWIENER_STEP
#undef SHAPEWIENER_MAX_LANES

}  // namespace

void run_lines(const Line* lines, uint32_t count) {
    uint32_t pairs = 0;
    for (uint32_t i = 0; i < count; ++i) pairs += lines[i].y != nullptr ? 1 : 0;
    if (pairs > 0) run_all<2>(lines, count);
    if (pairs < count) run_all<1>(lines, count);
}
