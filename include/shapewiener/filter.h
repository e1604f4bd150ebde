// shapewiener: the filter module as a plain C++ call.
//
// One call filters an M x K grey-scale image corrupted by coloured noise:
// for every entry of a processing list it builds the pixel's adaptive
// neighbourhood (a union of eight sectors), transforms the values on it with
// a separable shape-adaptive transform, shrinks every coefficient with an
// empirical Wiener factor against a pilot estimate (each coefficient with its
// own noise level, from the noise power spectrum) and aggregates the
// overlapping estimates with inverse-variance weights. Results are fixed bit
// for bit: every path (serial, threaded, any SIMD width) gives the same bits.
//
// All arrays are column-major (element (i, j) of an R x C matrix at i + j*R)
// and belong to the caller; the filter reads them in place. It writes the
// output and dithers the noisy and the pilot image in place (see FilterCall).
// Nothing here depends on a host: the MEX gateway, the Python module and the
// command line are thin layers over these functions.
#ifndef SHAPEWIENER_FILTER_H
#define SHAPEWIENER_FILTER_H

#include <cstddef>
#include <cstdint>
#include <functional>

namespace sw {

// Positions of the module's arguments (0-based; the MEX gateway's prhs
// order). Error messages count them from 1. Positions 4, 5 and 11 are unused.
enum Argument : int {
    kArgScaleSet = 0,
    kArgDirectionScaleMap = 1,
    kArgTransformBank = 2,
    kArgSectorMaskBank = 3,
    kArgDftSize = 6,
    kArgNoisePsd = 7,
    kArgNoisyImage = 8,
    kArgProcessingList = 9,
    kArgNoiseLevelFactor = 10,
    kArgMaxScale = 12,
    kArgPilotImage = 13,
    kArgWienerVarianceFactor = 14,
    kArgCoverageThreshold = 15,
    kArgumentCount = 16,
};

// The dimensions of an array as its owner counts them (at least two; a host
// array with more than kMaxDims dimensions keeps its first kMaxDims - 1 and
// folds the rest into the last).
struct Dims {
    static constexpr int kMaxDims = 8;
    int count = 2;
    uint64_t size[kMaxDims] = {0, 0, 1, 1, 1, 1, 1, 1};

    static Dims matrix(uint64_t rows, uint64_t cols) {
        Dims d;
        d.size[0] = rows;
        d.size[1] = cols;
        return d;
    }
    static Dims array3(uint64_t d0, uint64_t d1, uint64_t d2) {
        Dims d;
        d.count = 3;
        d.size[0] = d0;
        d.size[1] = d1;
        d.size[2] = d2;
        return d;
    }
    uint64_t rows() const { return size[0]; }
    // All dimensions after the first, multiplied (MATLAB's column count).
    uint64_t cols() const {
        uint64_t c = 1;
        for (int i = 1; i < count; ++i) c *= size[i];
        return c;
    }
    uint64_t elements() const { return size[0] * cols(); }
};

// A read-only array and its dimensions.
template <class T>
struct ArrayView {
    const T* data = nullptr;
    Dims dims;
};

// One call of the module: the sixteen arguments of the MEX gateway, typed.
//
// Sizes: M x K image; H = max_scale rounded (see round_to_unsigned); box side
// W = 2H - 1; spectrum grid N = dft_size rounded; L scale lengths.
struct FilterCall {
    // ScaleSet: L scale lengths (a 1 x L or L x 1 vector). Each is rounded
    // and must land in 1..H; DirectionScaleMap values index it from 1.
    ArrayView<double> scale_set;
    // DirectionScaleMap: M x K x 8 bytes; plane d holds, per pixel, the
    // 1-based ScaleSet index of direction d.
    ArrayView<uint8_t> direction_scale_map;
    // TransformBank: at least W matrices; transforms[L - 1] is the L x L
    // orthonormal transform of length L, row f the f-th basis vector.
    const ArrayView<double>* transforms = nullptr;
    size_t transform_count = 0;
    // SectorMaskBank: H x H x 8 masks in column-major cell order, each
    // W x W bytes; mask (a, b, d) (1-based a, b) is sector d for scales a
    // and b of its two bounding directions (planes (d+4) mod 8, (d+5) mod 8).
    const ArrayView<uint8_t>* sector_masks = nullptr;
    size_t sector_mask_count = 0;
    // Side N of the noise spectrum grid; N = 32 takes the fast FFT path.
    // Must round to an even value of at least W.
    double dft_size = 32.0;
    // NoisePsd: N x N, element (u, v) at u + N*v, DC at (0, 0), unshifted;
    // u is the vertical frequency for shapes packed by rows and the
    // horizontal one for shapes packed by columns (the module lays the
    // latter out transposed), so give a PSD symmetric under transposition
    // unless that is what you mean. Units: white noise of
    // variance s^2 has NoisePsd == s^2. Only rows 0..N/2 are read.
    ArrayView<double> noise_psd;
    // NoisyImage: M x K. Dithered in place by the call (below).
    double* noisy_image = nullptr;
    Dims image_dims;
    // ProcessingList: M*K x 2 int32, the 1-based pixel indices then the
    // ShapeKeys. Consecutive entries with one key must have identical shapes.
    ArrayView<int32_t> processing_list;
    // Multiplies every noise standard deviation.
    double noise_level_factor = 1.0;
    // H, the largest scale (rounded; at least 1).
    double max_scale = 1.0;
    // PilotImage: M x K, the pilot estimate. Dithered in place by the call.
    double* pilot_image = nullptr;
    Dims pilot_dims;
    // Multiplies the noise variance inside the Wiener factors.
    double wiener_variance_factor = 1.0;
    // An entry whose pixel is already covered more often than this
    // (rounded) is skipped; 1e9 never skips.
    double coverage_threshold = 1e9;
    // Not an argument of the module: for tiled processing, the image as a
    // window of a larger one (its frame). With frame.rows > 0, pixel (i, j)
    // is dithered as pixel (frame.row0 + i, frame.col0 + j) of a
    // frame.rows x frame.cols image, so that a tile gets the dither the
    // whole image gives it. Default: the image is its own frame.
    struct Frame {
        uint32_t rows = 0;
        uint32_t cols = 0;
        uint32_t row0 = 0;
        uint32_t col0 = 0;
    } frame;
    // Not an argument of the module: a sparse pass (a pilot that only needs
    // to be good enough). With entry_step s > 1 an entry is processed only
    // where its pixel's row and column in the frame are both multiples of
    // s; the other entries are skipped as the coverage test skips them.
    // Pixels no processed shape covers get NaN. 1: every entry.
    uint32_t entry_step = 1;
    // With entry_step s > 1: process the entries whose pixel's row plus
    // column in the frame is a multiple of s instead (diagonal lines; s = 2
    // is a checkerboard, half the entries).
    bool entry_diagonal = false;
    // Not an argument of the module: the shape transforms form their
    // products and sums in float, with the matrices rounded to float, where
    // the module multiplies in double and rounds every step. Results equal
    // the module's up to rounding, not bit for bit (the denoiser's choice;
    // the reference kernels ignore it).
    bool float_sums = false;
};

// What went wrong. Each code is one <reason> of the identifier
// "shapewiener:<argument>:<reason>".
enum class ErrorCode : int {
    kNone = 0,
    kSize,             // wrong dimensions
    kNotVector,        // ScaleSet is not a vector
    kNotFinite,        // H or N infinite or NaN
    kOutOfRange,       // H rounds below 1
    kTooSmall,         // N below the box side W
    kOdd,              // N odd
    kTooFewCells,      // fewer than W transforms
    kCellCount,        // not H*H*8 sector masks
    kPixelOutOfRange,  // a processing-list pixel outside 1..M*K
    kIndexOutOfRange,  // a DirectionScaleMap byte outside 1..L
    kScaleOutOfRange,  // a selected scale that does not round into 1..H
    kTooLarge,         // working memory over 4 GiB, or over 2^31 - 1 pixels
    kOutOfMemory,      // the working memory could not be allocated
    kInterrupted,      // stopped by the progress callback
    // What only a host with dynamically typed arrays can get wrong:
    kTooFew,           // fewer than sixteen arguments
    kTooMany,          // more than one output
    kNotDouble,        // wrong class ...
    kNotUint8,
    kNotInt32,
    kNotCell,
    kComplex,          // complex array
    kSparse,           // sparse array
    kEmpty,            // empty scalar
    kEmptyCell,        // an unset cell
    kInvalid,          // any other rejected input (front ends' own checks)
};

// A rejected call: the code, the argument it concerns (0-based position,
// or -1 for the call as a whole), the identifier and a message that names
// the argument as a user counts it ("argument 10 (ProcessingList): ...").
// Fixed-size text, so that an Error can cross any host's error mechanism.
struct Error {
    ErrorCode code = ErrorCode::kNone;
    int argument = -1;
    char identifier[96] = {0};
    char message[512] = {0};

    explicit operator bool() const { return code != ErrorCode::kNone; }
};

// The module's conversion of a double argument to an unsigned 32-bit
// integer: x + 0.5 truncated toward zero (so 2.5 -> 3 and
// 0.49999999999999994 -> 1, since the sum rounds up to 1.0), NaN -> 2^31,
// clamped to 0..2^32-1.
inline uint32_t round_to_unsigned(double x) {
    const double v = x + 0.5;
    if (v != v) return 2147483648u;
    if (!(v > 0.0)) return 0u;
    if (v >= 4294967295.0) return 4294967295u;
    return static_cast<uint32_t>(v);
}

// The maximum scales with a size-specialised instantiation of the filter.
inline constexpr uint32_t kSpecialisedScales[] = {4, 5, 6, 7, 8, 9, 10, 11};

// Checks a call against the argument contract: dimensions, value ranges,
// processing-list pixels, the scales the DirectionScaleMap selects, and the
// working memory (at most 4 GiB, everything the call would allocate counted).
// Returns an Error with code kNone when the call may run.
Error check(const FilterCall& call);

// How a call runs. None of these options changes a bit of the result.
struct RunOptions {
    // Worker threads: 0 takes SHAPEWIENER_THREADS from the environment, or
    // all hardware threads; 1 runs serially on the calling thread.
    unsigned threads = 0;
    // The straightforward serial path, kept as the reference for checks.
    bool reference = false;
    // Called on the calling thread now and then with the fraction done
    // (0..1); returning false stops the call (ErrorCode::kInterrupted).
    std::function<bool(double fraction)> progress;
};

// Runs a call that check() accepted: fills `output` (M*K doubles,
// column-major) and dithers noisy_image and pilot_image in place (pixel q of
// the noisy image gains ((M*K - 1 - q) mod 256) * 3e-17, of the pilot
// image that plus 13 * 3e-17; with a frame, q and M*K count the frame's
// pixels). Returns kOutOfMemory or kInterrupted, with
// `output` unspecified, or kNone.
Error run(const FilterCall& call, double* output, const RunOptions& options = RunOptions());

}  // namespace sw

#endif  // SHAPEWIENER_FILTER_H
