#include "denoise/module.h"

#include "denoise/fail.h"

namespace swdenoise {

CallArrays::CallArrays(const swcaller::ShapeArguments& shapes, const std::vector<double>& psd32)
    : shapes_(shapes), psd_(psd32) {
    for (size_t i = 0; i < shapes.transforms.size(); ++i) {
        const uint64_t len = i + 1;
        transforms_.push_back({shapes.transforms[i].data(), sw::Dims::matrix(len, len)});
    }
    const uint64_t w = 2 * static_cast<uint64_t>(shapes.h) - 1;
    for (const swcaller::Mask& m : shapes.sector_masks) {
        masks_.push_back({m.data(), sw::Dims::matrix(w, w)});
    }
    list_ = shapes.list.pixels;
    list_.insert(list_.end(), shapes.list.keys.begin(), shapes.list.keys.end());
}

sw::FilterCall CallArrays::call(double* noisy, double* pilot, uint32_t rows, uint32_t cols,
                                double wiener_variance_factor) const {
    sw::FilterCall c;
    c.scale_set = {shapes_.scale_set.data(), sw::Dims::matrix(1, shapes_.scale_set.size())};
    c.direction_scale_map = {shapes_.direction_scales.indices.data(), sw::Dims::array3(rows, cols, 8)};
    c.transforms = transforms_.data();
    c.transform_count = transforms_.size();
    c.sector_masks = masks_.data();
    c.sector_mask_count = masks_.size();
    c.dft_size = swcaller::kSpectrumGrid;
    c.noise_psd = {psd_.data(), sw::Dims::matrix(swcaller::kSpectrumGrid, swcaller::kSpectrumGrid)};
    c.noisy_image = noisy;
    c.image_dims = sw::Dims::matrix(rows, cols);
    c.processing_list = {list_.data(), sw::Dims::matrix(static_cast<uint64_t>(rows) * cols, 2)};
    c.noise_level_factor = 1.0;
    c.max_scale = shapes_.h;
    c.pilot_image = pilot;
    c.pilot_dims = sw::Dims::matrix(rows, cols);
    c.wiener_variance_factor = wiener_variance_factor;
    c.coverage_threshold = swcaller::kNeverSkip;
    return c;
}

namespace {

void raise_if(const sw::Error& e) {
    if (e) {
        std::string id = e.identifier;
        if (e.code == sw::ErrorCode::kInterrupted) id = "shapewiener:denoise:interrupted";
        fail(id, e.message, e.code);
    }
}

sw::RunOptions run_options(unsigned threads, const std::function<bool(double)>& progress) {
    sw::RunOptions options;
    options.threads = threads;
    options.progress = progress;
    return options;
}

}  // namespace

void run_module(const sw::FilterCall& call, double* output, unsigned threads,
                const std::function<bool(double)>& progress) {
    sw::Error e = sw::check(call);
    if (!e) e = sw::run(call, output, run_options(threads, progress));
    raise_if(e);
}

sw::Plan plan_passes(const sw::FilterCall& call, int passes, sw::LevelScope scope) {
    sw::Plan plan;
    // The transforms in float: equal up to rounding and faster than the
    // module's products in double, rounded every step.
    sw::FilterCall planned = call;
    planned.float_sums = true;
    // A key's levels from its shape alone, whichever entry comes first (a
    // tile gets the whole image's); white noise: without spectra.
    raise_if(sw::make_plan(planned, &plan, passes > 1 || scope == sw::LevelScope::kAnyImage,
                           sw::LevelRule::kShapeLevels, scope));
    return plan;
}

void run_pass(sw::Plan& plan, double* noisy, double* pilot, double wiener_variance_factor,
              const sw::FilterCall::Frame& frame, double* output, unsigned threads,
              const std::function<bool(double)>& progress, uint32_t entry_step, bool diagonal) {
    raise_if(entry_step > 1 ? sw::execute_sparse(plan, entry_step, noisy, pilot,
                                                 wiener_variance_factor, frame, output,
                                                 run_options(threads, progress), diagonal)
                            : sw::execute(plan, noisy, pilot, wiener_variance_factor, frame,
                                          output, run_options(threads, progress)));
}

}  // namespace swdenoise
