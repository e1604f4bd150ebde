#include "denoise/module.h"

#include <cstring>

#include "denoise/fail.h"
#include "mex.h"
#include "mx_host.h"

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

// Until the plain C++ entry point is in the core, the call goes through the
// standalone host layer: the arrays are copied into mxArrays.
namespace {

mxArray* copy_array(const void* data, const sw::Dims& dims, mxClassID cls, size_t element) {
    mwSize d[sw::Dims::kMaxDims];
    for (int i = 0; i < dims.count; ++i) d[i] = dims.size[i];
    mxArray* a = mxCreateNumericArray(dims.count, d, cls, mxREAL);
    if (dims.elements() > 0) std::memcpy(mxGetData(a), data, dims.elements() * element);
    return a;
}

mxArray* scalar(double v) {
    mxArray* a = mxCreateDoubleMatrix(1, 1, mxREAL);
    *mxGetPr(a) = v;
    return a;
}

}  // namespace

void run_module(const sw::FilterCall& c, double* output, unsigned threads,
                const std::function<bool(double)>& progress) {
    (void)threads;
    (void)progress;
    std::vector<mx_host::ArrayPtr> args(16);
    args[0].reset(copy_array(c.scale_set.data, c.scale_set.dims, mxDOUBLE_CLASS, 8));
    args[1].reset(copy_array(c.direction_scale_map.data, c.direction_scale_map.dims, mxUINT8_CLASS, 1));
    {
        mxArray* bank = mxCreateCellMatrix(c.transform_count, 1);
        for (size_t i = 0; i < c.transform_count; ++i) {
            mxSetCell(bank, i, copy_array(c.transforms[i].data, c.transforms[i].dims, mxDOUBLE_CLASS, 8));
        }
        args[2].reset(bank);
    }
    {
        const uint64_t h = sw::round_to_unsigned(c.max_scale);
        const mwSize dims[3] = {h, h, 8};
        mxArray* bank = mxCreateCellArray(3, dims);
        for (size_t i = 0; i < c.sector_mask_count; ++i) {
            mxSetCell(bank, i, copy_array(c.sector_masks[i].data, c.sector_masks[i].dims, mxUINT8_CLASS, 1));
        }
        args[3].reset(bank);
    }
    args[4].reset(mxCreateDoubleMatrix(0, 0, mxREAL));
    args[5].reset(mxCreateDoubleMatrix(0, 0, mxREAL));
    args[6].reset(scalar(c.dft_size));
    args[7].reset(copy_array(c.noise_psd.data, c.noise_psd.dims, mxDOUBLE_CLASS, 8));
    args[8].reset(copy_array(c.noisy_image, c.image_dims, mxDOUBLE_CLASS, 8));
    args[9].reset(copy_array(c.processing_list.data, c.processing_list.dims, mxINT32_CLASS, 4));
    args[10].reset(scalar(c.noise_level_factor));
    args[11].reset(mxCreateDoubleMatrix(0, 0, mxREAL));
    args[12].reset(scalar(c.max_scale));
    args[13].reset(copy_array(c.pilot_image, c.pilot_dims, mxDOUBLE_CLASS, 8));
    args[14].reset(scalar(c.wiener_variance_factor));
    args[15].reset(scalar(c.coverage_threshold));
    const mxArray* prhs[16];
    for (int i = 0; i < 16; ++i) prhs[i] = args[i].get();
    mxArray* plhs[1] = {nullptr};
    try {
        mexFunction(1, plhs, 16, prhs);
    } catch (const mx_host::MexError& e) {
        fail(e.identifier(), e.what());
    }
    mx_host::ArrayPtr out(plhs[0]);
    const size_t count = c.image_dims.elements();
    if (count > 0) std::memcpy(output, mxGetPr(out.get()), count * sizeof(double));
}

}  // namespace swdenoise
