// The table of faults and the check of one call (test_args.h).
#include <cmath>
#include <cstring>
#include <limits>

#include "driver/check.h"
#include "support/test_args.h"

namespace swtest {
namespace {

using Dims = std::vector<mwSize>;
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();
const double kHard[] = {kNaN, kInf, -kInf, 1e300,        -1.0,   -0.0,   0.0,
                        0.49, 0.5,  2.5,   4294967296.0, 5e-324, 65535.0};
constexpr uint32_t kHardCount = sizeof kHard / sizeof kHard[0];

mxArray* numeric(mxClassID id, const Dims& d, bool complex = false) {
    return mxCreateNumericArray(d.size(), d.data(), id, complex ? mxCOMPLEX : mxREAL);
}
mxArray* scalar(double x) {
    mxArray* a = mxCreateDoubleMatrix(1, 1, mxREAL);
    *mxGetPr(a) = x;
    return a;
}
mxArray* row(const std::vector<double>& v) {
    mxArray* a = mxCreateDoubleMatrix(1, v.size(), mxREAL);
    if (!v.empty()) std::memcpy(mxGetPr(a), v.data(), sizeof(double) * v.size());
    return a;
}
Dims dims_of(const mxArray* a) {
    return Dims(mxGetDimensions(a), mxGetDimensions(a) + mxGetNumberOfDimensions(a));
}
// The call's current array at position p, to edit in place.
mxArray* at(MexCall& c, int p) { return const_cast<mxArray*>(c.prhs[p]); }
// A matrix of class id (or a cell array) with the dimensions of a.
mxArray* same_shape(const mxArray* a, mxClassID id, bool complex = false) {
    if (id == mxCELL_CLASS) return mxCreateCellArray(mxGetNumberOfDimensions(a), mxGetDimensions(a));
    if (id == mxCHAR_CLASS) return mxCreateString("12");
    return numeric(id, dims_of(a), complex);
}
const char* reason(mxClassID id) {
    return id == mxDOUBLE_CLASS ? "notDouble" : id == mxUINT8_CLASS ? "notUint8" : "notInt32";
}
std::string id_of(int p, const char* why) {
    return std::string("shapewiener:") + sw::argument_name(p) + ":" + why;
}

using Apply = std::function<void(MexCall&, const CallPlan&, uint32_t)>;

std::vector<Fault> build_table() {
    enum {
        kScaleSet = 0,
        kMap = 1,
        kTransforms = 2,
        kMasks = 3,
        kDft = 6,
        kPsd = 7,
        kNoisy = 8,
        kList = 9,
        kNoiseFactor = 10,
        kMaxScale = 12,
        kPilot = 13,
        kWiener = 14,
        kCoverage = 15
    };
    std::vector<Fault> t;
    auto error = [&](int p, const char* why, const char* name, const char* message, bool pixels, Apply f) {
        t.push_back({name, Fault::kError, id_of(p, why), message, pixels, std::move(f)});
    };
    auto allowed = [&](const char* name, bool pixels, Apply f) {
        t.push_back({name, Fault::kSuccess, "", "", pixels, std::move(f)});
    };

    // Classes, complex and sparse arrays, empty scalars, argument by argument.
    const struct {
        int p;
        mxClassID cls;
    } numeric_args[] = {{kScaleSet, mxDOUBLE_CLASS},    {kMap, mxUINT8_CLASS},       {kDft, mxDOUBLE_CLASS},
                        {kPsd, mxDOUBLE_CLASS},         {kNoisy, mxDOUBLE_CLASS},    {kList, mxINT32_CLASS},
                        {kNoiseFactor, mxDOUBLE_CLASS}, {kMaxScale, mxDOUBLE_CLASS}, {kPilot, mxDOUBLE_CLASS},
                        {kWiener, mxDOUBLE_CLASS},      {kCoverage, mxDOUBLE_CLASS}};
    for (const auto& a : numeric_args) {
        const int p = a.p;
        const mxClassID cls = a.cls;
        error(p, reason(cls), "another class",
              p == kNoisy ? "argument 9 (NoisyImage) must be a real double matrix; got a " : "", false,
              [p, cls](MexCall& c, const CallPlan&, uint32_t r) {
                  const mxClassID ids[] = {mxDOUBLE_CLASS, mxSINGLE_CLASS, mxINT32_CLASS, mxUINT8_CLASS,
                                           mxINT16_CLASS,  mxUINT64_CLASS, mxCHAR_CLASS,  mxCELL_CLASS};
                  mxClassID id = ids[r % 8];
                  if (id == cls) id = ids[(r + 1) % 8];
                  c.replace(p, same_shape(c.prhs[p], id));
              });
        error(p, "complex", "complex", "", false, [p, cls](MexCall& c, const CallPlan&, uint32_t) {
            c.replace(p, same_shape(c.prhs[p], cls, true));
        });
        if (cls == mxDOUBLE_CLASS) {
            error(p, "sparse", "sparse", "", false, [p](MexCall& c, const CallPlan&, uint32_t) {
                c.replace(p, mxCreateSparse(mxGetM(c.prhs[p]), mxGetN(c.prhs[p]), 1, mxREAL));
            });
        }
    }
    for (int p : {kDft, kNoiseFactor, kMaxScale, kWiener, kCoverage}) {
        error(p, "empty", "empty scalar", "must be a real double scalar; got an empty array", false,
              [p](MexCall& c, const CallPlan&, uint32_t r) {
                  c.replace(p, mxCreateDoubleMatrix(r % 2, r % 2 ? 0 : r % 3, mxREAL));
              });
    }
    // Both banks must be cell arrays.
    for (int p : {kTransforms, kMasks}) {
        error(p, "notCell", "not a cell array", "must be a cell array", false,
              [p](MexCall& c, const CallPlan&, uint32_t r) {
                  c.replace(p, r % 2 ? mxCreateString("bank") : mxCreateDoubleMatrix(3, 3, mxREAL));
              });
    }

    // Shapes and values, in the order of the arguments.
    error(kScaleSet, "notVector", "ScaleSet not a vector", "argument 1 (ScaleSet) must be a vector", false,
          [](MexCall& c, const CallPlan&, uint32_t r) {
              const Dims d[] = {{2, 2}, {1, 2, 2}, {0, 1000000}};
              c.replace(kScaleSet, numeric(mxDOUBLE_CLASS, d[r % 3]));
          });
    error(kMap, "size", "DirectionScaleMap of another size", "(one plane per direction)", false,
          [](MexCall& c, const CallPlan& s, uint32_t r) {
              const Dims d[] = {{s.m, s.k, 7}, {s.m + 1, s.k, 8}, {s.m, s.k, 8, 2}, {s.m * s.k, 8}};
              c.replace(kMap, numeric(mxUINT8_CLASS, d[r % 4]));
          });
    error(kMap, "indexOutOfRange", "DirectionScaleMap byte outside 1..L", "its values index ScaleSet", true,
          [](MexCall& c, const CallPlan& s, uint32_t r) {
              const size_t l = mxGetNumberOfElements(c.prhs[kScaleSet]);
              static_cast<uint8_t*>(mxGetData(at(c, kMap)))[r % (8 * s.pixel_count())] =
                  static_cast<uint8_t>(r % 2 ? 0 : l + 1);
          });
    error(kMap, "scaleOutOfRange", "selected scale outside 1..H", "selected scales must round into 1..H",
          true, [](MexCall& c, const CallPlan& s, uint32_t r) {
              const double bad[] = {s.h + 0.5, 0.4, kNaN, -1.0, kInf};
              c.replace(kScaleSet,
                        row(std::vector<double>(mxGetNumberOfElements(c.prhs[kScaleSet]), bad[r % 5])));
          });
    error(kTransforms, "tooFewCells", "too few transforms", "must hold at least 2*H-1", false,
          [](MexCall& c, const CallPlan& s, uint32_t) {
              c.replace(kTransforms, mxCreateCellMatrix(1, s.w() - 1));
          });
    error(
        kTransforms, "emptyCell", "unset transform", "it is unset", false,
        [](MexCall& c, const CallPlan& s, uint32_t r) { mxSetCell(at(c, kTransforms), r % s.w(), nullptr); });
    error(kTransforms, "size", "transform of another size", "(the transform of that length)", false,
          [](MexCall& c, const CallPlan& s, uint32_t r) {
              const mwSize len = r % s.w() + 1;
              const Dims d[] = {{len, len + 1}, {len + 1, len + 1}, {0, 0}, {len, len, 2}};
              mxSetCell(at(c, kTransforms), len - 1, numeric(mxDOUBLE_CLASS, d[r % 4]));
          });
    error(kTransforms, "notDouble", "transform of another class", "cell 1, must be a real double matrix",
          false, [](MexCall& c, const CallPlan&, uint32_t r) {
              const mxClassID ids[] = {mxSINGLE_CLASS, mxUINT8_CLASS, mxCELL_CLASS, mxCHAR_CLASS};
              mxSetCell(at(c, kTransforms), 0, same_shape(mxGetCell(c.prhs[kTransforms], 0), ids[r % 4]));
          });
    error(kTransforms, "complex", "complex transform", "", false,
          [](MexCall& c, const CallPlan& s, uint32_t r) {
              const mwSize len = r % s.w() + 1;
              mxSetCell(at(c, kTransforms), len - 1, numeric(mxDOUBLE_CLASS, {len, len}, true));
          });
    error(kTransforms, "sparse", "sparse transform", "", false,
          [](MexCall& c, const CallPlan& s, uint32_t r) {
              const mwSize len = r % s.w() + 1;
              mxSetCell(at(c, kTransforms), len - 1, mxCreateSparse(len, len, 1, mxREAL));
          });
    error(kMasks, "cellCount", "mask count other than H*H*8", "must hold H x H x 8", false,
          [](MexCall& c, const CallPlan& s, uint32_t r) {
              const Dims d[] = {{8 * s.h * s.h + 1, 1}, {s.h, s.h, 7}, {8 * s.h * s.h - 1, 1}};
              c.replace(kMasks, mxCreateCellArray(d[r % 3].size(), d[r % 3].data()));
          });
    error(kMasks, "emptyCell", "unset mask", "it is unset", false,
          [](MexCall& c, const CallPlan& s, uint32_t r) {
              mxSetCell(at(c, kMasks), r % (8 * s.h * s.h), nullptr);
          });
    error(kMasks, "notUint8", "mask of another class", "must be a uint8 mask", false,
          [](MexCall& c, const CallPlan& s, uint32_t r) {
              const mxClassID ids[] = {mxDOUBLE_CLASS, mxINT8_CLASS, mxCELL_CLASS, mxCHAR_CLASS};
              const size_t i = r % (8 * s.h * s.h);
              mxSetCell(at(c, kMasks), i, same_shape(mxGetCell(c.prhs[kMasks], i), ids[r % 4]));
          });
    error(kMasks, "size", "mask of another size", "(the box side 2*H-1 squared)", false,
          [](MexCall& c, const CallPlan& s, uint32_t r) {
              const mwSize w = s.w();
              const Dims d[] = {{w + 1, w + 1}, {w, w + 1}, {w, w, 2}};
              mxSetCell(at(c, kMasks), r % (8 * s.h * s.h), numeric(mxUINT8_CLASS, d[r % 3]));
          });
    error(kMasks, "complex", "complex mask", "", false, [](MexCall& c, const CallPlan& s, uint32_t r) {
        mxSetCell(at(c, kMasks), r % (8 * s.h * s.h), numeric(mxUINT8_CLASS, {s.w(), s.w()}, true));
    });
    error(kDft, "tooSmall", "DftSize below the box side", "must round to at least the box side", false,
          [](MexCall& c, const CallPlan& s, uint32_t r) {
              c.replace(kDft, scalar(r % 2 ? -1.0 * s.n : s.w() - 1.0));
          });
    error(kDft, "odd", "odd DftSize", "must round to an even number", false,
          [](MexCall& c, const CallPlan& s, uint32_t r) {
              c.replace(kDft, scalar(r % 2 ? s.n + 0.5 : s.n + 1.0));
          });
    for (int p : {kDft, kMaxScale}) {
        error(p, "notFinite", "not finite", "must be finite", false,
              [p](MexCall& c, const CallPlan&, uint32_t r) {
                  c.replace(p, scalar(r % 3 == 0 ? kNaN : r % 3 == 1 ? kInf : -kInf));
              });
    }
    error(kMaxScale, "outOfRange", "MaxScale below 1", "must round to at least 1", false,
          [](MexCall& c, const CallPlan&, uint32_t r) {
              c.replace(kMaxScale, scalar(r % 3 == 0 ? 0.4 : r % 3 == 1 ? -3.0 : 0.0));
          });
    t.push_back({"working memory over 4 GiB", Fault::kError, "shapewiener:sizes:tooLarge", "exceed 4 GiB",
                 false, [](MexCall& c, const CallPlan&, uint32_t r) {
                     c.replace(kDft, scalar(r % 2 ? 40000.0 : 1e9));
                     if (r % 3 == 0) c.replace(kMaxScale, scalar(20000.0));
                 }});
    error(kPsd, "size", "NoisePsd of another size", "(DFT size by DFT size)", false,
          [](MexCall& c, const CallPlan& s, uint32_t r) {
              const Dims d[] = {{s.n + 1, s.n}, {s.n, s.n + 1}, {s.n, s.n, 2}, {s.n / 2, s.n}};
              c.replace(kPsd, numeric(mxDOUBLE_CLASS, d[r % 4]));
          });
    error(kNoisy, "size", "NoisyImage not 2-D", "must be a 2-D matrix", false,
          [](MexCall& c, const CallPlan& s, uint32_t) {
              c.replace(kNoisy, numeric(mxDOUBLE_CLASS, {s.m, s.k, 2}));
          });
    error(kPilot, "size", "PilotImage of another size", "argument 14 (PilotImage) must be", false,
          [](MexCall& c, const CallPlan& s, uint32_t r) {
              const Dims d[] = {
                  {s.m + 1, s.k}, {s.m, s.k + 1}, {s.m, s.k, 2}, {s.k, s.m == s.k ? s.m + 1 : s.m}};
              c.replace(kPilot, numeric(mxDOUBLE_CLASS, d[r % 4]));
          });
    error(kList, "size", "ProcessingList of another size", "(one row per pixel: index and key)", false,
          [](MexCall& c, const CallPlan& s, uint32_t r) {
              const Dims d[] = {{s.pixel_count(), 3}, {s.pixel_count(), 1}, {s.pixel_count() + 1, 2}};
              c.replace(kList, numeric(mxINT32_CLASS, d[r % 3]));
          });
    error(kList, "pixelOutOfRange", "pixel outside 1..M*K", "pixel indices must lie in 1..", true,
          [](MexCall& c, const CallPlan& s, uint32_t r) {
              const int32_t mk = static_cast<int32_t>(s.pixel_count());
              const int32_t bad[] = {0, mk + 1, -1, std::numeric_limits<int32_t>::max()};
              static_cast<int32_t*>(mxGetData(at(c, kList)))[r / 4 % mk] = bad[r % 4];
          });

    // Calls the contract allows, however odd they look.
    allowed(
        "CoverageThreshold, NoiseLevelFactor, WienerVarianceFactor: any value", false,
        [](MexCall& c, const CallPlan&, uint32_t r) {
            c.replace(kCoverage + (r % 3 == 0 ? -5 : r % 3 == 1 ? -1 : 0), scalar(kHard[r / 3 % kHardCount]));
        });
    allowed("NaN and out-of-range pixel values", true, [](MexCall& c, const CallPlan& s, uint32_t r) {
        mxGetPr(at(c, kNoisy))[r % s.pixel_count()] = kNaN;
        mxGetPr(at(c, kPilot))[r / 7 % s.pixel_count()] = -40.0;
    });
    allowed("unselected ScaleSet elements hold anything; ScaleSet as a column", false,
            [](MexCall& c, const CallPlan& s, uint32_t r) {
                std::vector<double> v = s.scale_set;
                for (uint32_t i = 0; i < r % 3; ++i) v.push_back(kHard[(r / 3 + i) % kHardCount]);
                mxArray* a = c.replace(
                    kScaleSet, mxCreateDoubleMatrix(r % 2 ? v.size() : 1, r % 2 ? 1 : v.size(), mxREAL));
                std::memcpy(mxGetPr(a), v.data(), sizeof(double) * v.size());
            });
    allowed("surplus transforms, unset or anything", false, [](MexCall& c, const CallPlan& s, uint32_t r) {
        mxArray* bank = c.replace(kTransforms, mxCreateCellMatrix(1, s.w() + 1 + r % 3));
        for (uint32_t i = 0; i < s.w(); ++i) mxSetCell(bank, i, mxCreateDoubleMatrix(i + 1, i + 1, mxREAL));
        for (uint32_t i = 0; i < s.w(); ++i)
            std::memcpy(mxGetPr(mxGetCell(bank, i)), s.transforms[i].data(), 8 * (i + 1) * (i + 1));
        if (r % 2) mxSetCell(bank, s.w(), junk(r / 2));
    });
    allowed("keys that repeat, are 0 or claim equal shapes; pixels repeated", true,
            [](MexCall& c, const CallPlan& s, uint32_t r) {
                const uint32_t mk = s.pixel_count();
                auto* list = static_cast<int32_t*>(mxGetData(at(c, kList)));
                std::mt19937 rng(r);
                for (uint32_t i = 0; i < mk; ++i) {
                    if (r % 4 == 0) list[i] = static_cast<int32_t>(1 + rng() % mk);
                    list[mk + i] = r % 4 == 1   ? 0
                                   : r % 4 == 2 ? static_cast<int32_t>(rng() % 3) - 1
                                                : list[mk + i];
                }
            });
    allowed("random DirectionScaleMap bytes in 1..L", true, [](MexCall& c, const CallPlan& s, uint32_t r) {
        std::mt19937 rng(r);
        auto* map = static_cast<uint8_t*>(mxGetData(at(c, kMap)));
        for (size_t i = 0; i < 8 * s.pixel_count(); ++i)
            map[i] = static_cast<uint8_t>(1 + rng() % s.scale_set.size());
    });
    allowed("MaxScale and DftSize that round to H and N", false,
            [](MexCall& c, const CallPlan& s, uint32_t r) {
                c.replace(kMaxScale, scalar(r % 2 ? s.h + 0.4 : s.h - 0.5));
                c.replace(kDft, scalar(s.n + 0.4));
            });
    allowed("scalars given as arrays (the first element counts)", false,
            [](MexCall& c, const CallPlan& s, uint32_t r) {
                const int p[] = {kDft, kNoiseFactor, kMaxScale, kWiener, kCoverage};
                const double first = *mxGetPr(c.prhs[p[r % 5]]);
                c.replace(p[r % 5], row({first, kNaN, -1.0}));
                (void)s;
            });
    allowed("ignored arguments hold anything", false, [](MexCall& c, const CallPlan&, uint32_t r) {
        c.replace(r % 3 == 0 ? 4 : r % 3 == 1 ? 5 : 11, junk(r / 3));
    });

    // Anything goes: only the properties every call has are checked.
    t.push_back({"anything in any place", Fault::kEither, "", "", false,
                 [](MexCall& c, const CallPlan&, uint32_t r) { c.replace(r % 16, junk(r / 16)); }});
    t.push_back({"an argument shared with another", Fault::kEither, "", "", false,
                 [](MexCall& c, const CallPlan&, uint32_t r) {
                     c.prhs[r % 16] = c.prhs[(r % 16 + 1 + r / 16 % 15) % 16];
                 }});
    return t;
}

// Everything observable of an argument, to see what a call changed.
struct Snapshot {
    const mxArray* array = nullptr;
    mxClassID id = mxUNKNOWN_CLASS;
    Dims dims;
    bool complex = false, sparse = false;
    std::vector<unsigned char> bytes;
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
        for (size_t i = 0; i < mxGetNumberOfElements(a); ++i) s.cells.push_back(take(mxGetCell(a, i)));
    } else if (!s.sparse && mxGetNumberOfElements(a) > 0) {
        const auto* p = static_cast<const unsigned char*>(mxGetData(a));
        s.bytes.assign(p, p + mxGetNumberOfElements(a) * mx_host::element_size(s.id));
    }
    return s;
}

bool unchanged(const Snapshot& s, const mxArray* a) {
    if (s.array != a || a == nullptr) return s.array == a;
    if (mxGetClassID(a) != s.id || dims_of(a) != s.dims || mxIsComplex(a) != s.complex ||
        mxIsSparse(a) != s.sparse) {
        return false;
    }
    for (size_t i = 0; i < s.cells.size(); ++i) {
        if (!unchanged(s.cells[i], mxGetCell(a, i))) return false;
    }
    return s.bytes.empty() || std::memcmp(mxGetData(a), s.bytes.data(), s.bytes.size()) == 0;
}

}  // namespace

const std::vector<Fault>& faults() {
    static const std::vector<Fault> table = build_table();
    return table;
}

mxArray* junk(uint32_t r) {
    switch (r % 8) {
        case 0:
            return mxCreateString(r & 8 ? "" : "shapewiener");
        case 1: {
            mxArray* a = mxCreateCellMatrix(r / 8 % 3, 2);
            for (size_t i = 0; i < mxGetNumberOfElements(a); i += 2)
                mxSetCell(a, i, scalar(kHard[i % kHardCount]));
            return a;
        }
        case 2:
            return mxCreateSparse(r / 8 % 4, 3, 1, r & 8 ? mxCOMPLEX : mxREAL);
        case 3:
            return mxCreateDoubleMatrix(0, 0, mxREAL);
        case 4:
            return scalar(kHard[r / 8 % kHardCount]);
        case 5:
            return r & 8 ? mxCreateDoubleMatrix(0, 4294967296ull, mxREAL)
                         : mxCreateDoubleMatrix(4294967295u, 0, mxREAL);
        case 6:
            return numeric(r & 8 ? mxINT16_CLASS : mxUINT8_CLASS, {2, 1, 2, 2});
        default: {
            mxArray* a = numeric(mxDOUBLE_CLASS, {2, 2, 2});
            for (size_t i = 0; i < 8; ++i) mxGetPr(a)[i] = kHard[(r / 8 + i) % kHardCount];
            return a;
        }
    }
}

std::string check_call(MexCall& call, int nlhs, int nrhs, const char* expected, std::string* error_text) {
    for (uint32_t i = 0; call.prhs.size() < static_cast<size_t>(nrhs); ++i)
        call.prhs.push_back(call.own(junk(i)));
    std::vector<Snapshot> before;
    for (const mxArray* a : call.prhs) before.push_back(take(a));
    const long live = mx_host::live_array_count();
    mxArray* plhs[4] = {nullptr, nullptr, nullptr, nullptr};
    std::string id, message, problem;
    bool raised = false;
    try {
        mexFunction(nlhs, plhs, nrhs, call.prhs.data());
    } catch (const mx_host::MexError& e) {
        raised = true;
        id = e.identifier();
        message = e.what();
    }
    const bool has_output = plhs[0] != nullptr;
    const mxArray* out = plhs[0];
    const mxArray* image = nrhs > 8 ? call.prhs[8] : nullptr;
    if (raised) {
        if (id.rfind("shapewiener:", 0) != 0 || message.empty())
            problem = "error outside the namespace or without text";
        if (has_output || plhs[1] != nullptr) problem = "a rejected call set an output";
    } else if (out == nullptr || !mxIsDouble(out) || mxIsComplex(out) || mxIsSparse(out) ||
               mxGetNumberOfDimensions(out) != 2 || mxGetM(out) != mxGetM(image) ||
               mxGetN(out) != mxGetN(image)) {
        problem = "the output is not a real M x K double matrix";
    } else if (plhs[1] != nullptr || plhs[2] != nullptr || plhs[3] != nullptr) {
        problem = "an output beyond the first was set";
    }
    for (size_t p = 0; p < before.size() && problem.empty(); ++p) {
        const bool image_argument =
            !raised && (call.prhs[p] == call.prhs[8] || call.prhs[p] == call.prhs[13]);
        if (!image_argument && !unchanged(before[p], call.prhs[p]))
            problem = "the call changed input " + std::to_string(p + 1);
    }
    for (mxArray* a : plhs) mxDestroyArray(a);
    if (problem.empty() && mx_host::live_array_count() != live) problem = "arrays leaked";
    if (problem.empty() && expected != nullptr) {
        const std::string want = expected;
        const bool prefix = !want.empty() && want.back() == ':';
        if (want.empty() ? raised : !(raised && (prefix ? id.rfind(want, 0) == 0 : id == want))) {
            problem = "expected " + (want.empty() ? std::string("success") : want) + ", got " +
                      (raised ? id + ": " + message : std::string("success"));
        }
    }
    if (error_text != nullptr) *error_text = raised ? id + ": " + message : "";
    return problem.empty() || !raised ? problem : problem + " (" + id + ": " + message + ")";
}

}  // namespace swtest
