// shapewiener: the complete denoiser. An image and a description of its
// noise in, the estimate of the clean image out; every argument of the
// filter module (scales, shapes, transforms, processing list, noise
// spectrum, pilot) is built here.
#ifndef SHAPEWIENER_DENOISE_H
#define SHAPEWIENER_DENOISE_H

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "shapewiener/filter.h"

namespace sw {

// The noise, in the image's own units. Three forms:
// - white: sigma > 0 is the per-pixel standard deviation;
// - kernel: noise = sigma * (k (*) w) / ||k||_2 with w standard white noise,
//   so sigma is again the per-pixel standard deviation; k is
//   kernel_rows x kernel_cols, column-major, centred at ((rows-1)/2, (cols-1)/2);
// - psd: a full-size power spectrum, image rows x image cols, column-major,
//   DC at (0, 0), unshifted, scaled so that white noise of variance s^2 has
//   PSD == s^2 (its mean is the per-pixel variance).
struct NoiseModel {
    enum class Kind { kWhite, kKernel, kPsd };
    Kind kind = Kind::kWhite;
    double sigma = 0.0;
    std::vector<double> kernel;
    uint32_t kernel_rows = 0;
    uint32_t kernel_cols = 0;
    std::vector<double> psd;

    static NoiseModel white(double sigma);
    static NoiseModel from_kernel(std::vector<double> kernel, uint32_t rows, uint32_t cols,
                                  double sigma);
    static NoiseModel from_psd(std::vector<double> psd);
};

// A grey-scale image, rows x cols doubles, column-major.
struct Image {
    uint32_t rows = 0;
    uint32_t cols = 0;
    std::vector<double> pixels;
};

// Denoising one tile of a larger image (tiled or distributed processing).
// A tile skips the denoiser's global stage (narrow noise peaks removed over
// the whole image, see remove_noise_peaks): run that once on the frame and
// tile its output, with its residual noise.
// With rows > 0 the image given to denoise() is the window of a rows x cols
// image (the frame) whose first pixel is the frame's pixel (row0, col0), and
// the denoiser treats it as that part of the frame: it maps values onto its
// working range with the frame's value_min and value_max, takes a psd noise
// model of the frame's size, dithers every pixel as the frame's pixel it is
// (FilterCall::frame), and visits the pixels in the frame's order restricted
// to the tile. The pixels at least tile_halo(preset) pixels away from every
// side of the tile that is not a side of the frame then get the bits the
// call on the whole frame gives them.
struct TileFrame {
    uint32_t rows = 0;  // 0: the image is whole
    uint32_t cols = 0;
    uint32_t row0 = 0;
    uint32_t col0 = 0;
    double value_min = 0.0;  // the frame's smallest and largest value
    double value_max = 0.0;
};

struct DenoiseOptions {
    // "fast" (fixed squares, one pass) or "default".
    std::string preset = "default";
    // Worker threads as in RunOptions (0: SHAPEWIENER_THREADS or all).
    unsigned threads = 0;
    // Set for a tile of a larger image; default: the image is whole.
    TileFrame tile;
    // false: skip the global stage (see remove_noise_peaks).
    bool peaks = true;
};

// The border a tile needs around the pixels it keeps, for a preset: with P
// passes and largest scale H, P * 2 * (H - 1) pixels (a pass reads values up
// to H - 1 pixels from a block's centre and the blocks that cover a pixel have
// their centres up to H - 1 pixels away; the scales of a block look H - 1
// pixels along each direction; a second pass reads the first pass's estimate
// around its blocks). Throws DenoiseError for an unknown preset.
uint32_t tile_halo(const std::string& preset);

// What a call did.
struct DenoiseReport {
    int passes = 0;
    uint64_t accepted_entries = 0;  // over all passes
    uint64_t key_changes = 0;       // over all passes
    double seconds = 0.0;
};

// Progress: fraction of the whole call done (0..1) and the phase's name
// ("scales", "pass 1", ...). Return false to cancel the call.
using Progress = std::function<bool(double fraction, const char* phase)>;

// A rejected input or a cancelled call; error() holds the identifier
// ("shapewiener:<what>:<reason>") and the message.
class DenoiseError : public std::runtime_error {
public:
    explicit DenoiseError(const Error& e) : std::runtime_error(e.message), error_(e) {}
    const Error& error() const { return error_; }

private:
    Error error_;
};

// The denoiser's first, global stage on its own. Noise whose spectrum has
// narrow peaks (stripes, moire) is removed where it is concentrated by a
// frequency-domain gain over the whole image. Returns false when `noise`
// has no such peaks (then the outputs are untouched); otherwise sets `out`
// to the image with the peaks removed and `residual` to the psd model of the
// noise left in it. denoise(image, noise) with a preset equals, bit for
// bit, denoise(out, residual) with that preset and peaks = false, and so
// the tiles of `out` (framed by `out`); except when the peaks held all the
// noise: then `residual` is all zero and `out` is the denoised image.
// Throws DenoiseError as denoise().
bool remove_noise_peaks(const Image& image, const NoiseModel& noise, const std::string& preset,
                        Image* out, NoiseModel* residual);
// Whether remove_noise_peaks does anything for this noise on a rows x cols
// image (it depends on the noise only).
bool noise_has_peaks(const NoiseModel& noise, uint32_t rows, uint32_t cols, const std::string& preset);

// Denoises `image` (any size of at least 1 x 1, NaN/Inf-free, any value
// range). Returns the estimate: same size, double, not clipped. The image's
// [min, max] is mapped affinely onto [0.1, 0.9] for the filter (the noise
// with it) and the estimate mapped back, so denoising a*x + b with the noise
// scaled by a gives a*y + b up to rounding. Progress phases: "noise",
// "shapes", "pass 1", "pass 2", "pass 3", "done". Same inputs, same bits, whatever
// options.threads. Throws DenoiseError: "shapewiener:image:<reason>" (empty,
// size, notFinite, tooLarge), "shapewiener:noise:<reason>" (sigma,
// kernelSize, psdSize, negative, notFinite, allZero),
// "shapewiener:options:preset", "shapewiener:denoise:interrupted".
Image denoise(const Image& image, const NoiseModel& noise,
              const DenoiseOptions& options = DenoiseOptions(),
              const Progress& progress = Progress(), DenoiseReport* report = nullptr);

}  // namespace sw

#endif  // SHAPEWIENER_DENOISE_H
