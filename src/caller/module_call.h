// Calls of the filter module through the standalone host layer: the sixteen
// arguments built from an image, a noise spectrum and a shape set-up, and the
// two-pass filtering that uses them.
#ifndef SHAPEWIENER_CALLER_MODULE_CALL_H
#define SHAPEWIENER_CALLER_MODULE_CALL_H

#include <cstdint>
#include <vector>

#include "caller/shape_arguments.h"
#include "mx_host.h"

namespace swcaller {

// The scalar settings of one pass.
struct PassSettings {
    double wiener_variance_factor = 1.0;
    double noise_level_factor = 1.0;
    double coverage_threshold = kNeverSkip;
};

// The sixteen arguments of one module call, owned. The module dithers the
// noisy and the pilot image in place; every run first restores them from
// the copies kept here, so repeated runs see the same input.
class ModuleCall {
public:
    using Entry = void (*)(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]);

    // `psd` is kSpectrumGrid x kSpectrumGrid (see coloured_noise.h).
    ModuleCall(const ShapeArguments& shapes, const std::vector<double>& psd, const Image& noisy,
               const Image& pilot, const PassSettings& settings);

    const mxArray* const* prhs() const { return prhs_.data(); }
    int nrhs() const { return static_cast<int>(prhs_.size()); }

    // Restores the images and calls mexFunction (or `entry`, which has the
    // gateway's parameters); returns the filtered image. Host errors arrive
    // as mx_host::MexError.
    Image run();
    Image run_with(Entry entry);
    // Restores the images and runs the general path with maximum scale h,
    // bypassing validation and dispatch.
    Image run_general(uint32_t h);

    // Copies the stored images back into the arguments.
    void restore_images();

private:
    Image take_output(mxArray* out) const;

    std::vector<mx_host::ArrayPtr> args_;
    std::vector<const mxArray*> prhs_;
    Image noisy_;
    Image pilot_;
};

// One pass: filters `noisy` with `pilot` as the pilot estimate.
Image filter_pass(const ShapeArguments& shapes, const std::vector<double>& psd,
                  const Image& noisy, const Image& pilot, const PassSettings& settings);

// Wiener variance factors of the two passes, tuned for coloured noise.
constexpr double kFirstPassFactor = 6.0;
constexpr double kSecondPassFactor = 2.0;

struct TwoPassResult {
    Image first;   // pilot: the noisy image
    Image second;  // pilot: the first pass's output
    double first_seconds = 0.0;
    double second_seconds = 0.0;
};

// Pass 1 with the noisy image as its own pilot, pass 2 with the output of
// pass 1 as pilot; the times are those of the module calls alone.
TwoPassResult filter_two_passes(const ShapeArguments& shapes, const std::vector<double>& psd,
                                const Image& noisy, double first_factor = kFirstPassFactor,
                                double second_factor = kSecondPassFactor);

}  // namespace swcaller

#endif  // SHAPEWIENER_CALLER_MODULE_CALL_H
