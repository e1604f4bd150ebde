#include "shapewiener/denoise.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "cancel/cancel.h"
#include "denoise/fail.h"
#include "denoise/module.h"
#include "denoise/pipeline.h"
#include "driver/filter.h"
#include "driver/parallel.h"
#include "shapewiener/units.h"

namespace swdenoise {

void fail(const std::string& identifier, const std::string& message, sw::ErrorCode code) {
    sw::Error e;
    e.code = code;
    std::snprintf(e.identifier, sizeof e.identifier, "%s", identifier.c_str());
    std::snprintf(e.message, sizeof e.message, "%s", message.c_str());
    throw sw::DenoiseError(e);
}

void check_image(const sw::Image& image, uint32_t min_side, const char* purpose) {
    const std::string side = std::to_string(min_side);
    if (image.rows == 0 || image.cols == 0) {
        fail("shapewiener:image:empty",
             "the image is empty; it needs at least " + side + " x " + side + " pixels.");
    }
    const uint64_t count = static_cast<uint64_t>(image.rows) * image.cols;
    if (image.pixels.size() != count) {
        fail("shapewiener:image:size", "the image has " + std::to_string(image.pixels.size()) +
                                           " values for " + std::to_string(image.rows) + " x " +
                                           std::to_string(image.cols) + " pixels.");
    }
    if (count > 2147483647u) {
        fail("shapewiener:image:tooLarge", "the image has more than 2^31 - 1 pixels.");
    }
    if (image.rows < min_side || image.cols < min_side) {
        fail("shapewiener:image:tooSmall",
             std::string(purpose) + " needs an image of at least " + side + " x " + side + " pixels, got " +
                 std::to_string(image.rows) + " x " + std::to_string(image.cols) + ".");
    }
    for (size_t p = 0; p < image.pixels.size(); ++p) {
        if (!std::isfinite(image.pixels[p])) {
            fail("shapewiener:image:notFinite",
                 "the image has a NaN or Inf value at row " + std::to_string(p % image.rows + 1) +
                     ", column " + std::to_string(p / image.rows + 1) + ".");
        }
    }
}

Settings preset_settings(const std::string& name) {
    Settings s;
    s.peaks.enabled = true;
    // The second pass, only the third's pilot, runs on the checkerboard
    // (white noise) or the first pass's sparse lattice (coloured noise):
    // bench/RESULTS.md.
    s.checkerboard_pilots = true;
    s.sparse_pilots_coloured = true;
    if (name == "default") return s;
    if (name == "fast") {
        s.adaptive = false;
        s.square_scale = 4;
        s.passes = 1;
        return s;
    }
    // Nothing measured better than the default within 3x its time (H = 9
    // took 6x as long and was no better; an interval half-width of 1.0
    // gained on Gaussian noise but lost more on white and line noise; a
    // fourth pass gained nothing over three; bench/RESULTS.md), so there is
    // no slower preset.
    fail("shapewiener:options:preset",
         "unknown preset '" + name + "'; the presets are fast and default.");
}

swcaller::ShapeArguments adaptive_shapes(const double* image, uint32_t rows, uint32_t cols,
                                         const Autocovariance& r, const ScaleRule& rule,
                                         bool rows_only, swcaller::GroupTies ties,
                                         unsigned threads) {
    const std::vector<uint8_t> chosen = choose_scales(image, rows, cols, r, rule, threads);
    const uint32_t count = static_cast<uint32_t>(rule.lengths.size());
    std::vector<double> scale_set;
    for (uint32_t length : rule.lengths) scale_set.push_back(length);
    if (rows_only) {
        for (uint32_t length : rule.lengths) scale_set.push_back(length);
    }
    swcaller::DirectionScaleMap map(rows, cols, 1);
    const size_t plane_size = map.plane_size();
    for (uint32_t d = 0; d < 8; ++d) {
        // With the doubled set, E and W index the second copy: q0 + q4 >= 2 L + 2
        // while q2 + q6 <= 2 L, so every shape is packed by rows.
        const uint8_t shift = (rows_only && (d == 0 || d == 4)) ? static_cast<uint8_t>(count) : 0;
        for (size_t p = 0; p < plane_size; ++p) {
            map.indices[p + d * plane_size] = static_cast<uint8_t>(chosen[p + d * plane_size] + 1 + shift);
        }
    }
    const uint32_t h = rule.lengths.back();
    return swcaller::make_shape_arguments(h, std::move(scale_set), std::move(map), true, ties);
}

RangeMap working_range(double lo, double width, bool normalise) {
    RangeMap m;
    if (!normalise) return m;
    // [min, max] onto [0.1, 0.9]: the module clips every estimate to [0, 1]
    // and an estimate of exactly 0 everywhere on a shape gets weight 1/0.
    m.scale = width > 0.0 ? width / 0.8 : 1.0;
    m.offset = lo - 0.1 * m.scale;
    return m;
}

namespace {

// The mean of `values` (rows x cols, column-major) over the square of
// half-width `reach` around pixel (r, c), clipped at the borders: the limit
// of the estimate where the noise swamps every coefficient of every shape.
double local_mean(const std::vector<double>& values, uint32_t rows, uint32_t cols, uint32_t reach,
                  uint32_t r, uint32_t c) {
    const uint32_t c0 = c > reach ? c - reach : 0, c1 = std::min(cols - 1, c + reach);
    const uint32_t r0 = r > reach ? r - reach : 0, r1 = std::min(rows - 1, r + reach);
    double sum = 0.0, lo = values[r + static_cast<size_t>(c) * rows], hi = lo;
    for (uint32_t x = c0; x <= c1; ++x) {
        for (uint32_t y = r0; y <= r1; ++y) {
            const double v = values[y + static_cast<size_t>(x) * rows];
            sum += v;
            lo = std::min(lo, v);
            hi = std::max(hi, v);
        }
    }
    // The rounding of the sum must not take a mean outside its values.
    const double v = sum / (static_cast<double>(r1 - r0 + 1) * (c1 - c0 + 1));
    return std::min(hi, std::max(lo, v));
}

// A pass's estimate where it made none or one the data cannot hold. The
// filter gives NaN for a shape with a coefficient whose noise level is 0
// where the entry has a value and the pilot none (the levels are those of
// the key's shape, LevelRule::kShapeLevels, so only a spectrum with zeros
// does that): such a pixel keeps the pass's input. Noise
// that swamps every coefficient gives NaN everywhere (the estimate's
// variance rounds to 0), and noise far above what the values can hold
// pulls each shape's mean toward the working zero, out of the data's range
// [lo, hi]: there the pixel takes the limit of the estimate as the noise
// grows, the mean of the pass's input around it, which lies in [lo, hi]
// with that input. Never the input itself. An estimate just outside [lo,
// hi] (by at most `slack`: a few noise deviations, and less than half the
// working range's margin) is an ordinary estimate of a value at the range's
// end, as pixels at the data's minimum or maximum give: it is clipped.
void settle(std::vector<double>& estimate, const std::vector<double>& input, uint32_t rows,
            uint32_t cols, uint32_t reach, double lo, double hi, double slack) {
    const bool swamped =
        std::all_of(estimate.begin(), estimate.end(), [](double v) { return std::isnan(v); });
    for (uint32_t c = 0; c < cols; ++c) {
        swcancel::cancel_point();
        for (uint32_t r = 0; r < rows; ++r) {
            const size_t p = r + static_cast<size_t>(c) * rows;
            double& v = estimate[p];
            if (std::isnan(v) && !swamped) {
                v = input[p];
            } else if (v < lo && v >= lo - slack) {
                v = lo;
            } else if (v > hi && v <= hi + slack) {
                v = hi;
            } else if (!(v >= lo && v <= hi)) {
                v = local_mean(input, rows, cols, reach, r, c);
            }
        }
    }
}

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void check_tile(const sw::Image& image, const sw::TileFrame& tile) {
    if (uint64_t{tile.row0} + image.rows > tile.rows || uint64_t{tile.col0} + image.cols > tile.cols ||
        uint64_t{tile.rows} * tile.cols > 2147483647u) {
        fail("shapewiener:tile:outside", "the tile does not lie inside its frame of at most 2^31 - 1 pixels.");
    }
    for (double v : image.pixels) {
        if (!(v >= tile.value_min && v <= tile.value_max)) {
            fail("shapewiener:tile:range", "the tile has a value outside the frame's value range.");
        }
    }
}

// What a pass over the pixels on every step-th row and column of the frame
// (origin row0, col0) does: its entries and key changes in list order.
struct PassCount {
    uint64_t entries = 0;
    uint64_t key_changes = 0;
};
PassCount sparse_pass_count(const swcaller::ProcessingList& list, uint32_t rows, uint32_t row0,
                            uint32_t col0, uint32_t step, bool diagonal = false) {
    PassCount n;
    int32_t previous = 0;
    for (size_t i = 0; i < list.pixels.size(); ++i) {
        const uint32_t q = static_cast<uint32_t>(list.pixels[i]) - 1;
        if (!sw::on_entry_lattice(q % rows + row0, q / rows + col0, step, diagonal)) continue;
        n.key_changes += n.entries == 0 || list.keys[i] != previous;
        previous = list.keys[i];
        ++n.entries;
    }
    return n;
}

// Reports progress and honours a cancel request.
class ProgressSink {
public:
    explicit ProgressSink(const sw::Progress& progress) : progress_(progress) {}
    void operator()(double fraction, const char* phase) const {
        if (progress_ && !progress_(fraction, phase)) {
            fail("shapewiener:denoise:interrupted", "the denoiser was cancelled.",
                 sw::ErrorCode::kInterrupted);
        }
    }

private:
    const sw::Progress& progress_;
};

}  // namespace

bool same_model(const sw::NoiseModel& a, const sw::NoiseModel& b) {
    const auto same = [](const std::vector<double>& x, const std::vector<double>& y) {
        return x.size() == y.size() &&
               (x.empty() || std::memcmp(x.data(), y.data(), x.size() * sizeof(double)) == 0);
    };
    return a.kind == b.kind && std::memcmp(&a.sigma, &b.sigma, sizeof a.sigma) == 0 &&
           a.kernel_rows == b.kernel_rows && a.kernel_cols == b.kernel_cols &&
           same(a.kernel, b.kernel) && same(a.psd, b.psd);
}

sw::Image run_pipeline(const sw::Image& image, const sw::NoiseModel& noise,
                       const Settings& settings, unsigned threads, const sw::Progress& progress,
                       sw::DenoiseReport* report, const sw::TileFrame& tile,
                       SharedShapes* shared) {
    const auto start = std::chrono::steady_clock::now();
    const ProgressSink step(progress);
    step(0.0, "noise");
    // The stages before the passes poll the callback from their loops.
    double at = 0.0;
    const char* stage = "noise";
    const swcancel::CancelScope cancel([&] { step(at, stage); });
    check_image(image);
    const uint32_t rows = image.rows;
    const uint32_t cols = image.cols;
    const bool tiled = tile.rows > 0;
    if (tiled) check_tile(image, tile);
    // A tile is denoised as its part of the frame: the frame's noise
    // (a psd model has the frame's size) and value range.
    // (Or the set-up of an earlier image with the same noise: see SharedShapes.)
    const bool known = shared != nullptr && shared->noise_known && same_model(shared->noise, noise);
    Autocovariance raw = known ? shared->raw
                               : noise_autocovariance(noise, tiled ? tile.rows : rows,
                                                      tiled ? tile.cols : cols);
    // Narrow noise peaks go first, over the whole image; the local passes
    // then see what is left (a tiled caller runs this stage on the frame).
    sw::Image source;
    sw::NoiseModel residual;
    // (White noise has none: its spectrum is flat.)
    const bool peaks = !tiled && settings.peaks.enabled &&
                       noise.kind != sw::NoiseModel::Kind::kWhite &&
                       !(known && shared->peaks_checked && shared->no_peaks) &&
                       remove_peaks(image.pixels, rows, cols, full_psd(noise, rows, cols),
                                    settings.peaks, &source.pixels, &residual.psd);
    if (shared != nullptr && !known) {
        shared->noise = noise;
        shared->raw = raw;
        shared->noise_known = true;
        shared->peaks_checked = false;
    }
    if (shared != nullptr && !shared->peaks_checked) {
        shared->peaks_checked = true;
        shared->no_peaks = !peaks;
    }
    // When the peaks held all the noise, nothing is left for the passes.
    bool removed_all = false;
    if (peaks) {
        source.rows = rows;
        source.cols = cols;
        residual.kind = sw::NoiseModel::Kind::kPsd;
        removed_all = std::none_of(residual.psd.begin(), residual.psd.end(),
                                   [](double v) { return v > 0.0; });
        if (!removed_all) raw = noise_autocovariance(residual, rows, cols);
    }
    const sw::Image& input = peaks ? source : image;

    // A constant image (or frame) is its own estimate, whatever the noise.
    const bool flat = tiled ? tile.value_min == tile.value_max
                            : std::all_of(input.pixels.begin(), input.pixels.end(),
                                          [&](double v) { return v == input.pixels[0]; });
    if (flat || removed_all) {
        sw::Image out = input;
        step(1.0, "done");
        sw::DenoiseReport done;
        done.seconds = seconds_since(start);
        if (report != nullptr) *report = done;
        return out;
    }

    // The values the estimate must stay within: those the passes see, the
    // frame's or the image's (after the peak stage, that image's: the same
    // as when the stages run one after the other).
    double lo = tile.value_min, hi = tile.value_max;
    if (!tiled) {
        const auto [min, max] = std::minmax_element(input.pixels.begin(), input.pixels.end());
        lo = *min;
        hi = *max;
    }
    // Images that share a plan map ranges of one width (see SharedShapes).
    const double width = shared != nullptr ? std::max(shared->range_width, hi - lo) : hi - lo;
    const RangeMap range = working_range(lo, width, settings.normalise_range);
    swcaller::Image noisy(rows, cols);
    for (size_t p = 0; p < noisy.size(); ++p) {
        noisy.pixels[p] = (input.pixels[p] - range.offset) / range.scale;
    }
    const Autocovariance r = raw.scaled(1.0 / (range.scale * range.scale));
    const std::vector<double> psd = block_psd(r, settings.weighted_psd);
    const bool white = is_white(r);

    sw::RunOptions thread_options;
    thread_options.threads = threads;
    at = 0.02;
    stage = "shapes";
    step(at, stage);
    // The shapes: chosen here, or those another image of the same size chose
    // (the channels of a colour image share the luminance channel's).
    SharedShapes own;
    SharedShapes& chosen = shared != nullptr ? *shared : own;
    if (!chosen.ready) {
        chosen.shapes =
            settings.adaptive
                ? adaptive_shapes(noisy.pixels.data(), rows, cols, r, settings.rule,
                                  chosen.rows_only || !transpose_symmetric(psd),
                                  swcaller::GroupTies::kContent,
                                  sw::requested_threads(thread_options))
                : swcaller::make_shape_arguments(
                      settings.square_scale, swcaller::scale_set(settings.square_scale),
                      swcaller::fixed_direction_scales(rows, cols,
                                                       static_cast<uint8_t>(settings.square_scale)),
                      true, swcaller::GroupTies::kContent);
        chosen.ready = true;
    }
    const swcaller::ShapeArguments& shapes = chosen.shapes;

    sw::DenoiseReport done;
    const double first_factor = white ? settings.first_factor_white : settings.first_factor;
    const double second_factor = white ? settings.second_factor_white : settings.second_factor;
    // (The set-up of a large image takes a while: a cancel point after
    // each step.)
    swcancel::cancel_point();
    std::vector<double> estimate(noisy.size());
    std::vector<double> noisy_copy = noisy.pixels, pilot = noisy.pixels, previous;
    swcancel::cancel_point();
    // One plan for every pass: the shapes, and the noise levels of the keys
    // once the first pass has computed them; or the plan of an earlier image
    // with the same shapes and spectrum (see SharedShapes).
    const bool reuse = shared != nullptr && shared->planned && shared->psd == psd;
    std::unique_ptr<CallArrays> own_arrays;
    sw::Plan own_plan;
    sw::FilterCall::Frame frame;
    if (tiled) frame = {tile.rows, tile.cols, tile.row0, tile.col0};
    if (!reuse) {
        const bool sharing = shared != nullptr && !shared->planned;
        if (sharing) shared->psd = psd;
        own_arrays.reset(new CallArrays(shapes, sharing ? shared->psd : psd));
        swcancel::cancel_point();
        sw::FilterCall planned =
            own_arrays->call(noisy_copy.data(), pilot.data(), rows, cols, first_factor);
        planned.frame = frame;
        own_plan = plan_passes(planned, settings.passes,
                               sharing ? sw::LevelScope::kAnyImage : sw::LevelScope::kThisImage);
        if (sharing) {
            shared->arrays = std::move(own_arrays);
            shared->plan = std::move(own_plan);
            shared->planned = true;
        }
    }
    sw::Plan& plan = shared != nullptr && shared->planned && shared->psd == psd ? shared->plan
                                                                              : own_plan;
    // The first pass, whose estimate is only a pilot, processes the pixels
    // on every pilot_step-th row and column (so do the first
    // settings.sparse_passes passes); it shares the plan's levels with the
    // full passes (the list has one key per distinct shape).
    const bool sparse_pilot = settings.passes > 1 && settings.pilot_step > 1;
    const int sparse_passes = !sparse_pilot ? 0
                              : !white && settings.sparse_pilots_coloured
                                  ? settings.passes - 1
                                  : std::min(settings.sparse_passes, settings.passes - 1);
    const bool diagonal_last = settings.last_step > 1 && settings.passes > 1;
    // Every pass's lattice: the sparse passes', the last's, and between
    // them the checkerboard or every pixel.
    const int checkerboard_passes =
        settings.checkerboard_pilots ? std::max(0, settings.passes - 1 - sparse_passes) : 0;
    const auto lattice_step = [&](int pass) -> uint32_t {
        if (pass < sparse_passes) return settings.pilot_step;
        if (pass == settings.passes - 1) return diagonal_last ? settings.last_step : 1;
        return checkerboard_passes > 0 ? 2 : 1;
    };
    const double share = 0.9 / settings.passes;
    // How far outside the data's range an estimate may come and still be
    // taken as an estimate (see settle): 4 noise deviations, at most 0.05 of
    // the working range (its margins are 0.1 wide).
    const double slack = std::min(0.05, 4.0 * std::sqrt(std::max(0.0, r.variance())));
    for (int pass = 0; pass < settings.passes; ++pass) {
        const double begin = 0.1 + share * pass;
        static const char* const kPhases[] = {"pass 1", "pass 2", "pass 3", "pass 4"};
        const char* phase = kPhases[std::min(pass, 3)];
        step(begin, phase);
        // The module dithers both images in place: every pass gets copies.
        noisy_copy = noisy.pixels;
        pilot = pass == 0 ? noisy.pixels : estimate;
        if (pass > 0) previous = estimate;
        run_pass(plan, noisy_copy.data(), pilot.data(), pass == 0 ? first_factor : second_factor,
                 frame, estimate.data(), threads,
                 [&](double fraction) {
                     return !progress || progress(begin + share * fraction, phase);
                 },
                 lattice_step(pass),
                 pass < sparse_passes ? settings.pilot_diagonal : lattice_step(pass) > 1);
        at = begin + share;
        stage = phase;
        const uint32_t h = settings.adaptive ? settings.rule.lengths.back() : settings.square_scale;
        settle(estimate, pass == 0 ? noisy.pixels : previous, rows, cols, h - 1,
               (lo - range.offset) / range.scale, (hi - range.offset) / range.scale, slack);
        done.passes = pass + 1;
    }
    done.accepted_entries = static_cast<uint64_t>(done.passes) * rows * cols;
    done.key_changes = static_cast<uint64_t>(done.passes) * shapes.list.key_changes;
    if (sparse_pilot) {
        const PassCount first =
            sparse_pass_count(shapes.list, rows, frame.row0, frame.col0, settings.pilot_step,
                              settings.pilot_diagonal);
        done.accepted_entries -= (uint64_t{rows} * cols - first.entries) * sparse_passes;
        done.key_changes -= (shapes.list.key_changes - first.key_changes) * sparse_passes;
    }
    if (diagonal_last) {
        const PassCount last =
            sparse_pass_count(shapes.list, rows, frame.row0, frame.col0, settings.last_step, true);
        done.accepted_entries -= uint64_t{rows} * cols - last.entries;
        done.key_changes -= shapes.list.key_changes - last.key_changes;
    }
    if (checkerboard_passes > 0) {
        const PassCount half = sparse_pass_count(shapes.list, rows, frame.row0, frame.col0, 2, true);
        done.accepted_entries -= (uint64_t{rows} * cols - half.entries) * checkerboard_passes;
        done.key_changes -= (shapes.list.key_changes - half.key_changes) * checkerboard_passes;
    }

    sw::Image out;
    out.rows = rows;
    out.cols = cols;
    out.pixels.resize(estimate.size());
    for (size_t p = 0; p < out.pixels.size(); ++p) {
        // Every estimate lies in the working image of [lo, hi]; the map's
        // rounding must not take it outside.
        out.pixels[p] = std::min(hi, std::max(lo, estimate[p] * range.scale + range.offset));
    }
    step(1.0, "done");
    done.seconds = seconds_since(start);
    if (report != nullptr) *report = done;
    return out;
}

}  // namespace swdenoise

namespace sw {

NoiseModel NoiseModel::white(double sigma) {
    NoiseModel n;
    n.kind = Kind::kWhite;
    n.sigma = sigma;
    return n;
}

NoiseModel NoiseModel::from_kernel(std::vector<double> kernel, uint32_t rows, uint32_t cols,
                                   double sigma) {
    NoiseModel n;
    n.kind = Kind::kKernel;
    n.kernel = std::move(kernel);
    n.kernel_rows = rows;
    n.kernel_cols = cols;
    n.sigma = sigma;
    return n;
}

NoiseModel NoiseModel::from_psd(std::vector<double> psd) {
    NoiseModel n;
    n.kind = Kind::kPsd;
    n.psd = std::move(psd);
    return n;
}

Image denoise(const Image& image, const NoiseModel& noise, const DenoiseOptions& options,
              const Progress& progress, DenoiseReport* report) {
    swdenoise::Settings settings = swdenoise::preset_settings(options.preset);
    settings.peaks.enabled = settings.peaks.enabled && options.peaks;
    try {
        return swdenoise::run_pipeline(image, noise, settings, options.threads, progress, report,
                                       options.tile);
    } catch (const std::bad_alloc&) {
        const double pixels = static_cast<double>(image.rows) * image.cols;
        swdenoise::fail("shapewiener:memory:allocation",
                        "cannot allocate " +
                            format_bytes(pixels * denoise_bytes_per_pixel(options.preset)) +
                            " for a " + std::to_string(image.rows) + " x " +
                            std::to_string(image.cols) + " image.",
                        ErrorCode::kOutOfMemory);
    }
}

bool remove_noise_peaks(const Image& image, const NoiseModel& noise, const std::string& preset,
                        Image* out, NoiseModel* residual) {
    const swdenoise::Settings s = swdenoise::preset_settings(preset);
    swdenoise::noise_autocovariance(noise, image.rows, image.cols);  // checks the model
    if (image.pixels.size() != static_cast<size_t>(image.rows) * image.cols || image.pixels.empty()) {
        swdenoise::fail("shapewiener:image:size", "the image's size and its values disagree.");
    }
    std::vector<double> pixels, psd;
    if (!s.peaks.enabled ||
        !swdenoise::remove_peaks(image.pixels, image.rows, image.cols,
                                 swdenoise::full_psd(noise, image.rows, image.cols), s.peaks,
                                 &pixels, &psd)) {
        return false;
    }
    out->rows = image.rows;
    out->cols = image.cols;
    out->pixels = std::move(pixels);
    *residual = NoiseModel::from_psd(std::move(psd));
    return true;
}

bool noise_has_peaks(const NoiseModel& noise, uint32_t rows, uint32_t cols, const std::string& preset) {
    const swdenoise::Settings s = swdenoise::preset_settings(preset);
    swdenoise::noise_autocovariance(noise, rows, cols);  // checks the model
    return s.peaks.enabled &&
           swdenoise::has_peaks(swdenoise::full_psd(noise, rows, cols), rows, cols, s.peaks);
}

uint32_t tile_halo(const std::string& preset) {
    const swdenoise::Settings s = swdenoise::preset_settings(preset);
    const uint32_t h = s.adaptive ? s.rule.lengths.back() : s.square_scale;
    return static_cast<uint32_t>(s.passes) * 2 * (h - 1);
}

}  // namespace sw
