// Forward 32-point complex FFT in single precision.
#ifndef SHAPEWIENER_SPECTRUM_FFT32_H
#define SHAPEWIENER_SPECTRUM_FFT32_H

namespace sw {

// X[k] = sum_n x[n] exp(-2 pi i n k / 32), unnormalised. `in` and `out` hold
// 32 complex values interleaved (real part first). All 64 inputs are read
// before the first output is written, so `out` may alias `in` in any way.
// Every twiddle product is formed in double and rounded to float before it
// enters a float sum; the operation order is fixed and never regrouped.
void fft32(const float* in, float* out);

}  // namespace sw

#endif  // SHAPEWIENER_SPECTRUM_FFT32_H
