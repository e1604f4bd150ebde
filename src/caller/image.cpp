#include "caller/image.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace swcaller {

Image crop(const Image& image, uint32_t row0, uint32_t col0, uint32_t rows, uint32_t cols) {
    if (static_cast<uint64_t>(row0) + rows > image.rows ||
        static_cast<uint64_t>(col0) + cols > image.cols) {
        throw std::invalid_argument("crop: the block does not lie inside the image");
    }
    Image out(rows, cols);
    for (uint32_t c = 0; c < cols; ++c) {
        for (uint32_t r = 0; r < rows; ++r) out.at(r, c) = image.at(row0 + r, col0 + c);
    }
    return out;
}

Image centre_crop(const Image& image, uint32_t rows, uint32_t cols) {
    rows = std::min(rows, image.rows);
    cols = std::min(cols, image.cols);
    return crop(image, (image.rows - rows) / 2, (image.cols - cols) / 2, rows, cols);
}

Image add(const Image& a, const Image& b) {
    if (a.rows != b.rows || a.cols != b.cols) {
        throw std::invalid_argument("add: the images differ in size");
    }
    Image out(a.rows, a.cols);
    for (size_t i = 0; i < a.size(); ++i) out.pixels[i] = a.pixels[i] + b.pixels[i];
    return out;
}

double psnr(const Image& estimate, const Image& reference) {
    if (estimate.rows != reference.rows || estimate.cols != reference.cols) {
        throw std::invalid_argument("psnr: the images differ in size");
    }
    if (estimate.size() == 0) throw std::invalid_argument("psnr: empty images");
    double sum = 0.0;
    for (size_t i = 0; i < estimate.size(); ++i) {
        const double d = estimate.pixels[i] - reference.pixels[i];
        sum += d * d;
    }
    const double mse = sum / static_cast<double>(estimate.size());
    if (mse == 0.0) return std::numeric_limits<double>::infinity();
    return 10.0 * std::log10(1.0 / mse);
}

}  // namespace swcaller
