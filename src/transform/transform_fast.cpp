#include "transform/transform_fast.h"

#include <cstddef>
#include <cstring>

#include "simd/thread_buffer.h"
#include "transform/transform_kernels.h"

namespace sw {
namespace {

LinesFunction lines_for(simd::Level level) {
    switch (simd::supported(level) ? level : simd::Level::scalar) {
#if SHAPEWIENER_X86_SIMD
        case simd::Level::sse2: return transform_sse2::run_lines;
        case simd::Level::avx2: return transform_avx2::run_lines;
        case simd::Level::avx512: return transform_avx512::run_lines;
#endif
        default: return transform_scalar::run_lines;
    }
}

FloatLinesFunction float_lines_for(simd::Level level) {
    switch (simd::supported(level) ? level : simd::Level::scalar) {
#if SHAPEWIENER_X86_SIMD
        case simd::Level::sse2: return transform_sse2::floats::run_lines;
        case simd::Level::avx2: return transform_avx2::floats::run_lines;
        case simd::Level::avx512: return transform_avx512::floats::run_lines;
#endif
        default: return transform_scalar::floats::run_lines;
    }
}

// Lines of one stage, run together; lines longer than the kernels take go
// through the reference's product at once. With the module's rounding the
// inputs are widened to double once, into `widened` (room for two W x W
// blocks); float lines read them as they are. A second input with the bits
// of the first (the pilot image is often the noisy image itself) is not
// computed again: its outputs are copies.
class Stage {
public:
    Stage(ProductLine* lines, ProductLineF* float_lines, ProductLine* copies, double* widened,
          simd::Level level, bool round_steps)
        : lines_(lines),
          float_lines_(float_lines),
          copies_(copies),
          widened_(widened),
          run_(round_steps ? lines_for(level) : nullptr),
          run_float_(round_steps ? nullptr : float_lines_for(level)) {}

    // A line with the module's rounding.
    void add(const double* m, uint32_t len, const float* x, float* out,
             const float* y = nullptr, float* yo = nullptr) {
        if (same_input(x, y, len, out, yo)) y = nullptr;
        if (len > kMaxProductLine) {
            for (uint32_t i = 0; i < len; ++i) out[i] = apply_row(x, m, len, i);
            if (y != nullptr) {
                for (uint32_t i = 0; i < len; ++i) yo[i] = apply_row(y, m, len, i);
            }
            return;
        }
        const double* xd = widen(x, len);
        const double* yd = y != nullptr ? widen(y, len) : nullptr;
        lines_[count_++] = {m, xd, out, yd, yo, len};
    }
    // A line of float sums (the stage made with round_steps false).
    void add(const float* m, uint32_t len, const float* x, float* out,
             const float* y = nullptr, float* yo = nullptr) {
        if (same_input(x, y, len, out, yo)) y = nullptr;
        if (len > kMaxProductLine) {
            for (uint32_t i = 0; i < len; ++i) out[i] = apply_row_float(x, m, len, i);
            if (y != nullptr) {
                for (uint32_t i = 0; i < len; ++i) yo[i] = apply_row_float(y, m, len, i);
            }
            return;
        }
        float_lines_[count_++] = {m, x, out, y, yo, len};
    }
    void run() {
        if (run_ != nullptr) {
            run_(lines_, count_);
        } else {
            run_float_(float_lines_, count_);
        }
        for (uint32_t i = 0; i < copy_count_; ++i) {
            std::memcpy(copies_[i].out, copies_[i].yo, sizeof(float) * copies_[i].len);
        }
        count_ = 0;
        copy_count_ = 0;
        used_ = 0;
    }

private:
    // True when y has the bits of x: yo is then a copy of out, made by run().
    bool same_input(const float* x, const float* y, uint32_t len, float* out, float* yo) {
        // The first values settle most comparisons without a call.
        if (y != nullptr && std::memcmp(x, y, sizeof(float)) == 0 &&
            std::memcmp(x, y, sizeof(float) * len) == 0) {
            copies_[copy_count_++] = {nullptr, nullptr, yo, nullptr, out, len};
            return true;
        }
        return false;
    }
    const double* widen(const float* v, uint32_t len) {
        double* d = widened_ + used_;
        for (uint32_t i = 0; i < len; ++i) d[i] = v[i];
        used_ += len;
        return d;
    }

    ProductLine* lines_;
    ProductLineF* float_lines_;
    ProductLine* copies_;  // yo: the computed outputs, out: where they are copied
    double* widened_;
    LinesFunction run_;
    FloatLinesFunction run_float_;
    uint32_t count_ = 0;
    uint32_t copy_count_ = 0;
    size_t used_ = 0;
};

// The row groups floor(mcc * f / len) of f = 0, 1, ..., len - 1 in turn,
// without a division per index (mcc >= len).
class RowGroups {
public:
    RowGroups(int32_t mcc, int32_t len)
        : step_(static_cast<uint32_t>(mcc / len)),
          extra_(static_cast<uint32_t>(mcc % len)),
          len_(static_cast<uint32_t>(len)) {}
    // The group of the current index; then moves to the next.
    uint32_t next() {
        const uint32_t r = group_;
        group_ += step_;
        rest_ += extra_;
        if (rest_ >= len_) {
            rest_ -= len_;
            group_ += 1;
        }
        return r;
    }

private:
    uint32_t step_, extra_, len_;
    uint32_t group_ = 0;
    uint32_t rest_ = 0;
};

// The reference routines' view of a box of side w.
struct SideBox {
    uint32_t w;
    uint32_t W() const { return w; }
};

// Shapes with fewer pixels than this run faster through the reference
// routines, which have no set-up (measured on the adaptive workloads; any
// choice gives the same bits).
constexpr uint32_t kSmallForward = 16;
constexpr uint32_t kSmallInverse = 24;

uint32_t pixels(const int32_t* column_count, uint32_t w) {
    int64_t n = 0;
    for (uint32_t j = 0; j < w; ++j) n += column_count[j];
    return n > 0 ? static_cast<uint32_t>(n) : 0;
}

// Offset of the matrix of length len in a block holding lengths 1, 2, ...
size_t matrix_offset(uint32_t len) {
    const size_t l = len - 1;
    return l * (l + 1) * (2 * l + 1) / 6;
}

// Transposed copies of the matrices, and float copies of the matrices and
// their transposes, per thread, kept between calls: a copy is used only
// while the matrix still holds the bits it was made from, which is checked
// once per matrix and transform.
class MatrixCopies {
public:
    // Starts an inverse transform: every matrix is checked again.
    void next_call() {
        if (++call_ == 0) {
            if (checked_ != nullptr) std::memset(checked_, 0, sizeof(uint32_t) * (capacity_ + 1));
            call_ = 1;
        }
    }

    // Prepares lengths up to w; false when the memory cannot be had.
    bool reserve(uint32_t w) {
        if (w <= capacity_) return true;
        const size_t doubles = matrix_offset(w + 1);
        simd::Carver measure(nullptr);
        measure.take<double>(doubles);
        measure.take<double>(doubles);
        measure.take<float>(doubles);
        measure.take<float>(doubles);
        measure.take<uint8_t>(w + 1);
        measure.take<uint32_t>(w + 1);
        unsigned char* base = buffer_.get(measure.used());
        if (base == nullptr) {
            capacity_ = 0;
            return false;
        }
        simd::Carver carve(base);
        original_ = carve.take<double>(doubles);
        transposed_ = carve.take<double>(doubles);
        float_ = carve.take<float>(doubles);
        float_transposed_ = carve.take<float>(doubles);
        made_ = carve.take<uint8_t>(w + 1);
        checked_ = carve.take<uint32_t>(w + 1);
        std::memset(made_, 0, w + 1);
        std::memset(checked_, 0, sizeof(uint32_t) * (w + 1));
        capacity_ = w;
        return true;
    }

    // The transpose of t (length len <= the reserved w): u[s + f*len] = t[f + s*len].
    const double* transposed(const double* t, uint32_t len) {
        check(t, len);
        return transposed_ + matrix_offset(len);
    }
    // t and its transpose rounded to float.
    const float* as_float(const double* t, uint32_t len) {
        check(t, len);
        return float_ + matrix_offset(len);
    }
    const float* transposed_float(const double* t, uint32_t len) {
        check(t, len);
        return float_transposed_ + matrix_offset(len);
    }

private:
    void check(const double* t, uint32_t len) {
        if (checked_[len] == call_) return;
        const size_t at = matrix_offset(len);
        const size_t bytes = sizeof(double) * len * len;
        double* original = original_ + at;
        if (made_[len] == 0 || std::memcmp(original, t, bytes) != 0) {
            std::memcpy(original, t, bytes);
            double* u = transposed_ + at;
            float* tf = float_ + at;
            float* uf = float_transposed_ + at;
            for (uint32_t s = 0; s < len; ++s) {
                for (uint32_t f = 0; f < len; ++f) {
                    u[s + f * len] = t[f + s * len];
                    tf[f + s * len] = static_cast<float>(t[f + s * len]);
                    uf[s + f * len] = static_cast<float>(t[f + s * len]);
                }
            }
            made_[len] = 1;
        }
        checked_[len] = call_;
    }

    simd::ThreadBuffer buffer_;
    uint32_t capacity_ = 0;
    double* original_ = nullptr;
    double* transposed_ = nullptr;
    float* float_ = nullptr;
    float* float_transposed_ = nullptr;
    uint8_t* made_ = nullptr;
    uint32_t* checked_ = nullptr;  // the call that last checked each length
    uint32_t call_ = 1;
};

// Where the re-alignment puts first-stage value f of block column j (j
// outer, f inner): position r * W + k, k counting the values row group r
// has received before, and the row group sizes it ends with. Both depend on
// the column counts alone, so they are kept per thread for the last counts
// seen (consecutive entries mostly share their shape).
class Realignment {
public:
    // The positions for these counts, or null when memory cannot be had.
    const uint32_t* positions(uint32_t w, const int32_t* column_count, int32_t max_column_count) {
        if (valid_ && w == w_ && max_column_count == mcc_ &&
            std::memcmp(counts_, column_count, sizeof(int32_t) * w) == 0) {
            return to_;
        }
        valid_ = false;
        simd::Carver measure(nullptr);
        measure.take<uint32_t>(static_cast<size_t>(w) * w);
        measure.take<int32_t>(w);
        measure.take<int32_t>(w);
        unsigned char* base = buffer_.get(measure.used());
        if (base == nullptr) return nullptr;
        simd::Carver carve(base);
        to_ = carve.take<uint32_t>(static_cast<size_t>(w) * w);
        counts_ = carve.take<int32_t>(w);
        groups_ = carve.take<int32_t>(w);
        std::memset(groups_, 0, sizeof(int32_t) * w);
        uint32_t n = 0;
        for (uint32_t j = 0; j < w; ++j) {
            const int32_t len = column_count[j];
            if (len <= 0) continue;
            RowGroups groups(max_column_count, len);
            for (int32_t f = 0; f < len; ++f) {
                const uint32_t r = groups.next();
                to_[n++] = r * w + static_cast<uint32_t>(groups_[r]);
                groups_[r] = groups_[r] + 1;
            }
        }
        std::memcpy(counts_, column_count, sizeof(int32_t) * w);
        w_ = w;
        mcc_ = max_column_count;
        valid_ = true;
        return to_;
    }
    // The row group sizes of the last positions returned.
    const int32_t* group_sizes() const { return groups_; }

private:
    simd::ThreadBuffer buffer_;
    uint32_t* to_ = nullptr;
    int32_t* counts_ = nullptr;
    int32_t* groups_ = nullptr;
    uint32_t w_ = 0;
    int32_t mcc_ = 0;
    bool valid_ = false;
};

bool all_zero(const int32_t* v, uint32_t w) {
    for (uint32_t i = 0; i < w; ++i) {
        if (v[i] != 0) return false;
    }
    return true;
}

// Per-thread room for the lines of a stage and the first-stage values.
struct LineScratch {
    simd::ThreadBuffer buffer;
    ProductLine* lines = nullptr;
    ProductLineF* float_lines = nullptr;
    ProductLine* copies = nullptr;
    float* values = nullptr;
    double* widened = nullptr;  // two W x W blocks

    bool reserve(uint32_t w) {
        simd::Carver measure(nullptr);
        measure.take<ProductLine>(w);
        measure.take<ProductLineF>(w);
        measure.take<ProductLine>(w);
        measure.take<float>(2 * static_cast<size_t>(w) * w);
        measure.take<double>(2 * static_cast<size_t>(w) * w);
        unsigned char* base = buffer.get(measure.used());
        if (base == nullptr) return false;
        simd::Carver carve(base);
        lines = carve.take<ProductLine>(w);
        float_lines = carve.take<ProductLineF>(w);
        copies = carve.take<ProductLine>(w);
        values = carve.take<float>(2 * static_cast<size_t>(w) * w);
        widened = carve.take<double>(2 * static_cast<size_t>(w) * w);
        return true;
    }
};

thread_local LineScratch t_scratch;
thread_local MatrixCopies t_matrices;
thread_local Realignment t_realignment;

}  // namespace

void forward_transform_lanes(uint32_t w, simd::Level level, float* noisy_gather,
                             float* pilot_gather, float* noisy_coefficients,
                             float* pilot_coefficients, const int32_t* column_count,
                             int32_t* row_count, int32_t max_column_count,
                             const double* const* transform_table, bool round_steps) {
    // (Without scratch memory the float sums fall back to the rounded
    // reference too: the results differ in their last bits only.)
    if ((round_steps && pixels(column_count, w) < kSmallForward) || !t_scratch.reserve(w) ||
        (!round_steps && !t_matrices.reserve(w))) {
        forward_transform(SideBox{w}, noisy_gather, pilot_gather, noisy_coefficients,
                          pilot_coefficients, column_count, row_count, max_column_count,
                          transform_table);
        return;
    }
    if (!round_steps) t_matrices.next_call();
    Stage stage(t_scratch.lines, t_scratch.float_lines, t_scratch.copies, t_scratch.widened, level,
                round_steps);
    // The product with the matrix of length len: float sums take its float copy.
    auto add = [&](uint32_t len, const float* x, float* out, const float* y, float* yo) {
        const double* t = transform_table[len - 1];
        if (round_steps) {
            stage.add(t, len, x, out, y, yo);
        } else {
            stage.add(t_matrices.as_float(t, len), len, x, out, y, yo);
        }
    };
    // First-stage coefficient f of column j, at j*W + f here (the reference
    // keeps it at j + f*W of the coefficient block until it moves on).
    float* noisy_first = t_scratch.values;
    float* pilot_first = t_scratch.values + static_cast<size_t>(w) * w;

    // Stage 1: block columns.
    for (uint32_t j = 0; j < w; ++j) {
        const uint32_t len = static_cast<uint32_t>(column_count[j]);
        if (len == 0) continue;
        add(len, noisy_gather + j * w, noisy_first + j * w, pilot_gather + j * w,
            pilot_first + j * w);
    }
    stage.run();

    // Stage 2: re-alignment into row groups, as the reference leaves it. The
    // coefficient blocks, all zero on entry, were not written by stage 1 here,
    // so the reference's clearing of the moved values is already done.
    std::memset(noisy_gather, 0, sizeof(float) * w * w);
    std::memset(pilot_gather, 0, sizeof(float) * w * w);
    const uint32_t* to =
        all_zero(row_count, w) ? t_realignment.positions(w, column_count, max_column_count)
                               : nullptr;
    if (to != nullptr) {
        uint32_t i = 0;
        for (uint32_t j = 0; j < w; ++j) {
            const uint32_t len = column_count[j] > 0 ? static_cast<uint32_t>(column_count[j]) : 0;
            for (uint32_t f = 0; f < len; ++f, ++i) {
                noisy_gather[to[i]] = noisy_first[j * w + f];
                pilot_gather[to[i]] = pilot_first[j * w + f];
            }
        }
        std::memcpy(row_count, t_realignment.group_sizes(), sizeof(int32_t) * w);
    }
    for (uint32_t j = 0; j < w && to == nullptr; ++j) {
        const int32_t len = column_count[j];
        if (len <= 0) continue;
        RowGroups groups(max_column_count, len);
        for (int32_t f = 0; f < len; ++f) {
            const uint32_t r = groups.next();
            const uint32_t to = r * w + static_cast<uint32_t>(row_count[r]);
            noisy_gather[to] = noisy_first[j * w + static_cast<uint32_t>(f)];
            pilot_gather[to] = pilot_first[j * w + static_cast<uint32_t>(f)];
            row_count[r] = row_count[r] + 1;
        }
    }

    // Stage 3: row groups; coefficient k of group r goes to r*W + k.
    for (uint32_t r = 0; r < static_cast<uint32_t>(max_column_count); ++r) {
        const uint32_t len = static_cast<uint32_t>(row_count[r]);
        if (len == 0) continue;
        add(len, noisy_gather + r * w, noisy_coefficients + r * w, pilot_gather + r * w,
            pilot_coefficients + r * w);
    }
    stage.run();
}

void inverse_transform_lanes(uint32_t w, simd::Level level, float* coefficients, float* out,
                             const int32_t* column_count, const int32_t* row_count,
                             int32_t* row_cursor, int32_t max_column_count,
                             const double* const* transform_table, bool round_steps) {
    // With one lane the reference's products are as fast; so they are for
    // small shapes, with no set-up (rounded steps only). Float sums take
    // float copies of every length.
    const uint32_t copied = !round_steps || w < kMaxProductLine ? w : kMaxProductLine;
    if ((round_steps &&
         (level == simd::Level::scalar || pixels(column_count, w) < kSmallInverse)) ||
        !t_scratch.reserve(w) || !t_matrices.reserve(copied)) {
        inverse_transform(SideBox{w}, coefficients, out, column_count, row_count,
                          row_cursor, max_column_count, transform_table);
        return;
    }
    t_matrices.next_call();
    Stage stage(t_scratch.lines, t_scratch.float_lines, t_scratch.copies, t_scratch.widened, level,
                round_steps);
    // The transposed product with T is the product with its transpose.
    auto add = [&](uint32_t len, const float* c, float* to) {
        const double* t = transform_table[len - 1];
        if (!round_steps) {
            stage.add(t_matrices.transposed_float(t, len), len, c, to);
        } else if (len <= kMaxProductLine) {
            stage.add(t_matrices.transposed(t, len), len, c, to);
        } else {
            for (uint32_t s = 0; s < len; ++s) to[s] = apply_transposed(c, t, len, s);
        }
    };
    std::memset(row_cursor, 0, sizeof(int32_t) * w);

    // Stage 1: transposed row transforms, then the consumed values cleared.
    for (uint32_t r = 0; r < static_cast<uint32_t>(max_column_count); ++r) {
        const uint32_t len = static_cast<uint32_t>(row_count[r]);
        if (len != 0) add(len, coefficients + r * w, out + r * w);
    }
    stage.run();
    for (uint32_t r = 0; r < static_cast<uint32_t>(max_column_count); ++r) {
        const uint32_t len = static_cast<uint32_t>(row_count[r]);
        for (uint32_t f = 0; f < len; ++f) coefficients[r * w + f] = 0.0f;
    }

    // Stage 2: every value back to its block column and index.
    const uint32_t* from = t_realignment.positions(w, column_count, max_column_count);
    if (from != nullptr) {
        uint32_t i = 0;
        for (uint32_t j = 0; j < w; ++j) {
            const uint32_t len = column_count[j] > 0 ? static_cast<uint32_t>(column_count[j]) : 0;
            for (uint32_t f = 0; f < len; ++f, ++i) {
                coefficients[j * w + f] = out[from[i]];
                out[from[i]] = 0.0f;
            }
        }
        std::memcpy(row_cursor, t_realignment.group_sizes(), sizeof(int32_t) * w);
    }
    for (uint32_t j = 0; j < w && from == nullptr; ++j) {
        const int32_t len = column_count[j];
        if (len <= 0) continue;
        RowGroups groups(max_column_count, len);
        for (int32_t f = 0; f < len; ++f) {
            const uint32_t r = groups.next();
            const uint32_t from = r * w + static_cast<uint32_t>(row_cursor[r]);
            coefficients[j * w + static_cast<uint32_t>(f)] = out[from];
            out[from] = 0.0f;
            row_cursor[r] = row_cursor[r] + 1;
        }
    }

    // Stage 3: transposed column transforms.
    for (uint32_t j = 0; j < w; ++j) {
        const uint32_t len = static_cast<uint32_t>(column_count[j]);
        if (len != 0) add(len, coefficients + j * w, out + j * w);
    }
    stage.run();
}

}  // namespace sw
