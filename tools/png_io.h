// Grey-scale PNG files as images with intensities in [0, 1].
#ifndef SHAPEWIENER_TOOLS_PNG_IO_H
#define SHAPEWIENER_TOOLS_PNG_IO_H

#include <string>

#include "caller/image.h"

namespace swtools {

// Reads a PNG file as 8-bit grey (colour files are converted to grey by
// libpng) and scales the values to [0, 1]. Throws std::runtime_error.
swcaller::Image read_grey_png(const std::string& path);

// Writes an 8-bit grey PNG: values clipped to [0, 1] and rounded to the
// nearest of 256 levels. Throws std::runtime_error.
void write_grey_png(const std::string& path, const swcaller::Image& image);

}  // namespace swtools

#endif  // SHAPEWIENER_TOOLS_PNG_IO_H
