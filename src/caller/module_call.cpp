#include "caller/module_call.h"

#include <chrono>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "mex/gateway.h"

namespace swcaller {
namespace {

mxArray* double_matrix(const std::vector<double>& values, size_t rows, size_t cols) {
    mxArray* a = mxCreateDoubleMatrix(rows, cols, mxREAL);
    if (!values.empty()) std::memcpy(mxGetPr(a), values.data(), sizeof(double) * values.size());
    return a;
}

mxArray* scalar(double value) { return double_matrix({value}, 1, 1); }

mxArray* empty_matrix() { return mxCreateDoubleMatrix(0, 0, mxREAL); }

void copy_into(const Image& image, mxArray* a) {
    if (image.size() > 0) std::memcpy(mxGetPr(a), image.pixels.data(), sizeof(double) * image.size());
}

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

ModuleCall::ModuleCall(const ShapeArguments& shapes, const std::vector<double>& psd,
                       const Image& noisy, const Image& pilot, const PassSettings& settings)
    : noisy_(noisy), pilot_(pilot) {
    const uint32_t rows = noisy.rows;
    const uint32_t cols = noisy.cols;
    const size_t pixels = static_cast<size_t>(rows) * cols;
    const uint32_t w = 2 * shapes.h - 1;
    if (pilot.rows != rows || pilot.cols != cols || shapes.direction_scales.rows != rows ||
        shapes.direction_scales.cols != cols || shapes.list.pixels.size() != pixels) {
        throw std::invalid_argument("ModuleCall: image, pilot and shapes differ in size");
    }
    if (psd.size() != static_cast<size_t>(kSpectrumGrid) * kSpectrumGrid) {
        throw std::invalid_argument("ModuleCall: the spectrum must be 32 x 32");
    }

    args_.resize(16);
    args_[0].reset(double_matrix(shapes.scale_set, 1, shapes.scale_set.size()));
    {
        const mwSize dims[3] = {rows, cols, 8};
        mxArray* a = mxCreateNumericArray(3, dims, mxUINT8_CLASS, mxREAL);
        if (pixels > 0) std::memcpy(mxGetData(a), shapes.direction_scales.indices.data(), pixels * 8);
        args_[1].reset(a);
    }
    {
        mxArray* bank = mxCreateCellMatrix(w, 1);
        for (uint32_t i = 0; i < w; ++i) {
            mxSetCell(bank, i, double_matrix(shapes.transforms.at(i), i + 1, i + 1));
        }
        args_[2].reset(bank);
    }
    {
        const mwSize dims[3] = {shapes.h, shapes.h, 8};
        mxArray* bank = mxCreateCellArray(3, dims);
        for (size_t i = 0; i < shapes.sector_masks.size(); ++i) {
            mxArray* mask = mxCreateNumericMatrix(w, w, mxUINT8_CLASS, mxREAL);
            std::memcpy(mxGetData(mask), shapes.sector_masks[i].data(), shapes.sector_masks[i].size());
            mxSetCell(bank, i, mask);
        }
        args_[3].reset(bank);
    }
    args_[4].reset(empty_matrix());
    args_[5].reset(empty_matrix());
    args_[6].reset(scalar(kSpectrumGrid));
    args_[7].reset(double_matrix(psd, kSpectrumGrid, kSpectrumGrid));
    args_[8].reset(double_matrix(noisy.pixels, rows, cols));
    {
        mxArray* list = mxCreateNumericMatrix(pixels, 2, mxINT32_CLASS, mxREAL);
        auto* p = static_cast<int32_t*>(mxGetData(list));
        if (pixels > 0) {
            std::memcpy(p, shapes.list.pixels.data(), sizeof(int32_t) * pixels);
            std::memcpy(p + pixels, shapes.list.keys.data(), sizeof(int32_t) * pixels);
        }
        args_[9].reset(list);
    }
    args_[10].reset(scalar(settings.noise_level_factor));
    args_[11].reset(empty_matrix());
    args_[12].reset(scalar(shapes.h));
    args_[13].reset(double_matrix(pilot.pixels, rows, cols));
    args_[14].reset(scalar(settings.wiener_variance_factor));
    args_[15].reset(scalar(settings.coverage_threshold));
    for (const auto& a : args_) prhs_.push_back(a.get());
}

void ModuleCall::restore_images() {
    copy_into(noisy_, args_[8].get());
    copy_into(pilot_, args_[13].get());
}

Image ModuleCall::take_output(mxArray* out) const {
    mx_host::ArrayPtr owned(out);
    Image image(noisy_.rows, noisy_.cols);
    if (image.size() > 0) std::memcpy(image.pixels.data(), mxGetPr(out), sizeof(double) * image.size());
    return image;
}

Image ModuleCall::run() { return run_with(mexFunction); }

Image ModuleCall::run_with(Entry entry) {
    restore_images();
    mxArray* plhs[1] = {nullptr};
    try {
        entry(1, plhs, nrhs(), prhs_.data());
    } catch (...) {
        mx_host::ArrayPtr discard(plhs[0]);
        throw;
    }
    return take_output(plhs[0]);
}

Image ModuleCall::run_general(uint32_t h) {
    restore_images();
    mxArray* plhs[1] = {nullptr};
    try {
        sw::mex_run_general(plhs, prhs_.data(), h);
    } catch (...) {
        mx_host::ArrayPtr discard(plhs[0]);
        throw;
    }
    return take_output(plhs[0]);
}

Image filter_pass(const ShapeArguments& shapes, const std::vector<double>& psd,
                  const Image& noisy, const Image& pilot, const PassSettings& settings) {
    ModuleCall call(shapes, psd, noisy, pilot, settings);
    return call.run();
}

TwoPassResult filter_two_passes(const ShapeArguments& shapes, const std::vector<double>& psd,
                                const Image& noisy, double first_factor, double second_factor) {
    TwoPassResult r;
    PassSettings settings;
    settings.wiener_variance_factor = first_factor;
    {
        ModuleCall call(shapes, psd, noisy, noisy, settings);
        const auto start = std::chrono::steady_clock::now();
        r.first = call.run();
        r.first_seconds = seconds_since(start);
    }
    settings.wiener_variance_factor = second_factor;
    {
        ModuleCall call(shapes, psd, noisy, r.first, settings);
        const auto start = std::chrono::steady_clock::now();
        r.second = call.run();
        r.second_seconds = seconds_since(start);
    }
    return r;
}

}  // namespace swcaller
