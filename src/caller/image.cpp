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

}  // namespace swcaller
