// Two-dimensional arrays in files: NumPy .npy (read: float32/float64 and
// uint8/uint16, C or Fortran order; write: float64, Fortran order) and plain
// text (whitespace-separated numbers, one row per line; blank lines and
// lines starting with '#' are skipped). Errors are std::runtime_error with
// the file named.
#ifndef SHAPEWIENER_TOOLS_ARRAY_IO_H
#define SHAPEWIENER_TOOLS_ARRAY_IO_H

#include <cstdint>
#include <string>
#include <vector>

namespace swio {

// How the values were stored.
enum class SampleKind { kUint8, kUint16, kFloat32, kFloat64 };

// rows x cols values, column-major, as stored (no scaling).
struct Array2 {
    uint32_t rows = 0;
    uint32_t cols = 0;
    std::vector<double> values;
    SampleKind kind = SampleKind::kFloat64;
};

// A one-dimensional .npy array of n values reads as 1 x n.
Array2 read_npy(const std::string& path);
void write_npy(const std::string& path, uint32_t rows, uint32_t cols,
               const std::vector<double>& values);
Array2 read_text(const std::string& path);

// .npy by extension, anything else as text.
Array2 read_array(const std::string& path);

// The file name's extension, lower case, with the dot ("" when none).
std::string extension_of(const std::string& path);

}  // namespace swio

#endif  // SHAPEWIENER_TOOLS_ARRAY_IO_H
