#include "support/test_args.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <tuple>

#include "mex/gateway.h"

namespace swtest {
namespace {

mxArray* doubles(const std::vector<double>& v, size_t rows, size_t cols) {
    mxArray* a = mxCreateDoubleMatrix(rows, cols, mxREAL);
    if (!v.empty()) std::memcpy(mxGetPr(a), v.data(), sizeof(double) * v.size());
    return a;
}

mxArray* scalar(double x) { return doubles({x}, 1, 1); }

}  // namespace

MexCall make_call(const CallPlan& s) {
    MexCall c;
    const uint32_t w = s.w();
    const size_t mk = static_cast<size_t>(s.m) * s.k;
    c.args.resize(16);
    c.args[0].reset(doubles(s.scale_set, 1, s.scale_set.size()));
    {
        const mwSize dims[3] = {s.m, s.k, 8};
        mxArray* a = mxCreateNumericArray(3, dims, mxUINT8_CLASS, mxREAL);
        if (mk > 0) std::memcpy(mxGetData(a), s.direction_scale_map.data(), mk * 8);
        c.args[1].reset(a);
    }
    {
        mxArray* bank = mxCreateCellMatrix(s.transforms.size(), 1);
        for (size_t i = 0; i < s.transforms.size(); ++i) {
            mxSetCell(bank, i, doubles(s.transforms[i], i + 1, i + 1));
        }
        c.args[2].reset(bank);
    }
    {
        const mwSize dims[3] = {s.h, s.h, 8};
        mxArray* bank = mxCreateCellArray(3, dims);
        for (size_t i = 0; i < s.sector_masks.size(); ++i) {
            mxArray* mask = mxCreateNumericMatrix(w, w, mxUINT8_CLASS, mxREAL);
            std::memcpy(mxGetData(mask), s.sector_masks[i].data(), s.sector_masks[i].size());
            mxSetCell(bank, i, mask);
        }
        c.args[3].reset(bank);
    }
    c.args[4].reset(mxCreateDoubleMatrix(0, 0, mxREAL));
    c.args[5].reset(mxCreateDoubleMatrix(0, 0, mxREAL));
    c.args[6].reset(scalar(s.n));
    c.args[7].reset(doubles(s.psd, s.n, s.n));
    c.args[8].reset(doubles(s.noisy, s.m, s.k));
    {
        mxArray* list = mxCreateNumericMatrix(mk, 2, mxINT32_CLASS, mxREAL);
        auto* p = static_cast<int32_t*>(mxGetData(list));
        for (size_t i = 0; i < mk; ++i) {
            p[i] = s.pixels[i];
            p[mk + i] = s.keys[i];
        }
        c.args[9].reset(list);
    }
    c.args[10].reset(scalar(s.noise_level_factor));
    c.args[11].reset(mxCreateDoubleMatrix(0, 0, mxREAL));
    c.args[12].reset(scalar(s.h_argument != 0.0 ? s.h_argument : s.h));
    c.args[13].reset(doubles(s.pilot, s.m, s.k));
    c.args[14].reset(scalar(s.wiener_variance_factor));
    c.args[15].reset(scalar(s.coverage_threshold));
    for (auto& a : c.args) c.prhs.push_back(a.get());
    return c;
}

bool same_bits(const std::vector<double>& a, const std::vector<double>& b) {
    return a.size() == b.size() &&
           (a.empty() || std::memcmp(a.data(), b.data(), sizeof(double) * a.size()) == 0);
}

void MexCall::run() { run_with(mexFunction); }

void MexCall::run_with(void (*entry)(int, mxArray**, int, const mxArray**)) {
    mxArray* plhs[1] = {nullptr};
    out.reset();
    try {
        entry(1, plhs, static_cast<int>(prhs.size()), prhs.data());
    } catch (...) {
        out.reset(plhs[0]);
        throw;
    }
    out.reset(plhs[0]);
}

void MexCall::run_general(uint32_t h) {
    mxArray* plhs[1] = {nullptr};
    out.reset();
    sw::mex_run_general(plhs, prhs.data(), h);
    out.reset(plhs[0]);
}

std::vector<double> MexCall::output() const {
    const size_t count = mxGetNumberOfElements(out.get());
    const double* p = mxGetPr(out.get());
    return std::vector<double>(p, p + count);
}

std::vector<double> MexCall::noisy() const {
    if (!mxIsDouble(args[8].get())) return {};
    const size_t count = mxGetNumberOfElements(args[8].get());
    const double* p = mxGetPr(args[8].get());
    return std::vector<double>(p, p + count);
}

std::vector<double> MexCall::pilot() const {
    if (!mxIsDouble(args[13].get())) return {};
    const size_t count = mxGetNumberOfElements(args[13].get());
    const double* p = mxGetPr(args[13].get());
    return std::vector<double>(p, p + count);
}

std::vector<double> dct_matrix(uint32_t len) {
    std::vector<double> t(static_cast<size_t>(len) * len);
    const double pi = 3.14159265358979323846;
    for (uint32_t f = 0; f < len; ++f) {
        const double scale = f == 0 ? std::sqrt(1.0 / len) : std::sqrt(2.0 / len);
        for (uint32_t s = 0; s < len; ++s) {
            t[f + s * len] = scale * std::cos(pi * (2.0 * s + 1.0) * f / (2.0 * len));
        }
    }
    return t;
}

std::vector<double> random_orthogonal(uint32_t len, std::mt19937& rng) {
    std::normal_distribution<double> gauss(0.0, 1.0);
    std::vector<double> q(static_cast<size_t>(len) * len);
    // Rows are orthonormalised in turn: row f at f + s*len.
    for (uint32_t f = 0; f < len; ++f) {
        for (;;) {
            for (uint32_t s = 0; s < len; ++s) q[f + s * len] = gauss(rng);
            for (uint32_t g = 0; g < f; ++g) {
                double dot = 0.0;
                for (uint32_t s = 0; s < len; ++s) dot += q[f + s * len] * q[g + s * len];
                for (uint32_t s = 0; s < len; ++s) q[f + s * len] -= dot * q[g + s * len];
            }
            double norm = 0.0;
            for (uint32_t s = 0; s < len; ++s) norm += q[f + s * len] * q[f + s * len];
            norm = std::sqrt(norm);
            if (norm < 1e-6) continue;
            for (uint32_t s = 0; s < len; ++s) q[f + s * len] /= norm;
            break;
        }
    }
    return q;
}

std::vector<std::vector<double>> dct_bank(uint32_t count) {
    std::vector<std::vector<double>> bank;
    for (uint32_t len = 1; len <= count; ++len) bank.push_back(dct_matrix(len));
    return bank;
}

std::vector<std::vector<uint8_t>> square_masks(uint32_t h) {
    const uint32_t w = 2 * h - 1;
    std::vector<std::vector<uint8_t>> masks(8 * h * h, std::vector<uint8_t>(w * w, 0));
    for (uint32_t d = 0; d < 8; ++d) {
        for (uint32_t b = 1; b <= h; ++b) {
            for (uint32_t a = 1; a <= h; ++a) {
                const int radius = static_cast<int>(std::min(a, b)) - 1;
                auto& mask = masks[(a - 1) + (b - 1) * h + d * h * h];
                for (uint32_t j = 0; j < w; ++j) {
                    for (uint32_t i = 0; i < w; ++i) {
                        const int di = std::abs(static_cast<int>(i) - static_cast<int>(h - 1));
                        const int dj = std::abs(static_cast<int>(j) - static_cast<int>(h - 1));
                        if (std::max(di, dj) <= radius) mask[i + j * w] = 1;
                    }
                }
            }
        }
    }
    return masks;
}

std::vector<double> smooth_image(uint32_t m, uint32_t k) {
    std::vector<double> img(static_cast<size_t>(m) * k);
    for (uint32_t x = 0; x < k; ++x) {
        for (uint32_t y = 0; y < m; ++y) {
            img[y + static_cast<size_t>(x) * m] =
                0.5 + 0.25 * std::sin(0.21 * y + 0.1) * std::cos(0.17 * x) + 0.15 * (x > k / 2 ? 1 : -1);
        }
    }
    return img;
}

CallPlan random_plan(uint32_t seed, const RandomOptions& o) {
    std::mt19937 rng(seed);
    CallPlan s;
    s.m = o.m;
    s.k = o.k;
    s.h = o.h;
    s.n = o.n;
    const uint32_t w = s.w();
    const uint32_t mk = s.m * s.k;
    std::uniform_real_distribution<double> unit(0.0, 1.0);

    // Scales: L entries, each rounding into 1..h (some written as x.4 to
    // exercise rounding).
    const uint32_t l = 1 + rng() % 5;
    for (uint32_t i = 0; i < l; ++i) {
        s.scale_set.push_back(1 + rng() % s.h + (rng() % 2 ? 0.4 : 0.0));
    }
    s.direction_scale_map.resize(static_cast<size_t>(mk) * 8);
    for (auto& v : s.direction_scale_map) v = static_cast<uint8_t>(1 + rng() % l);

    if (o.random_matrices) {
        for (uint32_t len = 1; len <= w; ++len) s.transforms.push_back(random_orthogonal(len, rng));
    } else {
        s.transforms = dct_bank(w);
    }
    if (o.random_masks) {
        s.sector_masks.assign(8 * s.h * s.h, std::vector<uint8_t>(w * w, 0));
        for (auto& mask : s.sector_masks) {
            for (auto& byte : mask) byte = (rng() % 3 == 0) ? static_cast<uint8_t>(1 + rng() % 3) : 0;
        }
    } else {
        s.sector_masks = square_masks(s.h);
    }

    s.psd.resize(static_cast<size_t>(s.n) * s.n);
    for (auto& p : s.psd) p = 0.001 + 0.01 * unit(rng);
    s.noisy.resize(mk);
    s.pilot.resize(mk);
    for (uint32_t i = 0; i < mk; ++i) {
        s.noisy[i] = unit(rng);
        s.pilot[i] = 0.5 * s.noisy[i] + 0.5 * unit(rng);
    }
    // A few exact zeros, which the dither and the ramp must cope with.
    if (mk > 3) {
        s.noisy[rng() % mk] = 0.0;
        s.noisy[mk - 1] = 0.0;
    }

    s.pixels.resize(mk);
    s.keys.resize(mk);
    for (uint32_t i = 0; i < mk; ++i) s.pixels[i] = static_cast<int32_t>(i + 1);
    std::shuffle(s.pixels.begin(), s.pixels.end(), rng);
    if (o.repeat_pixels) {
        for (uint32_t i = 1; i < mk; i += 3) s.pixels[i] = s.pixels[i - 1];
    }
    // Every entry has its own key, except that an entry repeating the
    // previous pixel keeps the previous key (same shape).
    for (uint32_t i = 0; i < mk; ++i) {
        s.keys[i] = (i > 0 && s.pixels[i] == s.pixels[i - 1]) ? s.keys[i - 1]
                                                               : static_cast<int32_t>(i + 1);
    }
    s.coverage_threshold = o.coverage_threshold;
    return s;
}

CallPlan square_plan(uint32_t m, uint32_t k, uint32_t h, uint32_t n) {
    CallPlan s;
    s.m = m;
    s.k = k;
    s.h = h;
    s.n = n;
    const uint32_t mk = m * k;
    s.scale_set = {static_cast<double>(h)};
    s.direction_scale_map.assign(static_cast<size_t>(mk) * 8, 1);
    s.transforms = dct_bank(s.w());
    s.sector_masks = square_masks(h);
    s.psd.assign(static_cast<size_t>(n) * n, 0.01);
    s.noisy = smooth_image(m, k);
    s.pilot = s.noisy;

    // Group pixels by how the box is clipped at each border.
    std::map<std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>, std::vector<int32_t>> groups;
    for (uint32_t x = 0; x < k; ++x) {
        for (uint32_t y = 0; y < m; ++y) {
            const uint32_t reach = h - 1;
            auto key = std::make_tuple(std::min(y, reach), std::min(m - 1 - y, reach),
                                       std::min(x, reach), std::min(k - 1 - x, reach));
            groups[key].push_back(static_cast<int32_t>(y + x * m + 1));
        }
    }
    int32_t key = 0;
    for (const auto& g : groups) {
        ++key;
        for (int32_t p : g.second) {
            s.pixels.push_back(p);
            s.keys.push_back(key);
        }
    }
    return s;
}

}  // namespace swtest
