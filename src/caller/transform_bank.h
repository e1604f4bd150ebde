// The bank of one-dimensional transforms: one orthonormal DCT-II matrix for
// every line length the shapes can have.
#ifndef SHAPEWIENER_CALLER_TRANSFORM_BANK_H
#define SHAPEWIENER_CALLER_TRANSFORM_BANK_H

#include <cstdint>
#include <vector>

namespace swcaller {

// Cell len - 1 holds the len x len matrix of length len.
using TransformBank = std::vector<std::vector<double>>;

// The orthonormal DCT-II of length `length`, column-major: entry (f, s) at
// f + s * length, so row f is the f-th basis vector (f = 0 is the constant).
std::vector<double> dct_matrix(uint32_t length);

// DCT matrices for every length 1 .. max_length.
TransformBank dct_bank(uint32_t max_length);

}  // namespace swcaller

#endif  // SHAPEWIENER_CALLER_TRANSFORM_BANK_H
