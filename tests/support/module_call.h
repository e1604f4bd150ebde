// The module called as a host would, from the caller side's set-up: the
// sixteen arguments built (through make_call) from an image, a noise
// spectrum and a shape set-up.
#ifndef SHAPEWIENER_TESTS_SUPPORT_MODULE_CALL_H
#define SHAPEWIENER_TESTS_SUPPORT_MODULE_CALL_H

#include <cstdint>
#include <vector>

#include "caller/image.h"
#include "caller/shape_arguments.h"
#include "support/test_args.h"

namespace swtest {

using swcaller::Image;

// The scalar settings of one pass.
struct PassSettings {
    double wiener_variance_factor = 1.0;
    double noise_level_factor = 1.0;
    double coverage_threshold = swcaller::kNeverSkip;
};

// The sixteen arguments of one module call, owned. The module dithers the
// noisy and the pilot image in place; every run first restores them from
// the copies kept here, so repeated runs see the same input.
class ModuleCall {
public:
    using Entry = void (*)(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]);

    // `psd` is kSpectrumGrid x kSpectrumGrid (see caller/coloured_noise.h).
    ModuleCall(const swcaller::ShapeArguments& shapes, const std::vector<double>& psd,
               const Image& noisy, const Image& pilot, const PassSettings& settings);

    const mxArray* const* prhs() const { return call_.prhs.data(); }
    int nrhs() const { return static_cast<int>(call_.prhs.size()); }

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

    // Seconds the last run's module call took (the restore and the copy of
    // the output not counted).
    double seconds() const { return seconds_; }

private:
    Image output() const;

    MexCall call_;
    Image noisy_;
    Image pilot_;
    double seconds_ = 0.0;
};

// One pass: filters `noisy` with `pilot` as the pilot estimate.
Image filter_pass(const swcaller::ShapeArguments& shapes, const std::vector<double>& psd,
                  const Image& noisy, const Image& pilot, const PassSettings& settings);

}  // namespace swtest

#endif  // SHAPEWIENER_TESTS_SUPPORT_MODULE_CALL_H
