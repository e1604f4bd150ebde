// The discrete Fourier transform of whole images, of any size, for the
// denoiser's frequency-domain stages. Double precision throughout.
//
// One axis at a time: a power-of-two length is transformed in place by
// iterative radix-2 butterflies; any other length n as a circular
// convolution with the chirp exp(-pi i t^2 / n), taken by power-of-two
// transforms of length m >= 2n - 1. Every twiddle comes from std::cos and
// std::sin of an angle built from an exact integer index (k for 2 pi k / m,
// t^2 mod 2n for the chirp), so no error accumulates along a recurrence:
// round trips and comparisons with the direct sum agree to about 1e-13 of
// the largest value.
#ifndef SHAPEWIENER_DENOISE_FFT_H
#define SHAPEWIENER_DENOISE_FFT_H

#include <complex>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace swdenoise {

// A transform of one length, planned once (twiddles, chirp and its
// spectrum) and then applied to any number of vectors. Holds its own
// scratch: one Fft1d per thread.
class Fft1d {
public:
    // n = 0 and n = 1 leave the data unchanged.
    explicit Fft1d(uint32_t n);
    size_t size() const { return n_; }

    // In place, n values: X(k) = sum_t x(t) exp(-2 pi i k t / n), unnormalised.
    void forward(std::complex<double>* data);
    // In place, n values: x(t) = sum_k X(k) exp(+2 pi i k t / n), without
    // the factor 1/n.
    void inverse(std::complex<double>* data);

private:
    template <bool kInverse>
    void transform_power_of_two(std::complex<double>* data) const;  // m_ values
    void transform_chirp(std::complex<double>* data);                // forward, n_ values

    size_t n_;
    size_t m_;  // the power-of-two length transformed: n, or >= 2n - 1
    std::vector<std::complex<double>> twiddle_;   // exp(-2 pi i k / m), k < m/2
    std::vector<std::complex<double>> chirp_;     // exp(-pi i t^2 / n), t < n
    std::vector<std::complex<double>> kernel_;    // transform of conj(chirp) over m, times 1/m
    std::vector<std::complex<double>> scratch_;   // m values
};

// Forward 2-D DFT of a rows x cols image, column-major (element (y, x) at
// y + rows x), unnormalised:
//     X(u, v) = sum_{y,x} x(y, x) exp(-2 pi i (u y / rows + v x / cols)),
// element (u, v) at u + rows v. rows x cols may be 0 (empty result) up to
// 2^31 - 1; beyond, throws sw::DenoiseError "shapewiener:fft:size".
std::vector<std::complex<double>> fft2(const double* image, uint32_t rows, uint32_t cols);

// The inverse, with the factor 1/(rows cols), returning the real part:
//     x(y, x) = Re 1/(rows cols) sum_{u,v} X(u, v) exp(+2 pi i (u y / rows + v x / cols)).
// `spectrum` holds rows x cols values in fft2's layout; any other count
// throws sw::DenoiseError "shapewiener:fft:size".
std::vector<double> ifft2_real(const std::vector<std::complex<double>>& spectrum, uint32_t rows,
                               uint32_t cols);

}  // namespace swdenoise

#endif  // SHAPEWIENER_DENOISE_FFT_H
