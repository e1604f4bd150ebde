#include "denoise/noise.h"

#include "cancel/cancel.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

#include "denoise/fail.h"

namespace swdenoise {
namespace {

const double kPi = 3.14159265358979323846;

bool finite(double v) { return std::isfinite(v); }

void check_sigma(double sigma) {
    if (!finite(sigma) || !(sigma > 0.0)) {
        char text[160];
        std::snprintf(text, sizeof text,
                      "the noise standard deviation must be a finite number above 0, got %g.", sigma);
        fail("shapewiener:noise:sigma", text);
    }
}

// cos and sin of 2 pi t / n for t = 0..n-1, from the exact index.
void unit_circle(uint32_t n, std::vector<double>* c, std::vector<double>* s) {
    c->resize(n);
    s->resize(n);
    for (uint32_t t = 0; t < n; ++t) {
        const double angle = 2.0 * kPi * static_cast<double>(t) / static_cast<double>(n);
        (*c)[t] = std::cos(angle);
        (*s)[t] = std::sin(angle);
    }
}

Autocovariance kernel_autocovariance(const sw::NoiseModel& noise, uint32_t rows, uint32_t cols) {
    const uint32_t kr = noise.kernel_rows;
    const uint32_t kc = noise.kernel_cols;
    if (kr == 0 || kc == 0 || noise.kernel.size() != static_cast<size_t>(kr) * kc) {
        fail("shapewiener:noise:kernelSize",
             "the noise kernel must have rows x cols taps, at least one.");
    }
    double energy = 0.0;
    for (double t : noise.kernel) {
        if (!finite(t)) fail("shapewiener:noise:notFinite", "the noise kernel has a NaN or Inf tap.");
        energy += t * t;
    }
    if (!(energy > 0.0) || !finite(energy)) {
        fail("shapewiener:noise:allZero", "the noise kernel is all zero (or its energy overflows).");
    }
    check_sigma(noise.sigma);
    const double scale = noise.sigma * noise.sigma / energy;
    const auto tap = [&](int32_t a, int32_t b) {
        return noise.kernel[static_cast<size_t>(a) + static_cast<size_t>(b) * kr];
    };
    Autocovariance r;
    const int reach_i = std::min<int>(kLagReach, static_cast<int>(std::min(kr, rows)) - 1);
    const int reach_j = std::min<int>(kLagReach, static_cast<int>(std::min(kc, cols)) - 1);
    for (int j = 0; j <= reach_j; ++j) {
        for (int i = -reach_i; i <= reach_i; ++i) {
            if (j == 0 && i < 0) continue;
            swcancel::cancel_point();
            double sum = 0.0;
            for (int32_t b = 0; b + j < static_cast<int32_t>(kc); ++b) {
                for (int32_t a = std::max(0, -i); a < static_cast<int32_t>(kr) && a + i < static_cast<int32_t>(kr); ++a) {
                    sum += tap(a, b) * tap(a + i, b + j);
                }
            }
            r.at(i, j) = sum * scale;
            r.at(-i, -j) = sum * scale;
        }
    }
    return r;
}

Autocovariance psd_autocovariance(const sw::NoiseModel& noise, uint32_t rows, uint32_t cols) {
    const size_t count = static_cast<size_t>(rows) * cols;
    if (noise.psd.size() != count) {
        fail("shapewiener:noise:psdSize",
             "the noise power spectrum must have the image's size, " + std::to_string(rows) +
                 " x " + std::to_string(cols) + " (" + std::to_string(count) + " values), got " +
                 std::to_string(noise.psd.size()) + " values.");
    }
    bool any = false;
    for (double p : noise.psd) {
        if (!finite(p)) fail("shapewiener:noise:notFinite", "the noise power spectrum has a NaN or Inf value.");
        if (p < 0.0) fail("shapewiener:noise:negative", "the noise power spectrum has a negative value.");
        any = any || p > 0.0;
    }
    if (!any) fail("shapewiener:noise:allZero", "the noise power spectrum is all zero.");

    const int reach_i = std::min<int>(kLagReach, static_cast<int>(rows) - 1);
    const int reach_j = std::min<int>(kLagReach, static_cast<int>(cols) - 1);
    std::vector<double> cu, su, cv, sv;
    unit_circle(rows, &cu, &su);
    unit_circle(cols, &cv, &sv);
    // Along u: C(i, v) = sum_u P(u, v) cos(2 pi u i / M), S likewise with sin.
    const size_t lags_i = static_cast<size_t>(reach_i) + 1;
    std::vector<double> c_part(lags_i * cols), s_part(lags_i * cols);
    for (uint32_t v = 0; v < cols; ++v) {
        swcancel::cancel_point();
        const double* column = noise.psd.data() + static_cast<size_t>(v) * rows;
        for (int i = 0; i <= reach_i; ++i) {
            double c = 0.0;
            double s = 0.0;
            uint64_t phase = 0;  // u * i mod M
            for (uint32_t u = 0; u < rows; ++u) {
                c += column[u] * cu[phase];
                s += column[u] * su[phase];
                phase += static_cast<uint64_t>(i);
                if (phase >= rows) phase -= rows;
            }
            c_part[i + lags_i * v] = c;
            s_part[i + lags_i * v] = s;
        }
    }
    // Along v: r(i, j) = 1/(MK) sum_v C(i, v) cos(2 pi v j / K) - S(i, v) sin(...).
    Autocovariance r;
    const double norm = 1.0 / static_cast<double>(count);
    for (int i = 0; i <= reach_i; ++i) {
        for (int j = -reach_j; j <= reach_j; ++j) {
            if (i == 0 && j < 0) continue;
            const uint64_t step = static_cast<uint64_t>(j < 0 ? j + static_cast<int>(cols) : j);
            double sum = 0.0;
            uint64_t phase = 0;
            for (uint32_t v = 0; v < cols; ++v) {
                swcancel::cancel_point();
                sum += c_part[i + lags_i * v] * cv[phase] - s_part[i + lags_i * v] * sv[phase];
                phase += step;
                if (phase >= cols) phase -= cols;
            }
            r.at(i, j) = sum * norm;
            r.at(-i, -j) = sum * norm;
        }
    }
    return r;
}

}  // namespace

Autocovariance Autocovariance::scaled(double factor) const {
    Autocovariance out = *this;
    for (double& v : out.values_) v *= factor;
    return out;
}

Autocovariance noise_autocovariance(const sw::NoiseModel& noise, uint32_t rows, uint32_t cols) {
    switch (noise.kind) {
        case sw::NoiseModel::Kind::kWhite: {
            check_sigma(noise.sigma);
            Autocovariance r;
            r.at(0, 0) = noise.sigma * noise.sigma;
            return r;
        }
        case sw::NoiseModel::Kind::kKernel:
            return kernel_autocovariance(noise, rows, cols);
        case sw::NoiseModel::Kind::kPsd:
            return psd_autocovariance(noise, rows, cols);
    }
    fail("shapewiener:noise:kind", "unknown kind of noise description.");
}

std::vector<double> block_psd(const Autocovariance& r, bool weighted) {
    const int n = static_cast<int>(kBlockSide);
    // Fold the weighted lags onto the grid: lag i lands on i mod 32.
    std::vector<double> folded(static_cast<size_t>(n) * n, 0.0);
    for (int j = -kLagReach; j <= kLagReach; ++j) {
        const double wj = weighted ? 1.0 - std::abs(j) / 32.0 : 1.0;
        for (int i = -kLagReach; i <= kLagReach; ++i) {
            const double wi = weighted ? 1.0 - std::abs(i) / 32.0 : 1.0;
            const size_t at = static_cast<size_t>((i + n) % n) + static_cast<size_t>((j + n) % n) * n;
            folded[at] += r.at(i, j) * (wi * wj);
        }
    }
    std::vector<double> c, s;
    unit_circle(kBlockSide, &c, &s);
    std::vector<double> psd(static_cast<size_t>(n) * n);
    for (int v = 0; v < n; ++v) {
        for (int u = 0; u < n; ++u) {
            double sum = 0.0;
            for (int j = 0; j < n; ++j) {
                for (int i = 0; i < n; ++i) sum += folded[i + j * n] * c[(u * i + v * j) % n];
            }
            psd[u + v * n] = sum > 0.0 ? sum : 0.0;
        }
    }
    return psd;
}

bool transpose_symmetric(const std::vector<double>& psd) {
    const int n = static_cast<int>(kBlockSide);
    double largest = 0.0;
    for (double p : psd) largest = std::max(largest, std::abs(p));
    for (int v = 0; v < n; ++v) {
        for (int u = 0; u < v; ++u) {
            if (std::abs(psd[u + v * n] - psd[v + u * n]) > 1e-12 * largest) return false;
        }
    }
    return true;
}

bool is_white(const Autocovariance& r) {
    for (int j = -kLagReach; j <= kLagReach; ++j) {
        for (int i = -kLagReach; i <= kLagReach; ++i) {
            if ((i != 0 || j != 0) && std::abs(r.at(i, j)) > 1e-12 * r.variance()) return false;
        }
    }
    return true;
}

}  // namespace swdenoise
