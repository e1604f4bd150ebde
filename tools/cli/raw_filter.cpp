// `shapewiener filter`: the sixteen-argument module on a folder of argument
// files, for scripts. Layout (little-endian, column-major): scaleset.f64
// (L doubles), dsm.u8 (M x K x 8 bytes), list.i32 (M*K x 2 int32: pixels,
// then keys), transforms.f64 (cells 1..W, cell L is L x L), masks.u8
// (H*H*8 cells of W x W bytes); any of them may be gzip-compressed (.gz).
// The noisy image and the N x N NoisePsd are raw .f64 or .npy files.
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "commands.h"
#include "io/array_io.h"
#include "io/image_io.h"
#include "denoise/module.h"

namespace swcli {
namespace {

namespace fs = std::filesystem;

// The bytes of `path`, or of `path`.gz, decompressed.
std::vector<unsigned char> read_bytes(const fs::path& path) {
    fs::path actual = path;
    if (!fs::exists(actual)) actual += ".gz";
    if (!fs::exists(actual)) throw std::runtime_error(path.string() + "[.gz]: no such file");
    gzFile f = gzopen(actual.c_str(), "rb");
    if (f == nullptr) throw std::runtime_error(actual.string() + ": cannot open");
    std::vector<unsigned char> bytes;
    unsigned char buffer[1 << 16];
    int n;
    while ((n = gzread(f, buffer, sizeof buffer)) > 0) bytes.insert(bytes.end(), buffer, buffer + n);
    const bool failed = n < 0;
    gzclose(f);
    if (failed) throw std::runtime_error(actual.string() + ": read failed");
    return bytes;
}

template <class T>
std::vector<T> read_values(const fs::path& path) {
    const std::vector<unsigned char> bytes = read_bytes(path);
    if (bytes.size() % sizeof(T) != 0) {
        throw std::runtime_error(path.string() + ": size is not a multiple of " +
                                 std::to_string(sizeof(T)) + " bytes");
    }
    std::vector<T> v(bytes.size() / sizeof(T));
    if (!v.empty()) std::memcpy(v.data(), bytes.data(), bytes.size());
    return v;
}

// A double matrix from .npy (with its size) or raw .f64 (*rows given, or
// 0 for a square).
std::vector<double> read_matrix(const std::string& path, uint64_t* rows, uint64_t* cols) {
    if (swio::extension_of(path) == ".npy") {
        swio::Array2 a = swio::read_npy(path);
        *rows = a.rows;
        *cols = a.cols;
        return a.values;
    }
    std::vector<double> v = read_values<double>(path);
    if (*rows == 0) *rows = static_cast<uint64_t>(std::llround(std::sqrt(static_cast<double>(v.size()))));
    if (*rows == 0 || v.size() % *rows != 0) {
        throw std::runtime_error(path + ": " + std::to_string(v.size()) +
                                 " values do not make whole columns of " + std::to_string(*rows));
    }
    *cols = v.size() / *rows;
    return v;
}

// The one file beside `folder` whose name ends in `suffix`.
std::string find_beside(const fs::path& folder, const std::string& suffix, const char* option) {
    std::string found;
    const fs::path parent = fs::absolute(folder).lexically_normal().parent_path();
    for (const auto& entry : fs::directory_iterator(parent)) {
        const std::string name = entry.path().filename().string();
        if (name.size() >= suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
            if (!found.empty()) {
                throw std::runtime_error("more than one *" + suffix + " in " + parent.string() +
                                         "; choose with " + option);
            }
            found = entry.path().string();
        }
    }
    if (found.empty()) {
        throw std::runtime_error("no *" + suffix + " in " + parent.string() + "; give " + option);
    }
    return found;
}

}  // namespace

int run_filter(const FilterArgs& a) {
    if (swio::extension_of(a.output) != ".npy") {
        throw std::runtime_error(a.output + ": filter writes .npy files");
    }
    swio::check_output_path(a.output);
    const fs::path dir(a.folder);
    const std::vector<double> scale_set = read_values<double>(dir / "scaleset.f64");
    const std::vector<uint8_t> dsm = read_values<uint8_t>(dir / "dsm.u8");
    const std::vector<int32_t> list = read_values<int32_t>(dir / "list.i32");
    const std::vector<double> transform_values = read_values<double>(dir / "transforms.f64");
    const std::vector<uint8_t> mask_values = read_values<uint8_t>(dir / "masks.u8");

    const uint64_t pixels = dsm.size() / 8;
    uint64_t rows = a.rows;
    if (rows == 0) {
        rows = static_cast<uint64_t>(std::llround(std::sqrt(static_cast<double>(pixels))));
        if (rows * rows != pixels) {
            throw std::runtime_error("the image is not square (" + std::to_string(pixels) +
                                     " pixels); give --rows");
        }
    }
    uint64_t cols = 0;
    const std::string noisy_path = a.noisy.empty() ? find_beside(dir, "_noisy.f64", "--noisy") : a.noisy;
    std::vector<double> noisy = read_matrix(noisy_path, &rows, &cols);
    if (rows * cols != pixels) {
        throw std::runtime_error(noisy_path + ": " + std::to_string(rows * cols) +
                                 " pixels, the scale map " + std::to_string(pixels));
    }
    std::vector<double> pilot = noisy;
    if (!a.pilot.empty()) {
        uint64_t pr = rows, pc = 0;
        pilot = read_matrix(a.pilot, &pr, &pc);
        if (pr != rows || pc != cols) throw std::runtime_error(a.pilot + ": not the image's size");
    }
    const std::string psd_path = a.psd.empty() ? find_beside(dir, "_psd32.f64", "--psd") : a.psd;
    uint64_t n = 0, psd_cols = 0;  // a raw file holds a square
    const std::vector<double> psd = read_matrix(psd_path, &n, &psd_cols);

    double h_value = 0.0;
    for (double s : scale_set) h_value = std::max(h_value, s);
    const uint64_t h = sw::round_to_unsigned(h_value);
    const uint64_t w = 2 * h - 1;
    std::vector<sw::ArrayView<double>> transforms;
    for (uint64_t len = 1, at = 0; len <= w; at += len * len, ++len) {
        if (at + len * len > transform_values.size()) {
            throw std::runtime_error("transforms.f64 holds fewer than the " + std::to_string(w) +
                                     " transforms H = " + std::to_string(h) + " needs");
        }
        transforms.push_back({transform_values.data() + at, sw::Dims::matrix(len, len)});
    }
    std::vector<sw::ArrayView<uint8_t>> masks;
    if (mask_values.size() != h * h * 8 * w * w) {
        throw std::runtime_error("masks.u8 must hold H*H*8 masks of W x W bytes");
    }
    for (uint64_t c = 0; c < h * h * 8; ++c) {
        masks.push_back({mask_values.data() + c * w * w, sw::Dims::matrix(w, w)});
    }

    sw::FilterCall call;
    call.scale_set = {scale_set.data(), sw::Dims::matrix(1, scale_set.size())};
    call.direction_scale_map = {dsm.data(), sw::Dims::array3(rows, cols, 8)};
    call.transforms = transforms.data();
    call.transform_count = transforms.size();
    call.sector_masks = masks.data();
    call.sector_mask_count = masks.size();
    call.dft_size = static_cast<double>(n);
    call.noise_psd = {psd.data(), sw::Dims::matrix(n, psd_cols)};
    call.noisy_image = noisy.data();
    call.image_dims = sw::Dims::matrix(rows, cols);
    call.processing_list = {list.data(), sw::Dims::matrix(list.size() / 2, 2)};
    call.noise_level_factor = a.noise_level_factor;
    call.max_scale = h_value;
    call.pilot_image = pilot.data();
    call.pilot_dims = sw::Dims::matrix(rows, cols);
    call.wiener_variance_factor = a.wiener_variance_factor;
    call.coverage_threshold = a.coverage_threshold;

    std::vector<double> output(rows * cols);
    swdenoise::run_module(call, output.data(), a.threads, {});
    swio::write_atomically(a.output, [&](const std::string& temp) {
        swio::write_npy(temp, static_cast<uint32_t>(rows), static_cast<uint32_t>(cols), output);
    });
    return 0;
}

}  // namespace swcli
