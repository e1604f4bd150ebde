#include "support/module_call.h"

#include <chrono>
#include <cstring>
#include <stdexcept>

namespace swtest {
namespace {

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void copy_into(const Image& image, const mxArray* a) {
    if (image.size() > 0) std::memcpy(mxGetPr(a), image.pixels.data(), sizeof(double) * image.size());
}

// The plain description of one module call.
CallPlan module_plan(const swcaller::ShapeArguments& shapes, const std::vector<double>& psd,
                     const Image& noisy, const Image& pilot, const PassSettings& settings) {
    const uint32_t rows = noisy.rows;
    const uint32_t cols = noisy.cols;
    const size_t pixels = static_cast<size_t>(rows) * cols;
    if (pilot.rows != rows || pilot.cols != cols || shapes.direction_scales.rows != rows ||
        shapes.direction_scales.cols != cols || shapes.list.pixels.size() != pixels) {
        throw std::invalid_argument("ModuleCall: image, pilot and shapes differ in size");
    }
    if (psd.size() != static_cast<size_t>(swcaller::kSpectrumGrid) * swcaller::kSpectrumGrid) {
        throw std::invalid_argument("ModuleCall: the spectrum must be 32 x 32");
    }
    CallPlan s;
    s.m = rows;
    s.k = cols;
    s.h = shapes.h;
    s.n = swcaller::kSpectrumGrid;
    s.scale_set = shapes.scale_set;
    s.direction_scale_map = shapes.direction_scales.indices;
    s.transforms.assign(shapes.transforms.begin(), shapes.transforms.begin() + s.w());
    s.sector_masks = shapes.sector_masks;
    s.psd = psd;
    s.noisy = noisy.pixels;
    s.pilot = pilot.pixels;
    s.pixels = shapes.list.pixels;
    s.keys = shapes.list.keys;
    s.noise_level_factor = settings.noise_level_factor;
    s.wiener_variance_factor = settings.wiener_variance_factor;
    s.coverage_threshold = settings.coverage_threshold;
    return s;
}

}  // namespace

ModuleCall::ModuleCall(const swcaller::ShapeArguments& shapes, const std::vector<double>& psd,
                       const Image& noisy, const Image& pilot, const PassSettings& settings)
    : call_(make_call(module_plan(shapes, psd, noisy, pilot, settings))), noisy_(noisy), pilot_(pilot) {}

void ModuleCall::restore_images() {
    copy_into(noisy_, call_.args[8].get());
    copy_into(pilot_, call_.args[13].get());
}

Image ModuleCall::output() const {
    Image image(noisy_.rows, noisy_.cols);
    image.pixels = call_.output();
    return image;
}

Image ModuleCall::run() { return run_with(mexFunction); }

Image ModuleCall::run_with(Entry entry) {
    restore_images();
    const auto start = std::chrono::steady_clock::now();
    call_.run_with(entry);
    seconds_ = seconds_since(start);
    return output();
}

Image ModuleCall::run_general(uint32_t h) {
    restore_images();
    const auto start = std::chrono::steady_clock::now();
    call_.run_general(h);
    seconds_ = seconds_since(start);
    return output();
}

Image filter_pass(const swcaller::ShapeArguments& shapes, const std::vector<double>& psd,
                  const Image& noisy, const Image& pilot, const PassSettings& settings) {
    ModuleCall call(shapes, psd, noisy, pilot, settings);
    return call.run();
}

}  // namespace swtest
