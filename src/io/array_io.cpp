#include "io/array_io.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>

namespace swio {
namespace {

[[noreturn]] void bad(const std::string& path, const std::string& what) {
    throw std::runtime_error(path + ": " + what);
}

// The text after `key` in the header dict, up to the next top-level comma.
std::string dict_value(const std::string& header, const std::string& key, const std::string& path) {
    const size_t at = header.find("'" + key + "'");
    if (at == std::string::npos) bad(path, "not a valid .npy file (no '" + key + "' in the header)");
    size_t p = header.find(':', at);
    if (p == std::string::npos) bad(path, "not a valid .npy file (bad header)");
    ++p;
    while (p < header.size() && header[p] == ' ') ++p;
    size_t end = p;
    int depth = 0;
    while (end < header.size()) {
        const char c = header[end];
        if (c == '(') ++depth;
        if (c == ')') --depth;
        if ((c == ',' && depth == 0) || c == '}') break;
        ++end;
    }
    return header.substr(p, end - p);
}

}  // namespace

std::string extension_of(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    const size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
    std::string ext = path.substr(dot);
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

void check_size(const std::string& path, uint64_t rows, uint64_t cols, uint64_t bytes_per_pixel) {
    const std::string refusal = sw::size_refusal(rows, cols, bytes_per_pixel);
    if (!refusal.empty()) bad(path, refusal);
}

size_t type_width(sw::SampleType type) {
    switch (type) {
        case sw::SampleType::kUint8: case sw::SampleType::kInt8: return 1;
        case sw::SampleType::kUint16: case sw::SampleType::kInt16: return 2;
        case sw::SampleType::kUint32: case sw::SampleType::kInt32: case sw::SampleType::kFloat32: return 4;
        default: return 8;
    }
}

template <typename Integer>
double exact(Integer v) {
    const std::string refusal = sw::inexact_integer(v);
    if (!refusal.empty()) throw std::range_error(refusal);
    return static_cast<double>(v);
}

double load_value(const unsigned char* b, sw::SampleType type) {
    switch (type) {
        case sw::SampleType::kUint8: return b[0];
        case sw::SampleType::kInt8: return static_cast<int8_t>(b[0]);
        case sw::SampleType::kUint16: { uint16_t v; std::memcpy(&v, b, 2); return v; }
        case sw::SampleType::kInt16: { int16_t v; std::memcpy(&v, b, 2); return v; }
        case sw::SampleType::kUint32: { uint32_t v; std::memcpy(&v, b, 4); return v; }
        case sw::SampleType::kInt32: { int32_t v; std::memcpy(&v, b, 4); return v; }
        case sw::SampleType::kUint64: { uint64_t v; std::memcpy(&v, b, 8); return exact(v); }
        case sw::SampleType::kInt64: { int64_t v; std::memcpy(&v, b, 8); return exact(v); }
        case sw::SampleType::kFloat32: { float v; std::memcpy(&v, b, 4); return v; }
        case sw::SampleType::kFloat64: { double v; std::memcpy(&v, b, 8); return v; }
    }
    return 0.0;
}

void store_value(double value, sw::SampleType type, unsigned char* b) {
    const double v = sw::to_type(value, type);
    switch (type) {
        case sw::SampleType::kUint8: b[0] = static_cast<uint8_t>(v); break;
        case sw::SampleType::kInt8: b[0] = static_cast<unsigned char>(static_cast<int8_t>(v)); break;
        case sw::SampleType::kUint16: { const uint16_t s = static_cast<uint16_t>(v); std::memcpy(b, &s, 2); break; }
        case sw::SampleType::kInt16: { const int16_t s = static_cast<int16_t>(v); std::memcpy(b, &s, 2); break; }
        case sw::SampleType::kUint32: { const uint32_t s = static_cast<uint32_t>(v); std::memcpy(b, &s, 4); break; }
        case sw::SampleType::kInt32: { const int32_t s = static_cast<int32_t>(v); std::memcpy(b, &s, 4); break; }
        case sw::SampleType::kUint64: { const uint64_t s = static_cast<uint64_t>(v); std::memcpy(b, &s, 8); break; }
        case sw::SampleType::kInt64: { const int64_t s = static_cast<int64_t>(v); std::memcpy(b, &s, 8); break; }
        case sw::SampleType::kFloat32: { const float s = static_cast<float>(v); std::memcpy(b, &s, 4); break; }
        case sw::SampleType::kFloat64: std::memcpy(b, &v, 8); break;
    }
}

Array2 read_npy(const std::string& path, uint64_t bytes_per_pixel, bool channels) {
    std::ifstream in(path, std::ios::binary);
    if (!in) bad(path, std::string("cannot open: ") + std::strerror(errno));
    char magic[8];
    if (!in.read(magic, 8) || std::memcmp(magic, "\x93NUMPY", 6) != 0) {
        bad(path, "not a NumPy .npy file");
    }
    const int major = static_cast<unsigned char>(magic[6]);
    uint32_t header_length = 0;
    if (major == 1) {
        unsigned char b[2];
        if (!in.read(reinterpret_cast<char*>(b), 2)) bad(path, "truncated .npy header");
        header_length = b[0] | (b[1] << 8);
    } else if (major == 2 || major == 3) {
        unsigned char b[4];
        if (!in.read(reinterpret_cast<char*>(b), 4)) bad(path, "truncated .npy header");
        header_length = b[0] | (b[1] << 8) | (b[2] << 16) | (static_cast<uint32_t>(b[3]) << 24);
    } else {
        bad(path, "unsupported .npy version " + std::to_string(major));
    }
    if (header_length > (1u << 20)) bad(path, "not a valid .npy file (header too long)");
    std::string header(header_length, '\0');
    if (!in.read(&header[0], header_length)) bad(path, "truncated .npy header");

    std::string descr = dict_value(header, "descr", path);
    descr.erase(std::remove(descr.begin(), descr.end(), '\''), descr.end());
    Array2 a;
    // Byte order ('<', '>', '|' or '='), kind and width: "<u2", "|i1", ">f8".
    const char order = descr.empty() ? '?' : descr[0];
    const std::string code = descr.size() > 1 ? descr.substr(1) : "";
    static const struct { const char* code; sw::SampleType type; } kCodes[] = {
        {"u1", sw::SampleType::kUint8}, {"i1", sw::SampleType::kInt8},
        {"u2", sw::SampleType::kUint16}, {"i2", sw::SampleType::kInt16},
        {"u4", sw::SampleType::kUint32}, {"i4", sw::SampleType::kInt32},
        {"u8", sw::SampleType::kUint64}, {"i8", sw::SampleType::kInt64},
        {"f4", sw::SampleType::kFloat32}, {"f8", sw::SampleType::kFloat64}};
    bool known = false;
    for (const auto& k : kCodes) {
        if (code == k.code) a.type = k.type, known = true;
    }
    if (!known || (order != '<' && order != '>' && order != '|' && order != '=')) {
        const char kind = code.empty() ? '?' : code[0];
        bad(path, "unsupported .npy data type '" + descr + "'" +
                      (kind == 'c' ? ": complex values are not an image"
                       : kind == 'b' ? ": a bool array is not an image"
                                     : "") +
                      " (integers of 8 to 64 bits, float32 or float64)");
    }
    const size_t width = type_width(a.type);
    const bool swap = order == '>' && width > 1;
    const bool fortran = dict_value(header, "fortran_order", path).find("True") != std::string::npos;
    const std::string shape = dict_value(header, "shape", path);
    std::vector<uint64_t> dims;
    for (size_t p = 0; p < shape.size();) {
        if (std::isdigit(static_cast<unsigned char>(shape[p]))) {
            char* end = nullptr;
            dims.push_back(std::strtoull(shape.c_str() + p, &end, 10));
            p = static_cast<size_t>(end - shape.c_str());
        } else {
            ++p;
        }
    }
    if (dims.size() == 1) dims.insert(dims.begin(), 1);
    uint64_t planes = 1;
    if (channels && dims.size() == 3) {
        planes = dims[2];
        if (planes == 0 || planes > 0xffffu) bad(path, "has " + std::to_string(planes) + " channels");
        dims.pop_back();
    }
    if (dims.size() != 2) {
        bad(path, "has " + std::to_string(dims.size()) +
                      " dimensions; a grey-scale image or array needs 2 (colour is not supported)");
    }
    if (dims[0] > 0xffffffffu || dims[1] > 0xffffffffu) bad(path, "array too large");
    check_size(path, dims[0], dims[1], std::max<uint64_t>(bytes_per_pixel, (8 + width) * planes));
    // The data the header announces must be in the file.
    struct stat st;
    const uint64_t data_at = static_cast<uint64_t>(in.tellg());
    if (::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
        static_cast<uint64_t>(st.st_size) < data_at + dims[0] * dims[1] * planes * width) {
        bad(path, "truncated .npy data: the header announces " + std::to_string(dims[0]) + " x " +
                      std::to_string(dims[1]) +
                      (planes > 1 ? " x " + std::to_string(planes) : std::string()) +
                      " values of " + std::to_string(width) +
                      " bytes, the file holds " + std::to_string(st.st_size) + " bytes");
    }
    a.rows = static_cast<uint32_t>(dims[0]);
    a.cols = static_cast<uint32_t>(dims[1]);
    a.channels = static_cast<uint32_t>(planes);
    const size_t plane = static_cast<size_t>(dims[0] * dims[1]);
    const size_t count = plane * a.channels;
    std::vector<unsigned char> raw(count * width);
    if (count > 0 && !in.read(reinterpret_cast<char*>(raw.data()), static_cast<std::streamsize>(raw.size()))) {
        bad(path, "truncated .npy data");
    }
    a.values.resize(count);
    for (size_t k = 0; k < count; ++k) {
        // Element k of the file; its (row, col, channel) depends on the order.
        const size_t pixel = fortran ? k % plane : k / a.channels;
        const size_t channel = fortran ? k / plane : k % a.channels;
        const size_t row = fortran ? pixel % a.rows : pixel / a.cols;
        const size_t col = fortran ? pixel / a.rows : pixel % a.cols;
        unsigned char* b = raw.data() + k * width;
        if (swap) std::reverse(b, b + width);
        try {
            a.values[row + col * a.rows + channel * plane] = load_value(b, a.type);
        } catch (const std::range_error& e) {
            bad(path, std::string("holds ") + e.what());
        }
    }
    return a;
}

void write_npy(const std::string& path, uint32_t rows, uint32_t cols,
               const std::vector<double>& values, sw::SampleType type, uint32_t channels) {
    static const char* const kDescr[] = {"|u1", "|i1", "<u2", "<i2", "<u4",
                                         "<i4", "<u8", "<i8", "<f4", "<f8"};
    std::string header = std::string("{'descr': '") + kDescr[static_cast<int>(type)] +
                         "', 'fortran_order': True, 'shape': (" + std::to_string(rows) + ", " +
                         std::to_string(cols) +
                         (channels > 1 ? ", " + std::to_string(channels) : std::string()) + "), }";
    // Magic (6) + version (2) + length (2) + header, padded with spaces to a
    // multiple of 64 bytes and closed by a newline.
    const size_t total = (10 + header.size() + 1 + 63) / 64 * 64;
    header.append(total - 10 - header.size() - 1, ' ');
    header.push_back('\n');
    const size_t width = type_width(type);
    std::vector<unsigned char> data(values.size() * width);
    for (size_t k = 0; k < values.size(); ++k) store_value(values[k], type, data.data() + k * width);
    std::ofstream out(path, std::ios::binary);
    if (!out) bad(path, std::string("cannot create: ") + std::strerror(errno));
    const unsigned char prefix[10] = {0x93, 'N', 'U', 'M', 'P', 'Y', 1, 0,
                                      static_cast<unsigned char>(header.size() & 0xff),
                                      static_cast<unsigned char>(header.size() >> 8)};
    out.write(reinterpret_cast<const char*>(prefix), 10);
    out.write(header.data(), static_cast<std::streamsize>(header.size()));
    out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
    out.close();
    if (!out) bad(path, std::string("write failed: ") + std::strerror(errno));
}

Array2 read_text(const std::string& path) {
    std::ifstream in(path);
    if (!in) bad(path, std::string("cannot open: ") + std::strerror(errno));
    std::vector<std::vector<double>> rows;
    std::string line;
    size_t line_number = 0;
    while (std::getline(in, line)) {
        ++line_number;
        const size_t first = line.find_first_not_of(" \t\r");
        if (first == std::string::npos || line[first] == '#') continue;
        std::vector<double> row;
        const char* p = line.c_str();
        while (true) {
            while (*p == ' ' || *p == '\t' || *p == '\r' || *p == ',') ++p;
            if (*p == '\0') break;
            char* end = nullptr;
            const double v = std::strtod(p, &end);
            if (end == p) {
                bad(path, "line " + std::to_string(line_number) + ": not a number: '" +
                              std::string(p).substr(0, 20) + "'");
            }
            row.push_back(v);
            p = end;
        }
        if (!rows.empty() && row.size() != rows[0].size()) {
            bad(path, "line " + std::to_string(line_number) + " has " + std::to_string(row.size()) +
                          " numbers, the first row " + std::to_string(rows[0].size()));
        }
        rows.push_back(std::move(row));
    }
    if (rows.empty()) bad(path, "no numbers in the file");
    Array2 a;
    a.rows = static_cast<uint32_t>(rows.size());
    a.cols = static_cast<uint32_t>(rows[0].size());
    a.values.resize(static_cast<size_t>(a.rows) * a.cols);
    for (uint32_t r = 0; r < a.rows; ++r) {
        for (uint32_t c = 0; c < a.cols; ++c) a.values[r + static_cast<size_t>(c) * a.rows] = rows[r][c];
    }
    return a;
}

Array2 read_array(const std::string& path) {
    return extension_of(path) == ".npy" ? read_npy(path) : read_text(path);
}

}  // namespace swio
