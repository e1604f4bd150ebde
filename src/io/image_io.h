// Images in files, chosen by extension: PNG (8/16-bit grey, RGB, RGB and
// alpha, palette), TIFF (grey, or RGB with or without alpha in interleaved
// samples, in strips: unsigned and signed integers of 8 to 64 bits, 32/64-bit
// float), JPEG (8-bit grey or RGB) and NumPy .npy (see array_io.h; shape
// (rows, cols) or (rows, cols, channels)).
//
// The unit rule (shapewiener/units.h): values are read as stored, integer
// samples included (an 8-bit PNG reads as 0..255), with no gamma
// conversion; the reader reports the stored type. Writers store an image in
// a given type through sw::to_type (integers rounded, clipped to the
// type's range). A file holds 1 (grey), 3 (RGB) or 4 (RGB and alpha)
// channels; others are refused. Errors are std::runtime_error with the file
// named.
#ifndef SHAPEWIENER_IO_IMAGE_IO_H
#define SHAPEWIENER_IO_IMAGE_IO_H

#include <cstdint>
#include <functional>
#include <string>

#include "io/array_io.h"
#include "shapewiener/colour.h"
#include "shapewiener/denoise.h"
#include "shapewiener/units.h"

namespace swio {

struct ImageFile {
    sw::Image image;
    sw::SampleType type = sw::SampleType::kFloat64;  // as stored in the file
};

// An image file with its channels (1, 3 or 4).
struct ChannelFile {
    sw::ColourImage image;
    sw::SampleType type = sw::SampleType::kFloat64;  // as stored in the file
};

// Reads an image of any channel count, checked as read_image checks.
ChannelFile read_channels(const std::string& path, uint64_t bytes_per_pixel = 0);

// Writes an image of 1, 3 or 4 channels as write_image does; JPEG (uint8,
// 1 or 3 channels) with `quality` 1..100.
void write_channels(const std::string& path, const std::string& format_path,
                    const sw::ColourImage& image, sw::SampleType type, int quality = 95);

// Reads a grey-scale image (a colour file is refused). The size in the file's header is checked before any
// allocation against sw::size_refusal(rows, cols, bytes_per_pixel), where
// bytes_per_pixel is what the caller's work will need per pixel (0: what
// reading needs); pixel rows are decoded one at a time, so a file whose
// header claims more than it holds fails before its size is allocated.
ImageFile read_image(const std::string& path, uint64_t bytes_per_pixel = 0);

// Whether a file of this extension can hold `type` (PNG: uint8 and uint16
// only; JPEG: uint8 only; TIFF and .npy: every type).
bool format_holds(const std::string& path, sw::SampleType type);

// Writes `image` stored as `type` in the format of `format_path`'s
// extension (the file written is `path`, which may be a temporary name).
// Every write and the close are checked. Throws for a type the format
// cannot hold and for a NaN in an integer type.
void write_image(const std::string& path, const std::string& format_path,
                 const sw::Image& image, sw::SampleType type);

// Whether the extension names a format read_image knows.
bool known_image_extension(const std::string& path);

// Checks, before any work, that `path` can be written: a known image
// extension (when `image` is true), an existing folder that is writable.
// Throws std::runtime_error naming the file or its folder.
void check_output_path(const std::string& path, bool image = true);

// Writes a file atomically: `write` gets a short temporary name in the
// target's folder, which is renamed onto `path` only when `write` returns;
// on any error the temporary file is removed and `path` is left untouched.
void write_atomically(const std::string& path,
                      const std::function<void(const std::string&)>& write);

}  // namespace swio

#endif  // SHAPEWIENER_IO_IMAGE_IO_H
