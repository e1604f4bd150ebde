// Grey-scale images in files, chosen by extension: PNG (8/16-bit grey),
// TIFF (8/16-bit unsigned, 32/64-bit float; one sample per pixel, in strips)
// and NumPy .npy (see array_io.h).
//
// Reading: values are taken as stored (no gamma conversion); integer
// samples are divided by their largest value (255 or 65535), so integer
// images come in as [0, 1]; float samples are used as they are. Colour
// images (RGB, palette, more than one sample per pixel, an alpha channel)
// are rejected. Errors are std::runtime_error with the file named.
#ifndef SHAPEWIENER_TOOLS_IMAGE_IO_H
#define SHAPEWIENER_TOOLS_IMAGE_IO_H

#include <string>

#include "array_io.h"
#include "shapewiener/denoise.h"

namespace swio {

struct ImageFile {
    sw::Image image;
    SampleKind kind = SampleKind::kFloat64;  // as stored in the file
};

ImageFile read_image(const std::string& path);

// The sample kind an output file of this extension gets for an input of
// kind `input`: .npy float64; .tif/.tiff the input's kind (float64 as
// float32); .png the input's integer depth, 16-bit for float input.
SampleKind output_kind(const std::string& path, SampleKind input);

// Writes `image` in the format of `format_path`'s extension (the file
// written is `path`, which may be a temporary name). Integer samples:
// values clipped to [0, 1] (NaN to 0) and rounded to the nearest level;
// float samples keep their values (float32 TIFF rounds to float).
void write_image(const std::string& path, const std::string& format_path,
                 const sw::Image& image, SampleKind kind);

// Whether the extension names a format read_image knows.
bool known_image_extension(const std::string& path);

}  // namespace swio

#endif  // SHAPEWIENER_TOOLS_IMAGE_IO_H
