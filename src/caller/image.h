// Grey-scale images as the module sees them: doubles, column-major.
#ifndef SHAPEWIENER_CALLER_IMAGE_H
#define SHAPEWIENER_CALLER_IMAGE_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace swcaller {

// An image of `rows` x `cols` pixels; pixel (row, col) at row + col * rows.
// Intensities are nominally in [0, 1], but nothing here enforces that: a
// noisy image runs outside the range.
struct Image {
    uint32_t rows = 0;
    uint32_t cols = 0;
    std::vector<double> pixels;

    Image() = default;
    Image(uint32_t r, uint32_t c, double value = 0.0)
        : rows(r), cols(c), pixels(static_cast<size_t>(r) * c, value) {}

    size_t size() const { return pixels.size(); }
    double& at(uint32_t row, uint32_t col) { return pixels[row + static_cast<size_t>(col) * rows]; }
    double at(uint32_t row, uint32_t col) const {
        return pixels[row + static_cast<size_t>(col) * rows];
    }
};

// The rows x cols block whose top-left pixel is (row0, col0); the block must
// lie inside the image.
Image crop(const Image& image, uint32_t row0, uint32_t col0, uint32_t rows, uint32_t cols);

// The centred block of at most rows x cols pixels.
Image centre_crop(const Image& image, uint32_t rows, uint32_t cols);

// Pixel-wise sum of two images of the same size.
Image add(const Image& a, const Image& b);

}  // namespace swcaller

#endif  // SHAPEWIENER_CALLER_IMAGE_H
