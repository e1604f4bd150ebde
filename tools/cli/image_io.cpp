#include "image_io.h"

#include <png.h>
#include <tiffio.h>

#include <cerrno>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

namespace swio {
namespace {

[[noreturn]] void bad(const std::string& path, const std::string& what) {
    throw std::runtime_error(path + ": " + what);
}

uint32_t integer_level(double v, uint32_t top) {
    v = v > 0.0 ? (v < 1.0 ? v : 1.0) : 0.0;  // NaN goes to 0
    return static_cast<uint32_t>(std::lround(v * top));
}

// ---- PNG -------------------------------------------------------------

struct PngMessage {
    char text[256] = {0};
};

void png_fail(png_structp png, png_const_charp message) {
    auto* m = static_cast<PngMessage*>(png_get_error_ptr(png));
    std::snprintf(m->text, sizeof m->text, "%s", message);
    png_longjmp(png, 1);
}

void png_quiet(png_structp, png_const_charp) {}

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;

ImageFile read_png(const std::string& path) {
    File file(std::fopen(path.c_str(), "rb"));
    if (!file) bad(path, std::string("cannot open: ") + std::strerror(errno));
    PngMessage message;
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &message, png_fail, png_quiet);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info) {
        png_destroy_read_struct(&png, nullptr, nullptr);
        bad(path, "out of memory");
    }
    std::vector<png_byte> bytes;
    std::vector<png_bytep> row_pointers;
    std::string refusal;
    png_uint_32 width = 0, height = 0;
    int depth = 0;
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, &info, nullptr);
        bad(path, std::string("not a readable PNG file: ") + message.text);
    }
    png_init_io(png, file.get());
    png_read_info(png, info);
    width = png_get_image_width(png, info);
    height = png_get_image_height(png, info);
    const int colour = png_get_color_type(png, info);
    depth = png_get_bit_depth(png, info);
    if (colour & PNG_COLOR_MASK_COLOR) {
        refusal = "is a colour image; shapewiener filters grey-scale images (convert it to grey first)";
    } else if (colour & PNG_COLOR_MASK_ALPHA) {
        refusal = "has an alpha channel; give a plain grey-scale image";
    }
    if (refusal.empty()) {
        if (depth < 8) png_set_expand_gray_1_2_4_to_8(png);
        if (depth == 16) png_set_swap(png);  // little-endian samples
        png_read_update_info(png, info);
        const size_t row_bytes = png_get_rowbytes(png, info);
        bytes.resize(row_bytes * height);
        row_pointers.resize(height);
        for (png_uint_32 r = 0; r < height; ++r) row_pointers[r] = bytes.data() + r * row_bytes;
        png_read_image(png, row_pointers.data());
    }
    png_destroy_read_struct(&png, &info, nullptr);
    if (!refusal.empty()) bad(path, refusal);

    ImageFile f;
    f.kind = depth == 16 ? SampleKind::kUint16 : SampleKind::kUint8;
    f.image.rows = height;
    f.image.cols = width;
    f.image.pixels.resize(static_cast<size_t>(width) * height);
    for (png_uint_32 r = 0; r < height; ++r) {
        for (png_uint_32 c = 0; c < width; ++c) {
            double v;
            if (depth == 16) {
                uint16_t s;
                std::memcpy(&s, bytes.data() + (static_cast<size_t>(r) * width + c) * 2, 2);
                v = s / 65535.0;
            } else {
                v = bytes[static_cast<size_t>(r) * width + c] / 255.0;
            }
            f.image.pixels[r + static_cast<size_t>(c) * height] = v;
        }
    }
    return f;
}

void write_png(const std::string& path, const sw::Image& image, bool sixteen) {
    File file(std::fopen(path.c_str(), "wb"));
    if (!file) bad(path, std::string("cannot create: ") + std::strerror(errno));
    const size_t width = image.cols;
    const size_t sample = sixteen ? 2 : 1;
    std::vector<png_byte> bytes(image.pixels.size() * sample);
    for (size_t r = 0; r < image.rows; ++r) {
        for (size_t c = 0; c < width; ++c) {
            const double v = image.pixels[r + c * image.rows];
            png_byte* at = bytes.data() + (r * width + c) * sample;
            if (sixteen) {
                const uint16_t s = static_cast<uint16_t>(integer_level(v, 65535));
                std::memcpy(at, &s, 2);
            } else {
                *at = static_cast<png_byte>(integer_level(v, 255));
            }
        }
    }
    std::vector<png_bytep> row_pointers(image.rows);
    for (size_t r = 0; r < image.rows; ++r) row_pointers[r] = bytes.data() + r * width * sample;
    PngMessage message;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &message, png_fail, png_quiet);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info) {
        png_destroy_write_struct(&png, nullptr);
        bad(path, "out of memory");
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        bad(path, std::string("cannot write PNG: ") + message.text);
    }
    png_init_io(png, file.get());
    png_set_IHDR(png, info, image.cols, image.rows, sixteen ? 16 : 8, PNG_COLOR_TYPE_GRAY,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    if (sixteen) png_set_swap(png);
    png_write_image(png, row_pointers.data());
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    if (std::fflush(file.get()) != 0) bad(path, std::string("write failed: ") + std::strerror(errno));
}

// ---- TIFF ------------------------------------------------------------

thread_local char tiff_message[256];

void tiff_error(const char* module, const char* format, va_list args) {
    char text[200];
    std::vsnprintf(text, sizeof text, format, args);
    std::snprintf(tiff_message, sizeof tiff_message, "%s%s%s", module ? module : "",
                  module ? ": " : "", text);
}

void tiff_quiet(const char*, const char*, va_list) {}

struct TiffCloser {
    void operator()(TIFF* t) const { TIFFClose(t); }
};
using Tiff = std::unique_ptr<TIFF, TiffCloser>;

void quiet_tiff() {
    TIFFSetErrorHandler(tiff_error);
    TIFFSetWarningHandler(tiff_quiet);
    tiff_message[0] = '\0';
}

ImageFile read_tiff(const std::string& path) {
    quiet_tiff();
    Tiff t(TIFFOpen(path.c_str(), "r"));
    if (!t) bad(path, std::string("not a readable TIFF file: ") + tiff_message);
    uint32_t width = 0, height = 0;
    uint16_t samples = 1, bits = 1, format = SAMPLEFORMAT_UINT, photometric = PHOTOMETRIC_MINISBLACK;
    TIFFGetField(t.get(), TIFFTAG_IMAGEWIDTH, &width);
    TIFFGetField(t.get(), TIFFTAG_IMAGELENGTH, &height);
    TIFFGetFieldDefaulted(t.get(), TIFFTAG_SAMPLESPERPIXEL, &samples);
    TIFFGetFieldDefaulted(t.get(), TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetFieldDefaulted(t.get(), TIFFTAG_SAMPLEFORMAT, &format);
    TIFFGetField(t.get(), TIFFTAG_PHOTOMETRIC, &photometric);
    if (samples != 1 || (photometric != PHOTOMETRIC_MINISBLACK && photometric != PHOTOMETRIC_MINISWHITE)) {
        bad(path, "is a colour image or has extra channels; shapewiener filters grey-scale images");
    }
    ImageFile f;
    if (format == SAMPLEFORMAT_UINT && bits == 8) {
        f.kind = SampleKind::kUint8;
    } else if (format == SAMPLEFORMAT_UINT && bits == 16) {
        f.kind = SampleKind::kUint16;
    } else if (format == SAMPLEFORMAT_IEEEFP && bits == 32) {
        f.kind = SampleKind::kFloat32;
    } else if (format == SAMPLEFORMAT_IEEEFP && bits == 64) {
        f.kind = SampleKind::kFloat64;
    } else {
        bad(path, "has " + std::to_string(bits) + "-bit samples of format " + std::to_string(format) +
                      "; supported are 8/16-bit unsigned and 32/64-bit float");
    }
    if (TIFFIsTiled(t.get())) bad(path, "is a tiled TIFF; only TIFF files in strips are supported");
    const bool invert = photometric == PHOTOMETRIC_MINISWHITE;
    f.image.rows = height;
    f.image.cols = width;
    f.image.pixels.resize(static_cast<size_t>(width) * height);
    std::vector<unsigned char> line(static_cast<size_t>(TIFFScanlineSize(t.get())));
    for (uint32_t r = 0; r < height; ++r) {
        if (TIFFReadScanline(t.get(), line.data(), r, 0) < 0) {
            bad(path, std::string("cannot read row ") + std::to_string(r) + ": " + tiff_message);
        }
        for (uint32_t c = 0; c < width; ++c) {
            double v = 0.0;
            switch (f.kind) {
                case SampleKind::kUint8: v = line[c] / 255.0; break;
                case SampleKind::kUint16: { uint16_t s; std::memcpy(&s, &line[c * 2], 2); v = s / 65535.0; break; }
                case SampleKind::kFloat32: { float s; std::memcpy(&s, &line[c * 4], 4); v = s; break; }
                case SampleKind::kFloat64: { double s; std::memcpy(&s, &line[c * 8], 8); v = s; break; }
            }
            if (invert) v = (f.kind == SampleKind::kUint8 || f.kind == SampleKind::kUint16) ? 1.0 - v : -v;
            f.image.pixels[r + static_cast<size_t>(c) * height] = v;
        }
    }
    return f;
}

void write_tiff(const std::string& path, const sw::Image& image, SampleKind kind) {
    quiet_tiff();
    Tiff t(TIFFOpen(path.c_str(), "w"));
    if (!t) bad(path, std::string("cannot create: ") + tiff_message);
    const uint16_t bits = kind == SampleKind::kUint8 ? 8 : kind == SampleKind::kUint16 ? 16 : 32;
    const bool is_float = kind == SampleKind::kFloat32 || kind == SampleKind::kFloat64;
    TIFFSetField(t.get(), TIFFTAG_IMAGEWIDTH, image.cols);
    TIFFSetField(t.get(), TIFFTAG_IMAGELENGTH, image.rows);
    TIFFSetField(t.get(), TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(t.get(), TIFFTAG_BITSPERSAMPLE, bits);
    TIFFSetField(t.get(), TIFFTAG_SAMPLEFORMAT, is_float ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT);
    TIFFSetField(t.get(), TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    TIFFSetField(t.get(), TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(t.get(), TIFFTAG_COMPRESSION, COMPRESSION_NONE);
    TIFFSetField(t.get(), TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(t.get(), 0));
    std::vector<unsigned char> line(static_cast<size_t>(image.cols) * bits / 8);
    for (uint32_t r = 0; r < image.rows; ++r) {
        for (uint32_t c = 0; c < image.cols; ++c) {
            const double v = image.pixels[r + static_cast<size_t>(c) * image.rows];
            if (bits == 8) {
                line[c] = static_cast<unsigned char>(integer_level(v, 255));
            } else if (bits == 16) {
                const uint16_t s = static_cast<uint16_t>(integer_level(v, 65535));
                std::memcpy(&line[c * 2], &s, 2);
            } else {
                const float s = static_cast<float>(v);
                std::memcpy(&line[c * 4], &s, 4);
            }
        }
        if (TIFFWriteScanline(t.get(), line.data(), r, 0) < 0) {
            bad(path, std::string("write failed: ") + tiff_message);
        }
    }
    TIFF* raw = t.release();
    TIFFClose(raw);
}

bool is_tiff(const std::string& ext) { return ext == ".tif" || ext == ".tiff"; }

}  // namespace

bool known_image_extension(const std::string& path) {
    const std::string ext = extension_of(path);
    return ext == ".png" || ext == ".npy" || is_tiff(ext);
}

ImageFile read_image(const std::string& path) {
    const std::string ext = extension_of(path);
    if (ext == ".png") return read_png(path);
    if (is_tiff(ext)) return read_tiff(path);
    if (ext == ".npy") {
        Array2 a = read_npy(path);
        ImageFile f;
        f.kind = a.kind;
        f.image.rows = a.rows;
        f.image.cols = a.cols;
        f.image.pixels = std::move(a.values);
        const double top = a.kind == SampleKind::kUint8 ? 255.0 : a.kind == SampleKind::kUint16 ? 65535.0 : 1.0;
        if (top != 1.0) {
            for (double& v : f.image.pixels) v /= top;
        }
        return f;
    }
    bad(path, "unknown image format '" + ext + "' (use .png, .tif, .tiff or .npy)");
}

SampleKind output_kind(const std::string& path, SampleKind input) {
    const std::string ext = extension_of(path);
    if (ext == ".npy") return SampleKind::kFloat64;
    const bool integer = input == SampleKind::kUint8 || input == SampleKind::kUint16;
    if (ext == ".png") return integer ? input : SampleKind::kUint16;
    return input == SampleKind::kFloat64 ? SampleKind::kFloat32 : input;
}

void write_image(const std::string& path, const std::string& format_path, const sw::Image& image,
                 SampleKind kind) {
    const std::string ext = extension_of(format_path);
    if (ext == ".npy") {
        write_npy(path, image.rows, image.cols, image.pixels);
    } else if (ext == ".png") {
        if (kind != SampleKind::kUint8 && kind != SampleKind::kUint16) {
            bad(format_path, "PNG holds 8- or 16-bit integer samples only");
        }
        write_png(path, image, kind == SampleKind::kUint16);
    } else if (is_tiff(ext)) {
        write_tiff(path, image, kind == SampleKind::kFloat64 ? SampleKind::kFloat32 : kind);
    } else {
        bad(format_path, "unknown image format '" + ext + "' (use .png, .tif, .tiff or .npy)");
    }
}

}  // namespace swio
