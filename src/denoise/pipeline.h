// The denoiser's stages and the settings that drive them. sw::denoise maps
// a preset name onto Settings and runs run_pipeline; benchmarks and tests
// use the stages directly.
#ifndef SHAPEWIENER_DENOISE_PIPELINE_H
#define SHAPEWIENER_DENOISE_PIPELINE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "caller/shape_arguments.h"
#include "denoise/module.h"
#include "denoise/noise.h"
#include "denoise/peaks.h"
#include "denoise/scales.h"
#include "shapewiener/denoise.h"

namespace swdenoise {

struct Settings {
    // Shapes: per-pixel scales by `rule` (adaptive) or squares of side
    // 2 * square_scale - 1 everywhere.
    bool adaptive = true;
    ScaleRule rule;
    uint32_t square_scale = 4;
    // Passes and their WienerVarianceFactors, for coloured noise and for
    // white noise (every lag but 0 of the autocovariance is 0): the first
    // against the noisy image, every later one against the previous pass's
    // estimate with the second factor.
    int passes = 3;
    double first_factor = 6.0;
    double second_factor = 2.0;
    double first_factor_white = 9.0;
    double second_factor_white = 1.5;
    // The first pass's estimate is only the second's pilot: it processes
    // the pixels on every pilot_step-th row and column (of the frame) and
    // leaves the rest to their neighbours' shapes. 1: every pixel.
    // `sparse_passes`: how many passes (from the first, fewer than
    // `passes`) run on that lattice; the colour differences of a colour
    // image, smooth where the luminance has the detail, take two.
    // `pilot_diagonal`: those passes take the diagonal lines of the frame
    // whose row plus column is a multiple of pilot_step instead.
    uint32_t pilot_step = 2;
    int sparse_passes = 1;
    bool pilot_diagonal = false;
    // The last pass on diagonal lines of the frame, the pixels whose row
    // plus column is a multiple of `last_step` (2: the checkerboard, 3: a
    // third of the pixels), when there are at least two passes; 1: every
    // pixel. The colour differences take 3.
    uint32_t last_step = 1;
    // The passes after the sparse ones and before the last, whose estimates
    // are only pilots too: on the checkerboard of the frame instead of
    // every pixel (`checkerboard_pilots`), or, with coloured noise, on the
    // lattice of the sparse passes (`sparse_pilots_coloured`). The default
    // preset takes both.
    bool checkerboard_pilots = false;
    bool sparse_pilots_coloured = false;
    // Map the image affinely onto [0, 1] before filtering (see denoise.h);
    // off: filter the values as they are.
    bool normalise_range = true;
    // NoisePsd: the block spectrum with the window's lag weights (true) or
    // the plain folded autocovariance (see block_psd).
    bool weighted_psd = false;
    // The global stage for noise with narrow spectral peaks (whole images
    // only; see denoise/peaks.h).
    PeakRule peaks;
};

// The settings of a preset: "fast" or "default". Throws DenoiseError
// ("shapewiener:options:preset") for any other name.
Settings preset_settings(const std::string& name);

// The shapes of one image: scales, masks, transforms and processing list.
// When `rows_only` every shape is packed by rows (ScaleSet holds the lengths
// twice and planes 0 and 4 index the second copy, so q0 + q4 > q2 + q6).
// `ties`: see swcaller::build_shape_list (the denoiser orders by content).
// `threads`: for the scales (see choose_scales).
swcaller::ShapeArguments adaptive_shapes(const double* image, uint32_t rows, uint32_t cols,
                                         const Autocovariance& r, const ScaleRule& rule,
                                         bool rows_only,
                                         swcaller::GroupTies ties = swcaller::GroupTies::kFirstPixel,
                                         unsigned threads = 1);

// The affine map onto the filter's working range: working = (x - offset) /
// scale takes values in [lo, lo + width] onto [0.1, 0.9] (width 0: lo onto
// 0.1 with scale 1); without `normalise` the identity. The scale follows
// from the width alone, so images of one width get the same scale bit for
// bit whatever their lo.
struct RangeMap {
    double offset = 0.0;
    double scale = 1.0;
};
RangeMap working_range(double lo, double width, bool normalise);

// Shapes shared by several images of one size (the channels of a colour
// image): the first run_pipeline that needs shapes chooses them on its own
// image and stores them here; later ones use them. `rows_only` set by the
// caller packs every shape by rows (needed when any image's noise spectrum
// is not transpose-symmetric).
//
// The plan is shared too: the first image plans its passes here (levels for
// any image, sw::LevelScope::kAnyImage) and every later image whose noise
// spectrum NoisePsd is the same executes that plan, with the levels the
// first computed. For the spectra to be the same, the caller sets
// `range_width` (> 0) to the widest value range of the images: every image
// then maps a range of that width (or its own, if wider) onto the working
// range, so equal noise gives equal working spectra.
struct SharedShapes {
    swcaller::ShapeArguments shapes;
    bool ready = false;
    bool rows_only = false;
    double range_width = 0.0;
    // Set by the first image that plans (the plan refers to psd and arrays).
    std::vector<double> psd;
    std::unique_ptr<CallArrays> arrays;
    sw::Plan plan;
    bool planned = false;
    // The noise set-up: the first image stores its noise model, that
    // model's autocovariance and whether the peak stage found nothing to
    // remove; a later image whose model is the same, bit for bit, takes
    // them instead of computing them again. The caller may store a model
    // and its autocovariance beforehand (`peaks_checked` false).
    sw::NoiseModel noise;
    Autocovariance raw;
    bool noise_known = false;
    bool peaks_checked = false;
    bool no_peaks = false;
};

// Whether two noise models are the same, bit for bit.
bool same_model(const sw::NoiseModel& a, const sw::NoiseModel& b);

// Runs the whole denoiser; see sw::denoise.
// `tile`: see sw::TileFrame (rows 0: the image is whole).
// `shared`: see SharedShapes (nullptr: the image chooses its own).
sw::Image run_pipeline(const sw::Image& image, const sw::NoiseModel& noise,
                       const Settings& settings, unsigned threads, const sw::Progress& progress,
                       sw::DenoiseReport* report, const sw::TileFrame& tile = sw::TileFrame(),
                       SharedShapes* shared = nullptr);

}  // namespace swdenoise

#endif  // SHAPEWIENER_DENOISE_PIPELINE_H
