#include "array_io.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

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

Array2 read_npy(const std::string& path) {
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
    size_t width = 0;
    if (descr == "<f8" || descr == "=f8") {
        a.kind = SampleKind::kFloat64, width = 8;
    } else if (descr == "<f4" || descr == "=f4") {
        a.kind = SampleKind::kFloat32, width = 4;
    } else if (descr == "|u1" || descr == "<u1") {
        a.kind = SampleKind::kUint8, width = 1;
    } else if (descr == "<u2" || descr == "=u2") {
        a.kind = SampleKind::kUint16, width = 2;
    } else {
        bad(path, "unsupported .npy data type '" + descr +
                      "' (float32, float64, uint8 or uint16, little-endian)");
    }
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
    if (dims.size() != 2) {
        bad(path, "has " + std::to_string(dims.size()) +
                      " dimensions; a grey-scale image or array needs 2 (colour is not supported)");
    }
    if (dims[0] > 0xffffffffu || dims[1] > 0xffffffffu || dims[0] * dims[1] > (1ull << 34)) {
        bad(path, "array too large");
    }
    a.rows = static_cast<uint32_t>(dims[0]);
    a.cols = static_cast<uint32_t>(dims[1]);
    const size_t count = static_cast<size_t>(dims[0] * dims[1]);
    std::vector<unsigned char> raw(count * width);
    if (count > 0 && !in.read(reinterpret_cast<char*>(raw.data()), static_cast<std::streamsize>(raw.size()))) {
        bad(path, "truncated .npy data");
    }
    a.values.resize(count);
    for (size_t k = 0; k < count; ++k) {
        // Element k of the file; its (row, col) depends on the order.
        const size_t row = fortran ? k % a.rows : k / a.cols;
        const size_t col = fortran ? k / a.rows : k % a.cols;
        const unsigned char* b = raw.data() + k * width;
        double v = 0.0;
        switch (a.kind) {
            case SampleKind::kFloat64: { double d; std::memcpy(&d, b, 8); v = d; break; }
            case SampleKind::kFloat32: { float f; std::memcpy(&f, b, 4); v = f; break; }
            case SampleKind::kUint8: v = b[0]; break;
            case SampleKind::kUint16: v = b[0] | (b[1] << 8); break;
        }
        a.values[row + col * a.rows] = v;
    }
    return a;
}

void write_npy(const std::string& path, uint32_t rows, uint32_t cols,
               const std::vector<double>& values) {
    std::string header = "{'descr': '<f8', 'fortran_order': True, 'shape': (" +
                         std::to_string(rows) + ", " + std::to_string(cols) + "), }";
    // Magic (6) + version (2) + length (2) + header, padded with spaces to a
    // multiple of 64 bytes and closed by a newline.
    const size_t total = (10 + header.size() + 1 + 63) / 64 * 64;
    header.append(total - 10 - header.size() - 1, ' ');
    header.push_back('\n');
    std::ofstream out(path, std::ios::binary);
    if (!out) bad(path, std::string("cannot create: ") + std::strerror(errno));
    const unsigned char prefix[10] = {0x93, 'N', 'U', 'M', 'P', 'Y', 1, 0,
                                      static_cast<unsigned char>(header.size() & 0xff),
                                      static_cast<unsigned char>(header.size() >> 8)};
    out.write(reinterpret_cast<const char*>(prefix), 10);
    out.write(header.data(), static_cast<std::streamsize>(header.size()));
    out.write(reinterpret_cast<const char*>(values.data()),
              static_cast<std::streamsize>(values.size() * sizeof(double)));
    out.close();
    if (!out) bad(path, "write failed");
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
