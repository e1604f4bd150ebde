// Two-dimensional half spectrum of the N x N real SpatialBlock.
#ifndef SHAPEWIENER_SPECTRUM_BLOCK_SPECTRUM_H
#define SHAPEWIENER_SPECTRUM_BLOCK_SPECTRUM_H

#include <cstdint>

namespace sw {

// Real forward 32-point DFT of x[0], x[stride], ..., x[31*stride]:
// y[k] = sum_a x[a] exp(-2 pi i a k / 32) for k = 0..16, as 17 interleaved
// complex floats. The imaginary parts of y[0] and y[16] are exactly 0.
void real_dft32(const float* x, float* y);

// Fast path, N = 32: real transforms down the 32 columns into row_spectrum
// (frequency k of column b at complex position 32k + b), then fft32 along
// each of the 17 frequency rows into block_spectrum (element (u, v) at
// complex position 32u + v).
void block_spectrum_fast32(const float* spatial_block, float* row_spectrum,
                           float* block_spectrum);

// Table path, any N: direct DFT with the twiddle table (element (j, k) at
// complex position jN + k, approximating exp(+2 pi i jk/N)). Writes the
// complex conjugate of the forward transform; the squared magnitudes agree.
void block_spectrum_table(const float* spatial_block, float* row_spectrum,
                          float* block_spectrum, const float* twiddle, uint32_t n);

// Chooses the path by N: fast when N == 32, table otherwise.
void block_spectrum(const float* spatial_block, float* row_spectrum, float* block_spectrum,
                    const float* twiddle, uint32_t n);

}  // namespace sw

#endif  // SHAPEWIENER_SPECTRUM_BLOCK_SPECTRUM_H
