// Two-dimensional arrays in files: NumPy .npy (every integer type of 8 to 64
// bits, signed or not, float32 and float64; either byte order; C or Fortran
// order) and plain text (whitespace-separated numbers, one row per line;
// blank lines and lines starting with '#' are skipped). Values are read as
// stored (see shapewiener/units.h). Errors are std::runtime_error with the
// file named.
#ifndef SHAPEWIENER_IO_ARRAY_IO_H
#define SHAPEWIENER_IO_ARRAY_IO_H

#include <cstdint>
#include <string>
#include <vector>

#include "shapewiener/units.h"

namespace swio {

// rows x cols values, column-major, as stored, and how they were stored.
struct Array2 {
    uint32_t rows = 0;
    uint32_t cols = 0;
    std::vector<double> values;
    sw::SampleType type = sw::SampleType::kFloat64;
    // A (rows, cols, channels) array read with `channels` allowed: the
    // channels are planes one after another, each rows x cols column-major.
    uint32_t channels = 1;
};

// A one-dimensional .npy array of n values reads as 1 x n. The size in the
// header is checked against the file's length and against
// sw::size_refusal(rows, cols, bytes_per_pixel) before anything is
// allocated (0: what reading itself needs). 64-bit integers beyond 2^53
// (which a double cannot hold exactly) are refused; bool, complex and
// object arrays too.
// With `channels`, a three-dimensional array (rows, cols, channels) is read
// too (bytes_per_pixel then counts every channel of a pixel).
Array2 read_npy(const std::string& path, uint64_t bytes_per_pixel = 0, bool channels = false);
// Writes the values converted to `type` (sw::to_type), in Fortran order;
// `channels` > 1: an array (rows, cols, channels) of planes.
void write_npy(const std::string& path, uint32_t rows, uint32_t cols,
               const std::vector<double>& values,
               sw::SampleType type = sw::SampleType::kFloat64, uint32_t channels = 1);
Array2 read_text(const std::string& path);

// .npy by extension, anything else as text.
Array2 read_array(const std::string& path);

// The file name's extension, lower case, with the dot ("" when none).
std::string extension_of(const std::string& path);

// The refusal of `path`'s size (sw::size_refusal) as an exception.
void check_size(const std::string& path, uint64_t rows, uint64_t cols, uint64_t bytes_per_pixel);

// Bytes per value of a type.
size_t type_width(sw::SampleType type);
// A value of `type` at `bytes`, in the machine's byte order (little endian).
// Throws std::range_error (sw::inexact_integer) for a 64-bit integer that a
// double cannot hold exactly.
double load_value(const unsigned char* bytes, sw::SampleType type);
// Stores to_type(value, type) at `bytes`.
void store_value(double value, sw::SampleType type, unsigned char* bytes);

}  // namespace swio

#endif  // SHAPEWIENER_IO_ARRAY_IO_H
