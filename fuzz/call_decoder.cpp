#include "call_decoder.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <limits>
#include <random>
#include <utility>

#include "shapewiener/filter.h"
#include "support/test_args.h"

namespace swfuzz {
namespace {

constexpr int kArgumentCount = 16;

// Argument positions, 0-based as in prhs.
enum : int {
    kScaleSet = 0,
    kDirectionScaleMap = 1,
    kTransformBank = 2,
    kSectorMaskBank = 3,
    kDftSize = 6,
    kNoisePsd = 7,
    kNoisyImage = 8,
    kProcessingList = 9,
    kNoiseLevelFactor = 10,
    kMaxScale = 12,
    kPilotImage = 13,
    kWienerVarianceFactor = 14,
    kCoverageThreshold = 15,
};

const char* const kNames[kArgumentCount] = {
    "ScaleSet",          "DirectionScaleMap", "TransformBank",
    "SectorMaskBank",    "ignored",           "ignored",
    "DftSize",           "NoisePsd",          "NoisyImage",
    "ProcessingList",    "NoiseLevelFactor",  "ignored",
    "MaxScale",          "PilotImage",        "WienerVarianceFactor",
    "CoverageThreshold",
};

bool is_ignored(int p) { return p == 4 || p == 5 || p == 11; }
bool is_cell_position(int p) { return p == kTransformBank || p == kSectorMaskBank; }

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

// Values that conversions and arithmetic find hard.
const double kHardValues[] = {
    kNaN,    kInf,         -kInf,        1e300,        -1e300,       -1.0,          -0.0,   0.0,
    0.49,    0.5,          1.0,          2.5,          4.0,          31.6,          32.0,   65535.0,
    65536.0, 2147483647.0, 2147483648.0, 4294967295.0, 4294967296.0, 1e10,          5e-324, -0.5,
    1e-300,  -7.2,         3.49,         11.5,         1e6,          -2147483649.0,
};
constexpr size_t kHardValueCount = sizeof kHardValues / sizeof kHardValues[0];

const double kCoverageThresholds[] = {1e9, 0.0, 1.0, 2.0, 3.0, kNaN, -1.0, 65535.0, 1e300, 0.4};

const mxClassID kNumericClasses[] = {
    mxDOUBLE_CLASS, mxSINGLE_CLASS, mxINT8_CLASS,   mxUINT8_CLASS, mxINT16_CLASS,
    mxUINT16_CLASS, mxINT32_CLASS,  mxUINT32_CLASS, mxINT64_CLASS, mxUINT64_CLASS,
};
constexpr size_t kNumericClassCount = sizeof kNumericClasses / sizeof kNumericClasses[0];

std::string format(const char* fmt, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;

std::string format(const char* fmt, ...) {
    char buf[512];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, args);
    va_end(args);
    return buf;
}

// Reads the input front to back; past its end every read gives zero.
class Bytes {
public:
    Bytes(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    uint8_t u8() { return pos_ < size_ ? data_[pos_++] : 0; }
    uint32_t u32() {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) v = (v << 8) | u8();
        return v;
    }
    // Uniform-ish in 0 .. n-1 (0 when n is 0 or 1).
    uint32_t below(uint64_t n) {
        if (n <= 1) return 0;
        if (n <= 256) return u8() % n;
        return static_cast<uint32_t>(u32() % n);
    }
    double hard_value() { return kHardValues[below(kHardValueCount)]; }

private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
};

// ---------------------------------------------------------------------------
// Array helpers

size_t class_size(mxClassID id) {
    switch (id) {
        case mxDOUBLE_CLASS:
        case mxINT64_CLASS:
        case mxUINT64_CLASS: return 8;
        case mxSINGLE_CLASS:
        case mxINT32_CLASS:
        case mxUINT32_CLASS: return 4;
        case mxINT16_CLASS:
        case mxUINT16_CLASS:
        case mxCHAR_CLASS: return 2;
        case mxINT8_CLASS:
        case mxUINT8_CLASS:
        case mxLOGICAL_CLASS: return 1;
        default: return 0;
    }
}

bool is_numeric(const mxArray* a) {
    const mxClassID id = mxGetClassID(a);
    return id != mxCELL_CLASS && id != mxCHAR_CLASS && class_size(id) > 0;
}

const char* class_name(mxClassID id) {
    switch (id) {
        case mxCELL_CLASS: return "cell";
        case mxCHAR_CLASS: return "char";
        case mxDOUBLE_CLASS: return "double";
        case mxSINGLE_CLASS: return "single";
        case mxINT8_CLASS: return "int8";
        case mxUINT8_CLASS: return "uint8";
        case mxINT16_CLASS: return "int16";
        case mxUINT16_CLASS: return "uint16";
        case mxINT32_CLASS: return "int32";
        case mxUINT32_CLASS: return "uint32";
        case mxINT64_CLASS: return "int64";
        case mxUINT64_CLASS: return "uint64";
        default: return "other";
    }
}

using Dims = std::vector<mwSize>;

Dims dims_of(const mxArray* a) {
    const mwSize* d = mxGetDimensions(a);
    return Dims(d, d + mxGetNumberOfDimensions(a));
}

// The dimensions an array made with `dims` gets (at least two, trailing
// singletons beyond the second dropped), to compare with dims_of.
Dims normalised(Dims d) {
    while (d.size() < 2) d.push_back(d.empty() ? 0 : 1);
    while (d.size() > 2 && d.back() == 1) d.pop_back();
    return d;
}

std::string dims_text(const Dims& d) {
    std::string s;
    for (size_t i = 0; i < d.size(); ++i) {
        s += (i == 0 ? "" : "x") + std::to_string(static_cast<unsigned long long>(d[i]));
    }
    return s;
}

template <class T>
T saturate(double v) {
    if (std::isnan(v)) return 0;
    if (v <= static_cast<double>(std::numeric_limits<T>::lowest())) {
        return std::numeric_limits<T>::lowest();
    }
    if (v >= static_cast<double>(std::numeric_limits<T>::max()))
        return std::numeric_limits<T>::max();
    return static_cast<T>(v);
}

// Element i of a full numeric or char array, as a double.
double get(const mxArray* a, size_t i) {
    const void* p = mxGetData(a);
    switch (mxGetClassID(a)) {
        case mxDOUBLE_CLASS: return static_cast<const double*>(p)[i];
        case mxSINGLE_CLASS: return static_cast<const float*>(p)[i];
        case mxINT8_CLASS: return static_cast<const int8_t*>(p)[i];
        case mxUINT8_CLASS: return static_cast<const uint8_t*>(p)[i];
        case mxINT16_CLASS: return static_cast<const int16_t*>(p)[i];
        case mxUINT16_CLASS:
        case mxCHAR_CLASS: return static_cast<const uint16_t*>(p)[i];
        case mxINT32_CLASS: return static_cast<const int32_t*>(p)[i];
        case mxUINT32_CLASS: return static_cast<const uint32_t*>(p)[i];
        case mxINT64_CLASS: return static_cast<double>(static_cast<const int64_t*>(p)[i]);
        case mxUINT64_CLASS: return static_cast<double>(static_cast<const uint64_t*>(p)[i]);
        default: return 0.0;
    }
}

// Sets element i of a full numeric array, saturating for integer classes.
void set(mxArray* a, size_t i, double v) {
    void* p = mxGetData(a);
    switch (mxGetClassID(a)) {
        case mxDOUBLE_CLASS: static_cast<double*>(p)[i] = v; break;
        case mxSINGLE_CLASS: static_cast<float*>(p)[i] = static_cast<float>(v); break;
        case mxINT8_CLASS: static_cast<int8_t*>(p)[i] = saturate<int8_t>(v); break;
        case mxUINT8_CLASS: static_cast<uint8_t*>(p)[i] = saturate<uint8_t>(v); break;
        case mxINT16_CLASS: static_cast<int16_t*>(p)[i] = saturate<int16_t>(v); break;
        case mxUINT16_CLASS: static_cast<uint16_t*>(p)[i] = saturate<uint16_t>(v); break;
        case mxINT32_CLASS: static_cast<int32_t*>(p)[i] = saturate<int32_t>(v); break;
        case mxUINT32_CLASS: static_cast<uint32_t*>(p)[i] = saturate<uint32_t>(v); break;
        case mxINT64_CLASS: static_cast<int64_t*>(p)[i] = saturate<int64_t>(v); break;
        case mxUINT64_CLASS: static_cast<uint64_t*>(p)[i] = saturate<uint64_t>(v); break;
        default: break;
    }
}

mxArray* numeric(mxClassID id, const Dims& dims, bool complex = false) {
    return mxCreateNumericArray(dims.size(), dims.data(), id, complex ? mxCOMPLEX : mxREAL);
}

mxArray* scalar(double v) {
    mxArray* a = mxCreateDoubleMatrix(1, 1, mxREAL);
    *mxGetPr(a) = v;
    return a;
}

mxArray* deep_copy(const mxArray* src);

// A new array of class `id` and dimensions `dims` whose leading elements are
// those of `src` (converted), the rest zero. Cells are copied cell by cell.
mxArray* copy_as(const mxArray* src, mxClassID id, const Dims& dims, bool complex = false) {
    if (id == mxCELL_CLASS) {
        mxArray* a = mxCreateCellArray(dims.size(), dims.data());
        if (mxIsCell(src)) {
            const size_t count = std::min(mxGetNumberOfElements(a), mxGetNumberOfElements(src));
            for (size_t i = 0; i < count; ++i) mxSetCell(a, i, deep_copy(mxGetCell(src, i)));
        }
        return a;
    }
    mxArray* a = numeric(id, dims, complex);
    if (is_numeric(src) && !mxIsSparse(src)) {
        const size_t count = std::min(mxGetNumberOfElements(a), mxGetNumberOfElements(src));
        for (size_t i = 0; i < count; ++i) set(a, i, get(src, i));
    }
    return a;
}

// Copies of the arrays this decoder builds (numeric, char, cells; sparse
// arrays are copied as empty sparse arrays of the same size).
mxArray* deep_copy(const mxArray* src) {
    if (src == nullptr) return nullptr;
    if (mxIsSparse(src)) {
        return mxCreateSparse(mxGetM(src), mxGetN(src), 1, mxIsComplex(src) ? mxCOMPLEX : mxREAL);
    }
    if (mxGetClassID(src) == mxCHAR_CLASS) {
        std::string text;
        for (size_t i = 0; i < mxGetNumberOfElements(src); ++i) {
            text += static_cast<char>(get(src, i));
        }
        return mxCreateString(text.c_str());
    }
    return copy_as(src, mxGetClassID(src), dims_of(src), mxIsComplex(src));
}

// ---------------------------------------------------------------------------
// Snapshots: everything observable of an argument, to see what a call changed.

struct Snapshot {
    const mxArray* array = nullptr;
    mxClassID id = mxUNKNOWN_CLASS;
    Dims dims;
    bool complex = false;
    bool sparse = false;
    std::vector<unsigned char> bytes;  // real data of a full array
    std::vector<Snapshot> cells;
};

Snapshot take(const mxArray* a) {
    Snapshot s;
    s.array = a;
    if (a == nullptr) return s;
    s.id = mxGetClassID(a);
    s.dims = dims_of(a);
    s.complex = mxIsComplex(a);
    s.sparse = mxIsSparse(a);
    if (s.id == mxCELL_CLASS) {
        for (size_t i = 0; i < mxGetNumberOfElements(a); ++i)
            s.cells.push_back(take(mxGetCell(a, i)));
    } else if (!s.sparse && class_size(s.id) > 0) {
        const size_t bytes = mxGetNumberOfElements(a) * class_size(s.id);
        const auto* p = static_cast<const unsigned char*>(mxGetData(a));
        if (bytes > 0 && p != nullptr) s.bytes.assign(p, p + bytes);
    }
    return s;
}

bool unchanged(const Snapshot& s, const mxArray* a) {
    if (s.array != a) return false;
    if (a == nullptr) return true;
    if (mxGetClassID(a) != s.id || dims_of(a) != s.dims || mxIsComplex(a) != s.complex ||
        mxIsSparse(a) != s.sparse) {
        return false;
    }
    if (s.id == mxCELL_CLASS) {
        if (mxGetNumberOfElements(a) != s.cells.size()) return false;
        for (size_t i = 0; i < s.cells.size(); ++i) {
            if (!unchanged(s.cells[i], mxGetCell(a, i))) return false;
        }
        return true;
    }
    if (s.bytes.empty()) return true;
    return std::memcmp(mxGetData(a), s.bytes.data(), s.bytes.size()) == 0;
}

// ---------------------------------------------------------------------------
// The decoder

Expect worst(Expect a, Expect b) { return static_cast<int>(a) > static_cast<int>(b) ? a : b; }

class Decoder {
public:
    Decoder(const uint8_t* data, size_t size) : in_(data, size) {}
    DecodedCall decode();

private:
    Bytes in_;
    std::mt19937 rng_;
    DecodedCall call_;
    uint32_t m_ = 0, k_ = 0, h_ = 1, w_ = 1, n_ = 32;
    size_t l_ = 1;  // ScaleSet length of the valid base
    const mxArray* args_[kArgumentCount] = {};
    Expect expect_[kArgumentCount] = {};

    mxArray* own(mxArray* a) {
        call_.owned.emplace_back(a);
        return a;
    }
    void note(const std::string& line) { call_.log.push_back(line); }
    void replace(int p, mxArray* a, Expect e, const std::string& what) {
        args_[p] = own(a);
        expect_[p] = e;
        note(format("arg %d (%s): %s", p + 1, kNames[p], what.c_str()));
    }
    // A mutable copy of the current argument p, put in its place.
    mxArray* modifiable(int p) {
        mxArray* a = own(deep_copy(args_[p]));
        args_[p] = a;
        return a;
    }
    uint32_t pixels() const { return m_ * k_; }

    void build_base();
    void mutate(int p, int kind);
    mxArray* junk(int depth);

    void wrong_class(int p);
    void make_complex(int p);
    void make_sparse(int p);
    void make_empty(int p);
    void wrong_size(int p);
    void bad_value(int p);
    void cell_fault(int p, int forced);
    void alias(int p);
    void keep_contract(int p);

    void poke_hard_values(int p);
    bool scales_selected_in_range() const;
};

mxArray* Decoder::junk(int depth) {
    const int kind = in_.u8() % 8;
    switch (kind) {
        case 0:
        case 4: {  // a numeric array of any class, 2 to 4 dimensions
            Dims d(2 + in_.below(3));
            for (auto& x : d) x = in_.below(5);
            mxArray* a = numeric(kNumericClasses[in_.below(kNumericClassCount)], d, kind == 4);
            for (size_t i = 0; i < mxGetNumberOfElements(a); ++i) {
                set(a, i,
                    (rng_() % 4 == 0) ? kHardValues[rng_() % kHardValueCount]
                                      : static_cast<double>(rng_() % 20) - 3.0);
            }
            return a;
        }
        case 1: {
            const char* texts[] = {"", "a", "shapewiener", "\x7f\x01"};
            return mxCreateString(texts[in_.below(4)]);
        }
        case 2: {
            mxArray* a = mxCreateCellMatrix(in_.below(4), in_.below(4));
            for (size_t i = 0; i < mxGetNumberOfElements(a); ++i) {
                if (depth < 2 && in_.u8() % 2 == 0) mxSetCell(a, i, junk(depth + 1));
            }
            return a;
        }
        case 3:
            return mxCreateSparse(in_.below(5), in_.below(5), 1 + in_.below(4),
                                  in_.u8() % 2 ? mxCOMPLEX : mxREAL);
        case 5: return mxCreateDoubleMatrix(0, 0, mxREAL);
        case 6: return scalar(in_.hard_value());
        default: {  // no elements, but a huge extent
            const mwSize huge[] = {4294967295u, 4294967296ull, 1ull << 40, 2147483648u};
            const mwSize big = huge[in_.below(4)];
            return in_.u8() % 2 ? mxCreateDoubleMatrix(0, big, mxREAL)
                                : mxCreateDoubleMatrix(big, 0, mxREAL);
        }
    }
}

void Decoder::build_base() {
    // Mostly small images, which keep calls fast; up to 12 x 12 at times,
    // wider than the largest box.
    const uint8_t sb = in_.u8();
    m_ = in_.below(sb < 176 ? 7 : 13);
    k_ = in_.below(sb < 176 || sb >= 240 ? 7 : 13);
    if (sb == 255) {  // no pixels, but an extent that overflows 32-bit products
        const uint32_t extents[] = {4294967295u, 2147483648u, 65536u, 1u};
        const uint32_t extent = extents[in_.below(4)];
        const bool tall = in_.u8() % 2;
        m_ = tall ? extent : 0;
        k_ = tall ? 0 : extent;
    }
    h_ = 1 + in_.below(5);
    w_ = 2 * h_ - 1;
    const uint8_t nb = in_.u8();
    if (nb < 128) {
        n_ = 32;
    } else {
        const uint32_t lo = w_ + 1;  // w is odd; n must be even and at least w
        n_ = lo + 2 * ((nb - 128) % ((40 - lo) / 2 + 1));
    }
    // The square-shape builder walks every image column: not for huge extents.
    const uint32_t builder = in_.u8() % (m_ > 12 || k_ > 12 ? 3 : 4);
    const uint32_t seed = in_.u32();
    const double coverage =
        kCoverageThresholds[in_.below(sizeof kCoverageThresholds / sizeof(double))];
    rng_.seed(seed);

    swtest::CallPlan base;
    if (builder == 3) {
        base = swtest::square_plan(m_, k_, h_, n_);
    } else {
        swtest::RandomOptions o;
        o.h = h_;
        o.n = n_;
        o.m = m_;
        o.k = k_;
        o.random_masks = builder != 2;
        o.random_matrices = builder == 1;
        o.repeat_pixels = builder == 2;
        base = swtest::random_plan(seed, o);
    }
    base.coverage_threshold = coverage;
    l_ = base.scale_set.size();
    const char* const builders[] = {"random masks, DCT", "random masks and matrices",
                                    "square masks, repeated pixels", "square shapes"};
    note(format("valid base: image %ux%u, H = %u, N = %u, L = %zu, %s, seed %" PRIu32
                ", CoverageThreshold %g",
                m_, k_, h_, n_, base.scale_set.size(), builders[builder], seed, coverage));

    swtest::MexCall c = swtest::make_call(base);
    for (int p = 0; p < kArgumentCount; ++p) {
        args_[p] = c.args[p].get();
        call_.owned.push_back(std::move(c.args[p]));
        expect_[p] = Expect::kSuccess;
    }
}

void Decoder::wrong_class(int p) {
    const mxArray* v = args_[p];
    const Dims d = dims_of(v);
    if (is_cell_position(p)) {
        const mxClassID id = kNumericClasses[in_.below(kNumericClassCount)];
        replace(
            p, numeric(id, d), Expect::kError,
            format("a %s %s array instead of a cell array", dims_text(d).c_str(), class_name(id)));
        return;
    }
    const uint32_t choice = in_.below(kNumericClassCount + 2);
    if (choice == kNumericClassCount) {
        replace(p, mxCreateString("12"), Expect::kError, "the char array '12'");
        return;
    }
    if (choice == kNumericClassCount + 1) {
        replace(p, copy_as(v, mxCELL_CLASS, d), Expect::kError,
                format("an unset %s cell array", dims_text(d).c_str()));
        return;
    }
    mxClassID id = kNumericClasses[choice];
    if (id == mxGetClassID(v)) id = kNumericClasses[(choice + 1) % kNumericClassCount];
    replace(p, copy_as(v, id, d), Expect::kError,
            format("the same values as %s %s", dims_text(d).c_str(), class_name(id)));
}

void Decoder::make_complex(int p) {
    if (is_cell_position(p)) {
        cell_fault(p, 3);
        return;
    }
    const mxArray* v = args_[p];
    replace(p, copy_as(v, mxGetClassID(v), dims_of(v), true), Expect::kError,
            "the same values as a complex array");
}

void Decoder::make_sparse(int p) {
    if (is_cell_position(p)) {
        cell_fault(p, 4);
        return;
    }
    const mxArray* v = args_[p];
    const mwSize nzmax = 1 + in_.below(4);
    replace(p, mxCreateSparse(mxGetM(v), mxGetN(v), nzmax, mxREAL), Expect::kError,
            format("a sparse %zux%zu double array", mxGetM(v), mxGetN(v)));
}

void Decoder::make_empty(int p) {
    const mxArray* v = args_[p];
    const Dims options[] = {{0, 0},           {1, 0},   {0, 1}, {0, 3}, {3, 0}, {0, 4294967296ull},
                            {4294967295u, 0}, {0, 0, 8}};
    Dims d = options[in_.below(8)];
    if (normalised(d) == dims_of(v)) d = dims_of(v).size() == 2 ? Dims{0, 0, 8} : Dims{1, 0};
    const mxClassID id = mxGetClassID(v);
    mxArray* a = id == mxCELL_CLASS ? mxCreateCellArray(d.size(), d.data()) : numeric(id, d);
    // An empty ScaleSet is valid for an empty image, and its length is
    // ambiguous when one extent is non-zero: only a crash counts.
    replace(p, a, p == kScaleSet ? Expect::kEither : Expect::kError,
            format("an empty %s %s array", dims_text(d).c_str(), class_name(id)));
}

void Decoder::wrong_size(int p) {
    const mxArray* v = args_[p];
    const mxClassID id = mxGetClassID(v);
    const uint64_t mk = pixels();
    const uint8_t choice = in_.u8();
    Dims d;
    Expect e = Expect::kError;
    switch (p) {
        case kScaleSet: {
            const mwSize l = mxGetNumberOfElements(v);
            d = choice % 2 ? Dims{2, std::max<mwSize>(l, 2)} : Dims{1, std::max<mwSize>(l, 1), 2};
            break;
        }
        case kDirectionScaleMap: {
            const Dims options[] = {{uint64_t{m_} + 1, k_, 8},
                                    {m_, uint64_t{k_} + 1, 8},
                                    {m_, k_, 7},
                                    {m_, k_, 9},
                                    {mk, 8},
                                    {m_, k_, 8, 2}};
            d = options[choice % 6];
            break;
        }
        case kTransformBank: d = {w_ - 1u, 1}; break;
        case kSectorMaskBank: {
            const mwSize cells = 8ull * h_ * h_;
            const Dims options[] = {{cells - 1, 1}, {cells + 1, 1}, {cells, 1}, {2ull * h_, h_, 4}};
            d = options[choice % 4];
            if (choice % 4 >= 2) e = Expect::kEither;  // the same cells, another shape
            break;
        }
        case kNoisePsd: {
            const Dims options[] = {{n_ + 1u, n_},
                                    {n_, n_ + 1u},
                                    {n_ + 2u, n_ + 2u},
                                    {n_, n_, 2},
                                    {uint64_t{n_} * n_, 1}};
            d = options[choice % 5];
            break;
        }
        case kNoisyImage:
        case kPilotImage: {
            const Dims options[] = {
                {uint64_t{m_} + 1, k_}, {m_, uint64_t{k_} + 1}, {m_, k_, 2}, {k_, m_}, {mk, 1}};
            d = options[choice % 5];
            if (normalised(d) == dims_of(v)) d = {uint64_t{m_} + 1, k_};
            break;
        }
        case kProcessingList: {
            const Dims options[] = {{mk, 3}, {mk + 1, 2}, {2, mk}, {mk, 2, 2}, {mk, 1}};
            d = options[choice % 5];
            if (normalised(d) == dims_of(v)) d = {mk, 3};
            break;
        }
        default: {  // scalars: more than one element, the first one read
            d = choice % 2 ? Dims{1, 3} : Dims{1, 1, 2};
            mxArray* a = copy_as(v, id, d);
            for (size_t i = 1; i < mxGetNumberOfElements(a); ++i) set(a, i, in_.hard_value());
            replace(p, a, Expect::kSuccess,
                    format("a %s array, first element kept", dims_text(d).c_str()));
            return;
        }
    }
    replace(p, copy_as(v, id, d), e, format("a %s %s array", dims_text(d).c_str(), class_name(id)));
}

// Sets one to four elements of a full double array to hard values.
void Decoder::poke_hard_values(int p) {
    mxArray* a = modifiable(p);
    const size_t count = mxGetNumberOfElements(a);
    std::string what = "values set:";
    for (uint32_t t = 0, times = 1 + in_.below(4); t < times && count > 0; ++t) {
        const size_t i = in_.below(count);
        const double x = in_.hard_value();
        set(a, i, x);
        what += format(" [%zu] = %g", i, x);
    }
    expect_[p] = Expect::kSuccess;
    note(format("arg %d (%s): %s", p + 1, kNames[p],
                count > 0 ? what.c_str() : "no elements to set"));
}

void Decoder::bad_value(int p) {
    const uint64_t mk = pixels();
    switch (p) {
        case kScaleSet: {  // whether the value is selected is judged at the end
            mxArray* a = modifiable(p);
            const size_t i = in_.below(mxGetNumberOfElements(a));
            const double choices[] = {0.0,  -1.0, h_ + 1.0, h_ + 0.5, h_ - 0.6,
                                      kNaN, 1e10, kInf,     0.4};
            const double x = choices[in_.below(9)];
            set(a, i, x);
            note(format("arg 1 (ScaleSet): element %zu = %g", i + 1, x));
            return;
        }
        case kDirectionScaleMap: {
            if (mk == 0) return;
            mxArray* a = modifiable(p);
            const size_t i = in_.below(8 * mk);
            const double choices[] = {0.0, l_ + 1.0, 255.0, static_cast<double>(in_.u8())};
            const double x = choices[in_.below(4)];
            set(a, i, x);
            note(format("arg 2 (DirectionScaleMap): byte %zu = %g", i, x));
            return;
        }
        case kProcessingList: {
            if (mk == 0) return;
            mxArray* a = modifiable(p);
            const size_t i = in_.below(mk);
            const double choices[] = {0.0, -1.0, mk + 1.0, -2147483648.0, 2147483647.0};
            const double x = choices[in_.below(5)];
            set(a, i, x);
            expect_[p] = Expect::kError;
            note(format("arg 10 (ProcessingList): pixel index of entry %zu = %g", i + 1, x));
            return;
        }
        case kDftSize:
        case kMaxScale: {
            const uint32_t base = p == kDftSize ? n_ : h_;
            if (p == kMaxScale && in_.u8() % 4 == 0) {
                // A huge box with a DFT size that still covers it.
                const double pairs[][2] = {
                    {1000, 2000},           {65536, 131072}, {2147483647.0, 4294967294.0},
                    {100000, 4294967294.0}, {16, 32},        {40, 80}};
                const auto& pair = pairs[in_.below(6)];
                replace(kMaxScale, scalar(pair[0]), Expect::kError, format("%g", pair[0]));
                replace(kDftSize, scalar(pair[1]), Expect::kError, format("%g", pair[1]));
                return;
            }
            const double x = in_.hard_value();
            const uint32_t r = sw::round_to_unsigned(x);
            replace(p, scalar(x), r == base ? Expect::kSuccess : Expect::kError,
                    format("%g (rounds to %u)", x, r));
            return;
        }
        case kNoiseLevelFactor:
        case kWienerVarianceFactor:
        case kCoverageThreshold: {
            const double x = in_.hard_value();
            replace(p, scalar(x), Expect::kSuccess, format("%g", x));
            return;
        }
        case kTransformBank: {
            mxArray* bank = modifiable(p);
            const size_t i = in_.below(w_);
            mxArray* cell = mxGetCell(bank, i);
            const size_t count = mxGetNumberOfElements(cell);
            const size_t e = in_.below(count);
            const double x = in_.hard_value();
            set(cell, e, x);
            note(format("arg 3 (TransformBank): cell %zu element %zu = %g", i + 1, e + 1, x));
            return;
        }
        case kSectorMaskBank: {
            mxArray* bank = modifiable(p);
            const uint8_t how = in_.u8() % 3;
            for (size_t c = 0; c < mxGetNumberOfElements(bank); ++c) {
                mxArray* mask = mxGetCell(bank, c);
                for (size_t i = 0; i < mxGetNumberOfElements(mask); ++i) {
                    set(mask, i,
                        how == 0   ? 0.0
                        : how == 1 ? 255.0
                                   : static_cast<double>(rng_() % 256));
                }
            }
            const char* const hows[] = {"all masks empty", "all masks full", "random mask bytes"};
            note(format("arg 4 (SectorMaskBank): %s", hows[how]));
            return;
        }
        default:  // NoisePsd and the images: hard values are within the contract
            poke_hard_values(p);
            return;
    }
}

void Decoder::cell_fault(int p, int forced) {
    if (!is_cell_position(p)) {
        const Dims d = dims_of(args_[p]);
        replace(p, mxCreateCellArray(d.size(), d.data()), Expect::kError,
                format("an unset %s cell array", dims_text(d).c_str()));
        return;
    }
    const int kind = forced >= 0 ? forced : static_cast<int>(in_.u8() % 7);
    mxArray* bank = modifiable(p);
    const size_t cells = mxGetNumberOfElements(bank);
    const bool transforms = p == kTransformBank;
    const size_t i = in_.below(transforms ? w_ : cells);
    const mwSize side = transforms ? i + 1 : w_;  // the matrix side cell i needs
    const char* name = kNames[p];
    expect_[p] = Expect::kError;
    switch (kind) {
        case 0:
            mxSetCell(bank, i, nullptr);
            note(format("arg %d (%s): cell %zu unset", p + 1, name, i + 1));
            return;
        case 1: {
            const mxClassID wrong[] = {mxSINGLE_CLASS, mxDOUBLE_CLASS, mxINT32_CLASS,
                                       mxINT8_CLASS,   mxUINT16_CLASS, mxUINT8_CLASS};
            mxClassID id = wrong[in_.below(6)];
            const mxClassID right = transforms ? mxDOUBLE_CLASS : mxUINT8_CLASS;
            if (id == right) id = mxSINGLE_CLASS;
            mxArray* cell = copy_as(mxGetCell(bank, i), id, {side, side});
            mxSetCell(bank, i, cell);
            note(format("arg %d (%s): cell %zu is %s", p + 1, name, i + 1, class_name(id)));
            return;
        }
        case 2: {
            const Dims options[] = {
                {side + 1, side + 1}, {side, side - 1}, {side, side, 2}, {0, 0}, {side * side, 1}};
            Dims d = options[in_.below(5)];
            if (normalised(d) == Dims{side, side}) d = {side + 1, side + 1};
            const mxArray* old = mxGetCell(bank, i);
            mxSetCell(bank, i, copy_as(old, mxGetClassID(old), d));
            note(format("arg %d (%s): cell %zu is %s", p + 1, name, i + 1, dims_text(d).c_str()));
            return;
        }
        case 3: {
            const mxArray* old = mxGetCell(bank, i);
            mxSetCell(bank, i, copy_as(old, mxGetClassID(old), dims_of(old), true));
            note(format("arg %d (%s): cell %zu complex", p + 1, name, i + 1));
            return;
        }
        case 4:
            mxSetCell(bank, i, mxCreateSparse(side, side, 1, mxREAL));
            note(format("arg %d (%s): cell %zu sparse", p + 1, name, i + 1));
            return;
        case 5:
            if (transforms) {
                keep_contract(p);
                return;
            }
            mxSetCell(bank, i, mxCreateString("mask"));
            note(format("arg %d (%s): cell %zu is a char array", p + 1, name, i + 1));
            return;
        default: {
            mxArray* nested = mxCreateCellMatrix(1, 1);
            mxSetCell(nested, 0, deep_copy(mxGetCell(bank, i)));
            mxSetCell(bank, i, nested);
            note(format("arg %d (%s): cell %zu holds a cell array", p + 1, name, i + 1));
            return;
        }
    }
}

void Decoder::alias(int p) {
    int q = static_cast<int>(in_.below(kArgumentCount));
    if (q == p) q = (q + 1) % kArgumentCount;
    args_[p] = args_[q];
    expect_[p] = is_ignored(p) ? Expect::kSuccess : Expect::kEither;
    note(format("arg %d (%s): the same array as arg %d", p + 1, kNames[p], q + 1));
}

// Variations that the contract allows.
void Decoder::keep_contract(int p) {
    const uint64_t mk = pixels();
    switch (p) {
        case kScaleSet: {
            const mxArray* v = args_[p];
            const size_t l = mxGetNumberOfElements(v);
            if (in_.u8() % 2) {
                replace(p, copy_as(v, mxDOUBLE_CLASS, {l, 1}), Expect::kSuccess, "as a column");
                return;
            }
            // Elements that no DirectionScaleMap byte selects may hold anything.
            const size_t extra = 1 + in_.below(3);
            mxArray* a = copy_as(v, mxDOUBLE_CLASS, {1, l + extra});
            std::string what = "unselected elements appended:";
            for (size_t i = l; i < l + extra; ++i) {
                const double x = in_.hard_value();
                set(a, i, x);
                what += format(" %g", x);
            }
            replace(p, a, Expect::kSuccess, what);
            return;
        }
        case kDirectionScaleMap: {
            if (mk == 0) return;
            mxArray* a = modifiable(p);
            for (size_t i = 0; i < mxGetNumberOfElements(a); ++i) {
                if (rng_() % 3 == 0) set(a, i, 1.0 + static_cast<double>(rng_() % l_));
            }
            note("arg 2 (DirectionScaleMap): random bytes in 1..L");
            return;
        }
        case kTransformBank: {
            // Cells after the first 2H-1 are never read.
            const mxArray* v = args_[p];
            const size_t extra = 1 + in_.below(3);
            mxArray* a = copy_as(v, mxCELL_CLASS, {1, w_ + extra});
            for (size_t i = w_; i < w_ + extra; ++i) {
                if (in_.u8() % 2) mxSetCell(a, i, junk(1));
            }
            replace(p, a, Expect::kSuccess, format("%zu cells more, unset or anything", extra));
            return;
        }
        case kSectorMaskBank: bad_value(p); return;
        case kDftSize:
        case kMaxScale: {
            const double base = p == kDftSize ? n_ : h_;
            const uint8_t choice = in_.u8() % 3;
            if (choice == 2) {
                mxArray* a = mxCreateDoubleMatrix(1, 3, mxREAL);
                mxGetPr(a)[0] = base;
                mxGetPr(a)[1] = kNaN;
                mxGetPr(a)[2] = -1.0;
                replace(p, a, Expect::kSuccess, format("[%g NaN -1]", base));
                return;
            }
            const double x = choice == 0 ? base + 0.4 : base - 0.5;
            replace(p, scalar(x), Expect::kSuccess, format("%g", x));
            return;
        }
        case kProcessingList: {
            if (mk == 0) return;
            mxArray* a = modifiable(p);
            auto* e = static_cast<int32_t*>(mxGetData(a));
            const uint8_t choice = in_.u8() % 4;
            if (choice == 0) {  // any pixels, each entry its own key
                for (size_t i = 0; i < mk; ++i) {
                    e[i] = static_cast<int32_t>(1 + rng_() % mk);
                    e[mk + i] = static_cast<int32_t>(i + 1);
                }
                note("arg 10 (ProcessingList): random pixels, one key per entry");
                return;
            }
            // Keys that may claim equal shapes where they differ: outside the
            // contract, but nothing the gateway can see.
            expect_[p] = Expect::kEither;
            if (choice == 1) {
                for (size_t i = 0; i < mk; ++i) {
                    e[mk + i] =
                        static_cast<int32_t>(rng_() % 3) - (rng_() % 8 == 0 ? 2147483647 : 0);
                }
                note("arg 10 (ProcessingList): random small keys");
            } else if (choice == 2) {
                for (size_t i = 0; i < mk; ++i) e[mk + i] = 7;
                note("arg 10 (ProcessingList): one key for all entries");
            } else {
                e[mk] = 0;
                note("arg 10 (ProcessingList): key 0 on entry 1");
            }
            return;
        }
        case kNoiseLevelFactor:
        case kWienerVarianceFactor:
        case kCoverageThreshold: bad_value(p); return;
        default:  // NoisePsd, NoisyImage, PilotImage
            poke_hard_values(p);
            return;
    }
}

void Decoder::mutate(int p, int kind) {
    if (is_ignored(p)) {
        if (kind == 8) {
            alias(p);
        } else {
            replace(p, junk(0), Expect::kSuccess, "anything");
        }
        return;
    }
    switch (kind) {
        case 0: wrong_class(p); return;
        case 1: make_complex(p); return;
        case 2: make_sparse(p); return;
        case 3: make_empty(p); return;
        case 4: wrong_size(p); return;
        case 5: bad_value(p); return;
        case 6:  // a bad cell of the cell arrays, a bad value elsewhere
            if (is_cell_position(p)) {
                cell_fault(p, -1);
            } else {
                bad_value(p);
            }
            return;
        case 7: cell_fault(p, -1); return;
        case 8: alias(p); return;
        case 9: replace(p, junk(0), Expect::kEither, "anything"); return;
        default: keep_contract(p); return;
    }
}

// Every DirectionScaleMap byte selects a ScaleSet element that rounds into
// 1..H (both arguments as built: full, of the right class and size).
bool Decoder::scales_selected_in_range() const {
    const mxArray* scales = args_[kScaleSet];
    const mxArray* map = args_[kDirectionScaleMap];
    const size_t l = mxGetNumberOfElements(scales);
    for (size_t i = 0; i < mxGetNumberOfElements(map); ++i) {
        const size_t v = static_cast<size_t>(get(map, i));
        if (v < 1 || v > l) return false;
        const uint32_t r = sw::round_to_unsigned(get(scales, v - 1));
        if (r < 1 || r > h_) return false;
    }
    return true;
}

DecodedCall Decoder::decode() {
    const uint8_t nr = in_.u8();
    call_.nrhs = nr < 240 ? kArgumentCount : (nr - 240) % 21;
    const uint8_t nl = in_.u8();
    call_.nlhs = nl < 232 ? 1 : (nl - 232) % 4;
    build_base();

    const uint8_t cb = in_.u8();
    const int mutations = cb < 80 ? 0 : cb < 170 ? 1 : cb < 220 ? 2 : cb < 245 ? 3 : 4;
    bool touched[kArgumentCount] = {};
    for (int i = 0; i < mutations; ++i) {
        const int p = static_cast<int>(in_.below(kArgumentCount));
        const int kind = in_.u8() % 12;
        if (touched[p]) continue;
        touched[p] = true;
        mutate(p, kind);
    }

    Expect e = Expect::kSuccess;
    for (int p = 0; p < kArgumentCount; ++p) e = worst(e, expect_[p]);
    if (expect_[kScaleSet] == Expect::kSuccess && expect_[kDirectionScaleMap] == Expect::kSuccess &&
        !scales_selected_in_range()) {
        e = Expect::kError;
        note("a DirectionScaleMap byte selects no usable scale");
    }
    if (call_.nrhs < kArgumentCount) e = Expect::kError;
    if (call_.nlhs > 1) e = Expect::kError;
    call_.expect = e;

    for (int p = 0; p < call_.nrhs; ++p) {
        if (p < kArgumentCount) {
            call_.prhs.push_back(args_[p]);
        } else {
            call_.prhs.push_back(own(junk(0)));
        }
    }
    note(format("nlhs = %d, nrhs = %d", call_.nlhs, call_.nrhs));
    return std::move(call_);
}

std::string summary(const mxArray* a, int depth) {
    if (a == nullptr) return "unset";
    const mxClassID id = mxGetClassID(a);
    std::string s = dims_text(dims_of(a)) + " " + class_name(id);
    if (mxIsComplex(a)) s += " complex";
    if (mxIsSparse(a)) return s + " sparse";
    const size_t count = mxGetNumberOfElements(a);
    if (id == mxCELL_CLASS) {
        if (depth > 1) return s;
        s += " {";
        for (size_t i = 0; i < count && i < 12; ++i) {
            s += (i ? "; " : "") + summary(mxGetCell(a, i), depth + 1);
        }
        return s + (count > 12 ? "; ...}" : "}");
    }
    if (class_size(id) == 0 || count == 0) return s;
    s += " [";
    const size_t shown = depth == 0 ? 16 : 4;
    for (size_t i = 0; i < count && i < shown; ++i) s += format("%s%.17g", i ? " " : "", get(a, i));
    return s + (count > shown ? " ...]" : "]");
}

[[noreturn]] void report(const DecodedCall& call, const std::string& what) {
    std::fprintf(stderr, "\nshapewiener fuzz: CHECK FAILED: %s\n%s", what.c_str(),
                 describe(call).c_str());
    std::fflush(stderr);
    std::abort();
}

}  // namespace

DecodedCall decode_call(const uint8_t* data, size_t size) { return Decoder(data, size).decode(); }

std::string describe(const DecodedCall& call) {
    std::string s;
    for (const auto& line : call.log) s += "  " + line + "\n";
    const char* const expects[] = {"success", "either", "an error"};
    s += format("  expected: %s\n", expects[static_cast<int>(call.expect)]);
    for (int p = 0; p < call.nrhs; ++p) {
        s += format("  prhs[%d] %-20s ", p, p < kArgumentCount ? kNames[p] : "extra") +
             summary(call.prhs[p], 0) + "\n";
    }
    return s;
}

RunResult run_one(const uint8_t* data, size_t size) {
    const long live_before = mx_host::live_array_count();
    RunResult result;
    {
        DecodedCall call = decode_call(data, size);
        std::vector<Snapshot> before;
        for (const mxArray* a : call.prhs) before.push_back(take(a));

        mxArray* plhs[4] = {nullptr, nullptr, nullptr, nullptr};
        bool raised = false;
        std::string message;
        try {
            mexFunction(call.nlhs, plhs, call.nrhs, call.prhs.data());
        } catch (const mx_host::MexError& e) {
            raised = true;
            result.identifier = e.identifier();
            message = e.what();
        } catch (const std::exception& e) {
            report(call, std::string("an exception that is not a host error: ") + e.what());
        } catch (...) {
            report(call, "an exception that is not a host error");
        }
        std::vector<mx_host::ArrayPtr> outputs;
        for (mxArray* out : plhs) {
            if (out != nullptr) outputs.emplace_back(out);
        }

        if (raised) {
            result.outcome = Outcome::kRejected;
            const std::string& id = result.identifier;
            if (id.rfind("shapewiener:", 0) != 0 && id.rfind("MATLAB:nomem", 0) != 0) {
                report(call, "error identifier outside the module's namespace: '" + id + "'");
            }
            if (message.empty()) report(call, "error '" + id + "' without a message");
            for (size_t p = 0; p < before.size(); ++p) {
                if (!unchanged(before[p], call.prhs[p])) {
                    report(call, format("the rejected call (%s) changed prhs[%zu]", id.c_str(), p));
                }
            }
            if (call.expect == Expect::kSuccess) {
                report(call, "a call within the contract was rejected: " + id + ": " + message);
            }
        } else {
            result.outcome = Outcome::kSucceeded;
            if (call.expect == Expect::kError) {
                report(call, "a call with a detectable violation was accepted");
            }
            const mxArray* image = call.prhs[kNoisyImage];
            const mxArray* out = plhs[0];
            if (out == nullptr || mxGetClassID(out) != mxDOUBLE_CLASS || mxIsComplex(out) ||
                mxIsSparse(out) || mxGetNumberOfDimensions(out) != 2 ||
                mxGetM(out) != mxGetM(image) || mxGetN(out) != mxGetN(image)) {
                report(call, "plhs[0] is not a real " + dims_text(dims_of(image)) +
                                 " double matrix: " + summary(out, 1));
            }
            for (int i = 1; i < 4; ++i) {
                if (plhs[i] != nullptr) report(call, format("plhs[%d] was set", i));
            }
            for (size_t p = 0; p < before.size(); ++p) {
                const mxArray* a = call.prhs[p];
                if (a == call.prhs[kNoisyImage] || a == call.prhs[kPilotImage]) continue;
                if (!unchanged(before[p], a)) {
                    report(call, format("the call changed prhs[%zu]", p));
                }
            }
        }
    }
    const long live_after = mx_host::live_array_count();
    if (live_after != live_before) {
        std::fprintf(stderr, "\nshapewiener fuzz: CHECK FAILED: %ld mxArrays leaked\n",
                     live_after - live_before);
        std::abort();
    }
    return result;
}

}  // namespace swfuzz
