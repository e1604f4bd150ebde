// The filter module as the denoiser calls it: a sw::FilterCall built from
// the caller side's shape arguments, checked and run.
#ifndef SHAPEWIENER_DENOISE_MODULE_H
#define SHAPEWIENER_DENOISE_MODULE_H

#include <cstdint>
#include <functional>
#include <vector>

#include "caller/shape_arguments.h"
#include "shapewiener/filter.h"
#include "shapewiener/plan.h"

namespace swdenoise {

// The arrays of a call that stay fixed over the passes of one image: views
// into `shapes` (which must outlive this) and an owned processing list in
// the module's layout (pixels, then keys).
class CallArrays {
public:
    CallArrays(const swcaller::ShapeArguments& shapes, const std::vector<double>& psd32);

    // A call on `noisy` against `pilot` (rows x cols; both are dithered in
    // place by the run).
    sw::FilterCall call(double* noisy, double* pilot, uint32_t rows, uint32_t cols,
                        double wiener_variance_factor) const;

private:
    const swcaller::ShapeArguments& shapes_;
    const std::vector<double>& psd_;
    std::vector<sw::ArrayView<double>> transforms_;
    std::vector<sw::ArrayView<uint8_t>> masks_;
    std::vector<int32_t> list_;
};

// Checks and runs `call` into `output` (sw::check, then sw::run with
// `threads` and `progress`); a rejected call throws sw::DenoiseError with the
// module's identifier and message, a cancelled one with
// "shapewiener:denoise:interrupted".
void run_module(const sw::FilterCall& call, double* output, unsigned threads,
                const std::function<bool(double)>& progress);

// The passes over one image: `call` checked and planned (keeping the noise
// levels when `passes` > 1, or for any image with `scope` kAnyImage), then
// one execution per pass; errors as run_module's.
sw::Plan plan_passes(const sw::FilterCall& call, int passes,
                     sw::LevelScope scope = sw::LevelScope::kThisImage);
// `entry_step` > 1: a sparse pass (sw::execute_sparse; the plan's list has
// one key per distinct shape), sharing the levels with the full passes;
// `diagonal`: its entries on diagonal lines (FilterCall::entry_diagonal).
void run_pass(sw::Plan& plan, double* noisy, double* pilot, double wiener_variance_factor,
              const sw::FilterCall::Frame& frame, double* output, unsigned threads,
              const std::function<bool(double)>& progress, uint32_t entry_step = 1,
              bool diagonal = false);

}  // namespace swdenoise

#endif  // SHAPEWIENER_DENOISE_MODULE_H
