#include "png_io.h"

#include <png.h>

#include <cmath>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace swtools {

swcaller::Image read_grey_png(const std::string& path) {
    png_image png;
    std::memset(&png, 0, sizeof png);
    png.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&png, path.c_str())) {
        throw std::runtime_error("cannot read " + path + ": " + png.message);
    }
    png.format = PNG_FORMAT_GRAY;
    std::vector<png_byte> bytes(PNG_IMAGE_SIZE(png));
    if (!png_image_finish_read(&png, nullptr, bytes.data(), 0, nullptr)) {
        const std::string message = png.message;
        png_image_free(&png);
        throw std::runtime_error("cannot decode " + path + ": " + message);
    }
    // The file is row-major; the image is column-major.
    swcaller::Image image(png.height, png.width);
    for (uint32_t row = 0; row < png.height; ++row) {
        for (uint32_t col = 0; col < png.width; ++col) {
            image.at(row, col) = bytes[static_cast<size_t>(row) * png.width + col] / 255.0;
        }
    }
    return image;
}

void write_grey_png(const std::string& path, const swcaller::Image& image) {
    std::vector<png_byte> bytes(image.size());
    for (uint32_t row = 0; row < image.rows; ++row) {
        for (uint32_t col = 0; col < image.cols; ++col) {
            double v = image.at(row, col);
            v = v > 0.0 ? (v < 1.0 ? v : 1.0) : 0.0;  // NaN goes to 0
            bytes[static_cast<size_t>(row) * image.cols + col] =
                static_cast<png_byte>(std::lround(v * 255.0));
        }
    }
    png_image png;
    std::memset(&png, 0, sizeof png);
    png.version = PNG_IMAGE_VERSION;
    png.width = image.cols;
    png.height = image.rows;
    png.format = PNG_FORMAT_GRAY;
    if (!png_image_write_to_file(&png, path.c_str(), 0, bytes.data(), 0, nullptr)) {
        throw std::runtime_error("cannot write " + path + ": " + png.message);
    }
}

}  // namespace swtools
