#include "io/image_io.h"

#include <png.h>
#include <tiffio.h>

#include <cstdio>  // before jpeglib.h, which needs FILE
#include <jpeglib.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <vector>

namespace swio {
namespace {

[[noreturn]] void bad(const std::string& path, const std::string& what) {
    throw std::runtime_error(path + ": " + what);
}

// Rows of stored samples, decoded one at a time: memory grows with what a
// file really holds, not with what its header claims.
class RowBuffer {
public:
    explicit RowBuffer(size_t row_bytes) : row_bytes_(row_bytes) {}
    unsigned char* next_row() {
        bytes_.resize(bytes_.size() + row_bytes_);
        return bytes_.data() + bytes_.size() - row_bytes_;
    }
    unsigned char* row(size_t r) { return bytes_.data() + r * row_bytes_; }
    // The rows so far, `channels` interleaved samples a pixel, as planes of
    // rows x cols column-major values of `type`.
    sw::ColourImage image(uint32_t rows, uint32_t cols, uint32_t channels, sw::SampleType type) const {
        sw::ColourImage img;
        img.rows = rows;
        img.cols = cols;
        img.channels = channels;
        const size_t plane = static_cast<size_t>(rows) * cols;
        img.pixels.resize(plane * channels);
        const size_t width = type_width(type);
        for (uint32_t r = 0; r < rows; ++r) {
            const unsigned char* row = bytes_.data() + r * row_bytes_;
            for (uint32_t c = 0; c < cols; ++c) {
                for (uint32_t k = 0; k < channels; ++k) {
                    img.pixels[r + static_cast<size_t>(c) * rows + k * plane] =
                        load_value(row + (static_cast<size_t>(c) * channels + k) * width, type);
                }
            }
        }
        return img;
    }

private:
    size_t row_bytes_;
    std::vector<unsigned char> bytes_;
};

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

// The refusal of a file's channel count: grey (1), RGB (3) and RGB with
// alpha (4) are images.
std::string channel_refusal(uint32_t channels) {
    if (channels == 1 || channels == 3 || channels == 4) return "";
    return "has " + std::to_string(channels) + " channels" +
           (channels == 2 ? " (grey and alpha)" : "") +
           "; images are grey (1 channel), RGB (3) or RGB and alpha (4)";
}

// What read_png finds, filled inside the setjmp scope.
struct PngRead {
    png_uint_32 width = 0, height = 0;
    int depth = 0;
    uint32_t channels = 1;
    std::string refusal;
    std::unique_ptr<RowBuffer> rows;
    std::vector<png_bytep> pointers;  // interlaced files only
};

ChannelFile read_png(const std::string& path, uint64_t bytes_per_pixel) {
    File file(std::fopen(path.c_str(), "rb"));
    if (!file) bad(path, std::string("cannot open: ") + std::strerror(errno));
    PngMessage message;
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &message, png_fail, png_quiet);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info) {
        png_destroy_read_struct(&png, nullptr, nullptr);
        bad(path, "out of memory");
    }
    PngRead got;
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, &info, nullptr);
        if (!got.refusal.empty()) bad(path, got.refusal);
        bad(path, std::string("not a readable PNG file: ") + message.text);
    }
    png_init_io(png, file.get());
    png_read_info(png, info);
    got.width = png_get_image_width(png, info);
    got.height = png_get_image_height(png, info);
    const int colour = png_get_color_type(png, info);
    got.depth = png_get_bit_depth(png, info);
    got.channels = (colour & PNG_COLOR_MASK_COLOR ? 3 : 1) + (colour & PNG_COLOR_MASK_ALPHA ? 1 : 0);
    if (colour == PNG_COLOR_TYPE_PALETTE) {
        got.channels = png_get_valid(png, info, PNG_INFO_tRNS) ? 4 : 3;
    }
    got.refusal = channel_refusal(got.channels);
    if (got.refusal.empty()) {
        got.refusal = sw::size_refusal(got.height, got.width,
                                       std::max<uint64_t>(bytes_per_pixel, 10 * got.channels));
    }
    if (got.refusal.empty()) {
        if (colour == PNG_COLOR_TYPE_PALETTE) {
            png_set_palette_to_rgb(png);
            if (got.channels == 4) png_set_tRNS_to_alpha(png);
        } else if (got.depth < 8) {
            png_set_expand_gray_1_2_4_to_8(png);
        }
        if (got.depth == 16) png_set_swap(png);  // little-endian samples
        const int passes = png_set_interlace_handling(png);
        png_read_update_info(png, info);
        const size_t row_bytes = png_get_rowbytes(png, info);
        got.rows = std::make_unique<RowBuffer>(row_bytes);
        if (passes == 1) {
            for (png_uint_32 r = 0; r < got.height; ++r) png_read_row(png, got.rows->next_row(), nullptr);
        } else {
            // Interlaced: every pass revisits every row.
            for (png_uint_32 r = 0; r < got.height; ++r) got.rows->next_row();
            got.pointers.resize(got.height);
            for (png_uint_32 r = 0; r < got.height; ++r) got.pointers[r] = got.rows->row(r);
            png_read_image(png, got.pointers.data());
        }
    }
    png_destroy_read_struct(&png, &info, nullptr);
    if (!got.refusal.empty()) bad(path, got.refusal);
    ChannelFile f;
    f.type = got.depth == 16 ? sw::SampleType::kUint16 : sw::SampleType::kUint8;
    f.image = got.rows->image(got.height, got.width, got.channels, f.type);
    return f;
}

// The image's samples interleaved a pixel at a time, row after row.
std::vector<unsigned char> interleaved(const sw::ColourImage& image, sw::SampleType type) {
    const size_t sample = type_width(type), plane = static_cast<size_t>(image.rows) * image.cols;
    std::vector<unsigned char> bytes(image.pixels.size() * sample);
    size_t at = 0;
    for (size_t r = 0; r < image.rows; ++r) {
        for (size_t c = 0; c < image.cols; ++c) {
            for (size_t k = 0; k < image.channels; ++k, at += sample) {
                store_value(image.pixels[r + c * image.rows + k * plane], type, bytes.data() + at);
            }
        }
    }
    return bytes;
}

void write_png(const std::string& path, const sw::ColourImage& image, sw::SampleType type) {
    const bool sixteen = type == sw::SampleType::kUint16;
    const size_t width = static_cast<size_t>(image.cols) * image.channels;
    const size_t sample = sixteen ? 2 : 1;
    std::vector<png_byte> bytes = interleaved(image, type);
    static const int kColourType[] = {0, PNG_COLOR_TYPE_GRAY, PNG_COLOR_TYPE_GRAY_ALPHA,
                                      PNG_COLOR_TYPE_RGB, PNG_COLOR_TYPE_RGB_ALPHA};
    std::vector<png_bytep> row_pointers(image.rows);
    for (size_t r = 0; r < image.rows; ++r) row_pointers[r] = bytes.data() + r * width * sample;
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) bad(path, std::string("cannot create: ") + std::strerror(errno));
    PngMessage message;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &message, png_fail, png_quiet);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info) {
        png_destroy_write_struct(&png, nullptr);
        std::fclose(file);
        bad(path, "out of memory");
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        std::fclose(file);
        bad(path, std::string("cannot write PNG: ") + message.text);
    }
    png_init_io(png, file);
    png_set_IHDR(png, info, image.cols, image.rows, sixteen ? 16 : 8, kColourType[image.channels],
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    if (sixteen) png_set_swap(png);
    png_write_image(png, row_pointers.data());
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    const bool flushed = std::fflush(file) == 0 && !std::ferror(file);
    const int saved = errno;
    if (std::fclose(file) != 0 || !flushed) {
        bad(path, std::string("write failed: ") + std::strerror(flushed ? errno : saved));
    }
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

// The sample type of a TIFF's bits and format; false when unsupported.
bool tiff_type(uint16_t bits, uint16_t format, sw::SampleType* type) {
    static const struct { uint16_t bits, format; sw::SampleType type; } kTypes[] = {
        {8, SAMPLEFORMAT_UINT, sw::SampleType::kUint8}, {8, SAMPLEFORMAT_INT, sw::SampleType::kInt8},
        {16, SAMPLEFORMAT_UINT, sw::SampleType::kUint16}, {16, SAMPLEFORMAT_INT, sw::SampleType::kInt16},
        {32, SAMPLEFORMAT_UINT, sw::SampleType::kUint32}, {32, SAMPLEFORMAT_INT, sw::SampleType::kInt32},
        {64, SAMPLEFORMAT_UINT, sw::SampleType::kUint64}, {64, SAMPLEFORMAT_INT, sw::SampleType::kInt64},
        {32, SAMPLEFORMAT_IEEEFP, sw::SampleType::kFloat32},
        {64, SAMPLEFORMAT_IEEEFP, sw::SampleType::kFloat64}};
    for (const auto& t : kTypes) {
        if (t.bits == bits && t.format == format) {
            *type = t.type;
            return true;
        }
    }
    return false;
}

ChannelFile read_tiff(const std::string& path, uint64_t bytes_per_pixel) {
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
    uint16_t planar = PLANARCONFIG_CONTIG;
    TIFFGetField(t.get(), TIFFTAG_PHOTOMETRIC, &photometric);
    TIFFGetFieldDefaulted(t.get(), TIFFTAG_PLANARCONFIG, &planar);
    const std::string refusal = channel_refusal(samples);
    if (!refusal.empty()) bad(path, refusal);
    const bool grey = photometric == PHOTOMETRIC_MINISBLACK || photometric == PHOTOMETRIC_MINISWHITE;
    if ((samples == 1) != grey || (samples > 1 && photometric != PHOTOMETRIC_RGB)) {
        bad(path, "stores its colours as photometric " + std::to_string(photometric) +
                      "; supported are grey (1 sample) and RGB (3 samples, or 4 with alpha)");
    }
    if (samples > 1 && planar != PLANARCONFIG_CONTIG) {
        bad(path, "stores its channels in separate planes; save it with interleaved (contiguous) samples");
    }
    ChannelFile f;
    if (!tiff_type(bits, format, &f.type)) {
        bad(path, "has " + std::to_string(bits) + "-bit samples of format " + std::to_string(format) +
                      "; supported are integers of 8 to 64 bits and 32/64-bit float");
    }
    // Stored with 0 as white: unsigned samples read as (largest - value).
    const bool invert = photometric == PHOTOMETRIC_MINISWHITE;
    if (invert && format != SAMPLEFORMAT_UINT) {
        bad(path, "stores signed or float samples with 0 as white; save it with 0 as black");
    }
    if (TIFFIsTiled(t.get())) bad(path, "is a tiled TIFF; only TIFF files in strips are supported");
    if (width == 0 || height == 0) bad(path, "has no pixels");
    check_size(path, height, width, std::max<uint64_t>(bytes_per_pixel, (8 + bits / 8) * samples));
    const tmsize_t line = TIFFScanlineSize(t.get());
    if (line < static_cast<tmsize_t>(static_cast<uint64_t>(width) * samples * bits / 8)) {
        bad(path, "has a scanline shorter than its width");
    }
    RowBuffer rows(static_cast<size_t>(line));
    for (uint32_t r = 0; r < height; ++r) {
        if (TIFFReadScanline(t.get(), rows.next_row(), r, 0) < 0) {
            bad(path, std::string("cannot read row ") + std::to_string(r) + ": " + tiff_message);
        }
    }
    f.image = rows.image(height, width, samples, f.type);
    if (invert) {
        const double top = sw::type_highest(f.type);
        for (double& v : f.image.pixels) v = top - v;
    }
    return f;
}

void write_tiff(const std::string& path, const sw::ColourImage& image, sw::SampleType type) {
    quiet_tiff();
    // The descriptor is ours, so that its close is checked too.
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (fd < 0) bad(path, std::string("cannot create: ") + std::strerror(errno));
    TIFF* t = TIFFFdOpen(fd, path.c_str(), "w");
    if (t == nullptr) {
        ::close(fd);
        bad(path, std::string("cannot create: ") + tiff_message);
    }
    const size_t width = type_width(type);
    const uint16_t format = !sw::is_integer(type)            ? SAMPLEFORMAT_IEEEFP
                            : sw::type_lowest(type) < 0.0 ? SAMPLEFORMAT_INT
                                                          : SAMPLEFORMAT_UINT;
    bool ok = TIFFSetField(t, TIFFTAG_IMAGEWIDTH, image.cols) &&
              TIFFSetField(t, TIFFTAG_IMAGELENGTH, image.rows) &&
              TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, static_cast<uint16_t>(image.channels)) &&
              TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, static_cast<uint16_t>(width * 8)) &&
              TIFFSetField(t, TIFFTAG_SAMPLEFORMAT, format) &&
              TIFFSetField(t, TIFFTAG_PHOTOMETRIC,
                           image.channels == 1 ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB) &&
              TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG) &&
              TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_NONE) &&
              TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(t, 0));
    if (ok && image.channels == 4) {
        const uint16_t alpha = EXTRASAMPLE_UNASSALPHA;
        ok = TIFFSetField(t, TIFFTAG_EXTRASAMPLES, 1, &alpha);
    }
    std::string failure;
    try {
        std::vector<unsigned char> bytes = interleaved(image, type);
        const size_t line = static_cast<size_t>(image.cols) * image.channels * width;
        for (uint32_t r = 0; ok && r < image.rows; ++r) {
            ok = TIFFWriteScanline(t, bytes.data() + r * line, r, 0) == 1;
        }
        ok = ok && TIFFFlush(t) == 1;
    } catch (const std::exception& e) {
        failure = e.what();
        ok = false;
    }
    const int saved = errno;
    TIFFCleanup(t);  // frees; the descriptor stays ours
    const bool closed = ::close(fd) == 0;
    if (!failure.empty()) bad(path, failure);
    if (!ok || !closed) {
        bad(path, std::string("write failed: ") +
                      (tiff_message[0] != '\0' ? std::string(tiff_message) : std::strerror(ok ? errno : saved)));
    }
}

// ---- JPEG ------------------------------------------------------------

struct JpegError {
    jpeg_error_mgr manager;
    std::jmp_buf jump;
    char text[JMSG_LENGTH_MAX] = {0};
};

void jpeg_fail(j_common_ptr info) {
    auto* e = reinterpret_cast<JpegError*>(info->err);
    (*info->err->format_message)(info, e->text);
    std::longjmp(e->jump, 1);
}

void jpeg_quiet(j_common_ptr, int) {}

// What read_jpeg finds, filled inside the setjmp scope.
struct JpegRead {
    std::string refusal;
    std::unique_ptr<RowBuffer> rows;
    uint32_t width = 0, height = 0, channels = 0;
};

ChannelFile read_jpeg(const std::string& path, uint64_t bytes_per_pixel) {
    File file(std::fopen(path.c_str(), "rb"));
    if (!file) bad(path, std::string("cannot open: ") + std::strerror(errno));
    jpeg_decompress_struct info;
    JpegError error;
    info.err = jpeg_std_error(&error.manager);
    error.manager.error_exit = jpeg_fail;
    error.manager.emit_message = jpeg_quiet;
    JpegRead got;
    if (setjmp(error.jump)) {
        jpeg_destroy_decompress(&info);
        bad(path, std::string("not a readable JPEG file: ") + error.text);
    }
    jpeg_create_decompress(&info);
    jpeg_stdio_src(&info, file.get());
    jpeg_read_header(&info, TRUE);
    if (info.jpeg_color_space == JCS_CMYK || info.jpeg_color_space == JCS_YCCK) {
        got.refusal = "stores CMYK colours; save it as RGB";
    } else {
        info.out_color_space = info.num_components == 1 ? JCS_GRAYSCALE : JCS_RGB;
        got.channels = info.num_components == 1 ? 1 : 3;
        got.width = info.image_width;
        got.height = info.image_height;
        got.refusal = sw::size_refusal(got.height, got.width,
                                       std::max<uint64_t>(bytes_per_pixel, 10 * got.channels));
    }
    if (got.refusal.empty()) {
        jpeg_start_decompress(&info);
        got.rows = std::make_unique<RowBuffer>(static_cast<size_t>(info.output_width) *
                                               info.output_components);
        while (info.output_scanline < info.output_height) {
            JSAMPROW row = got.rows->next_row();
            jpeg_read_scanlines(&info, &row, 1);
        }
        jpeg_finish_decompress(&info);
    }
    jpeg_destroy_decompress(&info);
    if (!got.refusal.empty()) bad(path, got.refusal);
    ChannelFile f;
    f.type = sw::SampleType::kUint8;
    f.image = got.rows->image(got.height, got.width, got.channels, f.type);
    return f;
}

void write_jpeg(const std::string& path, const sw::ColourImage& image, int quality) {
    if (image.channels != 1 && image.channels != 3) {
        bad(path, "JPEG holds grey or RGB images, not " + std::to_string(image.channels) +
                      " channels; write .png or .tif to keep the alpha channel");
    }
    std::vector<unsigned char> bytes = interleaved(image, sw::SampleType::kUint8);
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) bad(path, std::string("cannot create: ") + std::strerror(errno));
    jpeg_compress_struct info;
    JpegError error;
    info.err = jpeg_std_error(&error.manager);
    error.manager.error_exit = jpeg_fail;
    error.manager.emit_message = jpeg_quiet;
    if (setjmp(error.jump)) {
        jpeg_destroy_compress(&info);
        std::fclose(file);
        bad(path, std::string("cannot write JPEG: ") + error.text);
    }
    jpeg_create_compress(&info);
    jpeg_stdio_dest(&info, file);
    info.image_width = image.cols;
    info.image_height = image.rows;
    info.input_components = static_cast<int>(image.channels);
    info.in_color_space = image.channels == 1 ? JCS_GRAYSCALE : JCS_RGB;
    jpeg_set_defaults(&info);
    jpeg_set_quality(&info, quality, TRUE);
    // High qualities keep the chroma at full resolution (no 2 x 2 averaging).
    if (quality >= 90 && image.channels == 3) {
        for (int c = 0; c < info.num_components; ++c) {
            info.comp_info[c].h_samp_factor = 1;
            info.comp_info[c].v_samp_factor = 1;
        }
    }
    jpeg_start_compress(&info, TRUE);
    const size_t line = static_cast<size_t>(image.cols) * image.channels;
    while (info.next_scanline < info.image_height) {
        JSAMPROW row = bytes.data() + info.next_scanline * line;
        jpeg_write_scanlines(&info, &row, 1);
    }
    jpeg_finish_compress(&info);
    jpeg_destroy_compress(&info);
    const bool flushed = std::fflush(file) == 0 && !std::ferror(file);
    const int saved = errno;
    if (std::fclose(file) != 0 || !flushed) {
        bad(path, std::string("write failed: ") + std::strerror(flushed ? errno : saved));
    }
}

bool is_tiff(const std::string& ext) { return ext == ".tif" || ext == ".tiff"; }
bool is_jpeg(const std::string& ext) { return ext == ".jpg" || ext == ".jpeg"; }

const char* const kFormats = "(use .png, .tif, .tiff, .jpg, .jpeg or .npy)";

ChannelFile read_file(const std::string& path, uint64_t bytes_per_pixel) {
    const std::string ext = extension_of(path);
    if (ext == ".png") return read_png(path, bytes_per_pixel);
    if (is_tiff(ext)) return read_tiff(path, bytes_per_pixel);
    if (is_jpeg(ext)) return read_jpeg(path, bytes_per_pixel);
    if (ext == ".npy") {
        Array2 a = read_npy(path, bytes_per_pixel, true);
        const std::string refusal = channel_refusal(a.channels);
        if (!refusal.empty()) bad(path, refusal);
        ChannelFile f;
        f.type = a.type;
        f.image.rows = a.rows;
        f.image.cols = a.cols;
        f.image.channels = a.channels;
        f.image.pixels = std::move(a.values);
        return f;
    }
    bad(path, "unknown image format '" + ext + "' " + kFormats);
}

}  // namespace

bool known_image_extension(const std::string& path) {
    const std::string ext = extension_of(path);
    return ext == ".png" || ext == ".npy" || is_tiff(ext) || is_jpeg(ext);
}

ChannelFile read_channels(const std::string& path, uint64_t bytes_per_pixel) {
    try {
        return read_file(path, bytes_per_pixel);
    } catch (const std::bad_alloc&) {
        bad(path, "cannot allocate the memory to read it");
    } catch (const std::range_error& e) {
        bad(path, std::string("holds ") + e.what());
    }
}

ImageFile read_image(const std::string& path, uint64_t bytes_per_pixel) {
    ChannelFile f = read_channels(path, bytes_per_pixel);
    if (f.image.channels == 2 || f.image.channels == 4) {
        bad(path, "has an alpha channel; give a plain grey-scale image");
    }
    if (f.image.channels != 1) {
        bad(path, "is a colour image; this call takes grey-scale images (convert it to grey first)");
    }
    ImageFile g;
    g.type = f.type;
    g.image.rows = f.image.rows;
    g.image.cols = f.image.cols;
    g.image.pixels = std::move(f.image.pixels);
    return g;
}

bool format_holds(const std::string& path, sw::SampleType type) {
    const std::string ext = extension_of(path);
    if (is_jpeg(ext)) return type == sw::SampleType::kUint8;
    if (ext != ".png") return true;
    return type == sw::SampleType::kUint8 || type == sw::SampleType::kUint16;
}

void write_channels(const std::string& path, const std::string& format_path,
                    const sw::ColourImage& image, sw::SampleType type, int quality) {
    const std::string ext = extension_of(format_path);
    if (!known_image_extension(format_path)) {
        bad(format_path, "unknown image format '" + ext + "' " + kFormats);
    }
    if (!format_holds(format_path, type)) {
        bad(format_path, is_jpeg(ext) ? std::string("JPEG holds uint8 samples, not ") + sw::type_name(type) +
                                            "; write .png, .tif or .npy"
                                      : std::string("PNG holds uint8 or uint16 samples, not ") +
                                            sw::type_name(type) +
                                            "; write .tif or .npy, or choose uint8 or uint16");
    }
    const std::string refusal = channel_refusal(image.channels);
    if (!refusal.empty()) bad(format_path, "the image " + refusal);
    if (ext == ".npy") {
        write_npy(path, image.rows, image.cols, image.pixels, type, image.channels);
    } else if (ext == ".png") {
        write_png(path, image, type);
    } else if (is_jpeg(ext)) {
        if (quality < 1 || quality > 100) {
            bad(format_path, "JPEG quality " + std::to_string(quality) + " is outside 1..100");
        }
        write_jpeg(path, image, quality);
    } else {
        write_tiff(path, image, type);
    }
}

void write_image(const std::string& path, const std::string& format_path, const sw::Image& image,
                 sw::SampleType type) {
    sw::ColourImage grey;
    grey.rows = image.rows;
    grey.cols = image.cols;
    grey.channels = 1;
    grey.pixels = image.pixels;
    write_channels(path, format_path, grey, type);
}

void check_output_path(const std::string& path, bool image) {
    if (image && !known_image_extension(path)) {
        bad(path, "unknown image format '" + extension_of(path) + "' " + kFormats);
    }
    const std::filesystem::path target(path);
    const std::filesystem::path folder = target.has_parent_path() ? target.parent_path() : ".";
    std::error_code ec;
    if (!std::filesystem::exists(folder, ec)) {
        bad(path, "the output folder '" + folder.string() + "' does not exist");
    }
    if (!std::filesystem::is_directory(folder, ec)) {
        bad(path, "'" + folder.string() + "' is not a folder");
    }
    if (std::filesystem::is_directory(target, ec)) bad(path, "is a folder");
    if (::access(folder.c_str(), W_OK) != 0) {
        bad(path, "the output folder '" + folder.string() + "' is not writable");
    }
}

void write_atomically(const std::string& path, const std::function<void(const std::string&)>& write) {
    static std::atomic<unsigned> counter{0};
    const std::filesystem::path target(path);
    // A short name: a target name near the system's limit still works.
    const std::filesystem::path temp =
        target.parent_path() / (".sw" + std::to_string(getpid()) + "-" + std::to_string(counter++));
    try {
        write(temp.string());
        std::filesystem::rename(temp, target);
    } catch (const std::filesystem::filesystem_error& e) {
        std::error_code ignored;
        std::filesystem::remove(temp, ignored);
        bad(path, std::string("cannot replace it: ") + e.code().message());
    } catch (const std::runtime_error& e) {
        // The writers name the file they write: the user's name instead.
        std::error_code ignored;
        std::filesystem::remove(temp, ignored);
        const std::string what = e.what();
        const std::string named = temp.string() + ": ";
        if (what.compare(0, named.size(), named) != 0) throw;
        bad(path, what.substr(named.size()));
    } catch (...) {
        std::error_code ignored;
        std::filesystem::remove(temp, ignored);
        throw;
    }
}

}  // namespace swio
