#include "denoise/fft.h"

#include "cancel/cancel.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

#include "denoise/fail.h"

namespace swdenoise {
namespace {

using Complex = std::complex<double>;

const double kPi = 3.14159265358979323846;

// out[k] = a[k] b[k] for k < n, written out on the doubles: std::complex's
// operator* checks for infinities and NaNs through a library call, and GCC
// moves complex temporaries through the stack in halves, reloading them
// whole, which stalls every product.
void multiply(Complex* out, const Complex* a, const Complex* b, size_t n) {
    double* o = reinterpret_cast<double*>(out);
    const double* x = reinterpret_cast<const double*>(a);
    const double* y = reinterpret_cast<const double*>(b);
    for (size_t k = 0; k < 2 * n; k += 2) {
        const double re = x[k] * y[k] - x[k + 1] * y[k + 1];
        const double im = x[k] * y[k + 1] + x[k + 1] * y[k];
        o[k] = re;
        o[k + 1] = im;
    }
}

bool power_of_two(size_t n) { return (n & (n - 1)) == 0; }

void conjugate(Complex* data, size_t n) {
    for (size_t t = 0; t < n; ++t) data[t] = std::conj(data[t]);
}

// rows x cols as a count, checked against the largest image.
size_t pixels(uint32_t rows, uint32_t cols) {
    const uint64_t count = static_cast<uint64_t>(rows) * cols;
    if (count > 0x7fffffffu) {
        char text[160];
        std::snprintf(text, sizeof text,
                      "a %u x %u image has more than 2^31 - 1 pixels.", rows, cols);
        fail("shapewiener:fft:size", text);
    }
    return static_cast<size_t>(count);
}

// Transforms the columns (contiguous), then the rows (stride `rows`), the
// rows gathered kBatch at a time so that each pass over the image reads
// whole cache lines.
void transform_2d(Complex* image, uint32_t rows, uint32_t cols, bool inverse) {
    if (rows > 1) {
        Fft1d column(rows);
        for (size_t x = 0; x < cols; ++x) {
            swcancel::cancel_point();
            Complex* line = image + x * rows;
            inverse ? column.inverse(line) : column.forward(line);
        }
    }
    if (cols > 1) {
        constexpr size_t kBatch = 16;
        Fft1d row(cols);
        std::vector<Complex> lines(kBatch * cols);
        for (size_t y0 = 0; y0 < rows; y0 += kBatch) {
            swcancel::cancel_point();
            const size_t count = std::min<size_t>(kBatch, rows - y0);
            for (size_t x = 0; x < cols; ++x) {
                for (size_t r = 0; r < count; ++r) lines[r * cols + x] = image[y0 + r + x * rows];
            }
            for (size_t r = 0; r < count; ++r) {
                Complex* line = lines.data() + r * cols;
                inverse ? row.inverse(line) : row.forward(line);
            }
            for (size_t x = 0; x < cols; ++x) {
                for (size_t r = 0; r < count; ++r) image[y0 + r + x * rows] = lines[r * cols + x];
            }
        }
    }
}

}  // namespace

Fft1d::Fft1d(uint32_t n) : n_(n), m_(n) {
    if (!power_of_two(n_)) {
        m_ = 1;
        while (m_ < 2 * n_ - 1) m_ <<= 1;
    }
    twiddle_.resize(m_ / 2);
    for (size_t k = 0; k < m_ / 2; ++k) {
        const double angle = 2.0 * kPi * static_cast<double>(k) / static_cast<double>(m_);
        twiddle_[k] = {std::cos(angle), -std::sin(angle)};
    }
    if (m_ == n_) return;
    // exp(-pi i t^2 / n) = exp(-2 pi i (t^2 mod 2n) / 2n); t^2 < 2^64.
    chirp_.resize(n_);
    const uint64_t period = 2 * static_cast<uint64_t>(n_);
    for (uint64_t t = 0; t < n_; ++t) {
        const uint64_t r = t * t % period;
        const double angle = 2.0 * kPi * static_cast<double>(r) / static_cast<double>(period);
        chirp_[t] = {std::cos(angle), -std::sin(angle)};
    }
    // The conjugate chirp at lags -(n-1)..n-1, wrapped onto m points, and
    // its transform with the 1/m of the inverse transform folded in.
    kernel_.assign(m_, Complex(0.0, 0.0));
    kernel_[0] = std::conj(chirp_[0]);
    for (size_t t = 1; t < n_; ++t) kernel_[t] = kernel_[m_ - t] = std::conj(chirp_[t]);
    transform_power_of_two<false>(kernel_.data());
    const double scale = 1.0 / static_cast<double>(m_);  // exact: m is a power of two
    for (Complex& k : kernel_) k *= scale;
    scratch_.resize(m_);
}

void Fft1d::forward(Complex* data) {
    if (m_ == n_) {
        transform_power_of_two<false>(data);
    } else {
        transform_chirp(data);
    }
}

void Fft1d::inverse(Complex* data) {
    if (m_ == n_) {
        transform_power_of_two<true>(data);
    } else {
        // The inverse transform is the conjugate of the forward transform
        // of the conjugate.
        conjugate(data, n_);
        transform_chirp(data);
        conjugate(data, n_);
    }
}

template <bool kInverse>
void Fft1d::transform_power_of_two(Complex* a) const {
    const size_t m = m_;
    for (size_t i = 1, j = 0; i < m; ++i) {  // bit-reversed order
        size_t bit = m >> 1;
        for (; j & bit; bit >>= 1) j ^= bit;
        j ^= bit;
        if (i < j) std::swap(a[i], a[j]);
    }
    // On the doubles, as in multiply().
    double* d = reinterpret_cast<double*>(a);
    const double* w = reinterpret_cast<const double*>(twiddle_.data());
    for (size_t half = 1; half < m; half <<= 1) {
        const size_t step = m / (2 * half);
        for (size_t i = 0; i < m; i += 2 * half) {
            for (size_t j = 0; j < half; ++j) {
                const double wr = w[2 * j * step];
                const double wi = kInverse ? -w[2 * j * step + 1] : w[2 * j * step + 1];
                double* p = d + 2 * (i + j);
                double* q = p + 2 * half;
                const double vr = q[0] * wr - q[1] * wi;
                const double vi = q[0] * wi + q[1] * wr;
                const double ur = p[0];
                const double ui = p[1];
                p[0] = ur + vr;
                p[1] = ui + vi;
                q[0] = ur - vr;
                q[1] = ui - vi;
            }
        }
    }
}

void Fft1d::transform_chirp(Complex* data) {
    Complex* w = scratch_.data();
    multiply(w, data, chirp_.data(), n_);
    std::fill(w + n_, w + m_, Complex(0.0, 0.0));
    transform_power_of_two<false>(w);
    multiply(w, w, kernel_.data(), m_);
    transform_power_of_two<true>(w);
    multiply(data, w, chirp_.data(), n_);
}

std::vector<Complex> fft2(const double* image, uint32_t rows, uint32_t cols) {
    const size_t count = pixels(rows, cols);
    std::vector<Complex> spectrum = swcancel::make_vector<Complex>(
        count, std::max<size_t>(rows, 1), [&](size_t p) { return Complex(image[p], 0.0); });
    transform_2d(spectrum.data(), rows, cols, false);
    return spectrum;
}

std::vector<double> ifft2_real(const std::vector<Complex>& spectrum, uint32_t rows, uint32_t cols) {
    const size_t count = pixels(rows, cols);
    if (spectrum.size() != count) {
        char text[160];
        std::snprintf(text, sizeof text, "a %u x %u spectrum needs %zu values, got %zu.", rows,
                      cols, count, spectrum.size());
        fail("shapewiener:fft:size", text);
    }
    const size_t step = std::max<size_t>(rows, 1);
    std::vector<Complex> work =
        swcancel::make_vector<Complex>(count, step, [&](size_t p) { return spectrum[p]; });
    transform_2d(work.data(), rows, cols, true);
    const double total = static_cast<double>(count);
    std::vector<double> image =
        swcancel::make_vector<double>(count, step, [&](size_t p) { return work[p].real() / total; });
    swcancel::release(&work);
    return image;
}

}  // namespace swdenoise
