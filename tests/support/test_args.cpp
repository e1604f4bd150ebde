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

std::vector<double> values_of(const mxArray* a) {
    if (!mxIsDouble(a) || mxIsSparse(a)) return {};
    const double* p = mxGetPr(a);
    return std::vector<double>(p, p + mxGetNumberOfElements(a));
}

}  // namespace

MexCall make_call(const CallPlan& s) {
    MexCall c;
    const uint32_t w = s.w();
    const size_t mk = s.pixel_count();
    c.args.resize(16);
    c.args[0].reset(doubles(s.scale_set, 1, s.scale_set.size()));
    const mwSize map_dims[3] = {s.m, s.k, 8};
    c.args[1].reset(mxCreateNumericArray(3, map_dims, mxUINT8_CLASS, mxREAL));
    if (mk > 0) std::memcpy(mxGetData(c.args[1].get()), s.direction_scale_map.data(), mk * 8);
    c.args[2].reset(mxCreateCellMatrix(s.transforms.size(), 1));
    for (size_t i = 0; i < s.transforms.size(); ++i) {
        mxSetCell(c.args[2].get(), i, doubles(s.transforms[i], i + 1, i + 1));
    }
    const mwSize bank_dims[3] = {s.h, s.h, 8};
    c.args[3].reset(mxCreateCellArray(3, bank_dims));
    for (size_t i = 0; i < s.sector_masks.size(); ++i) {
        mxArray* mask = mxCreateNumericMatrix(w, w, mxUINT8_CLASS, mxREAL);
        std::memcpy(mxGetData(mask), s.sector_masks[i].data(), s.sector_masks[i].size());
        mxSetCell(c.args[3].get(), i, mask);
    }
    for (int unused : {4, 5, 11}) c.args[unused].reset(mxCreateDoubleMatrix(0, 0, mxREAL));
    c.args[6].reset(doubles({static_cast<double>(s.n)}, 1, 1));
    c.args[7].reset(doubles(s.psd, s.n, s.n));
    c.args[8].reset(doubles(s.noisy, s.m, s.k));
    c.args[9].reset(mxCreateNumericMatrix(mk, 2, mxINT32_CLASS, mxREAL));
    auto* list = static_cast<int32_t*>(mxGetData(c.args[9].get()));
    for (size_t i = 0; i < mk; ++i) {
        list[i] = s.pixels[i];
        list[mk + i] = s.keys[i];
    }
    c.args[10].reset(doubles({s.noise_level_factor}, 1, 1));
    c.args[12].reset(doubles({s.h_argument != 0.0 ? s.h_argument : s.h}, 1, 1));
    c.args[13].reset(doubles(s.pilot, s.m, s.k));
    c.args[14].reset(doubles({s.wiener_variance_factor}, 1, 1));
    c.args[15].reset(doubles({s.coverage_threshold}, 1, 1));
    for (auto& a : c.args) c.prhs.push_back(a.get());
    return c;
}

PlainCall::PlainCall(const CallPlan& p) : plan(p), list(p.pixels) {
    list.insert(list.end(), plan.keys.begin(), plan.keys.end());
    const uint32_t w = plan.w();
    for (const auto& t : plan.transforms) {
        const uint64_t len = transforms.size() + 1;
        transforms.push_back({t.data(), sw::Dims::matrix(len, len)});
    }
    for (const auto& m : plan.sector_masks) masks.push_back({m.data(), sw::Dims::matrix(w, w)});
    sw::FilterCall& c = call;
    c.scale_set = {plan.scale_set.data(), sw::Dims::matrix(1, plan.scale_set.size())};
    c.direction_scale_map = {plan.direction_scale_map.data(), sw::Dims::array3(plan.m, plan.k, 8)};
    c.transforms = transforms.data();
    c.transform_count = transforms.size();
    c.sector_masks = masks.data();
    c.sector_mask_count = masks.size();
    c.dft_size = plan.n;
    c.noise_psd = {plan.psd.data(), sw::Dims::matrix(plan.n, plan.n)};
    c.image_dims = sw::Dims::matrix(plan.m, plan.k);
    c.pilot_dims = c.image_dims;
    c.processing_list = {list.data(), sw::Dims::matrix(uint64_t{plan.m} * plan.k, 2)};
    c.noise_level_factor = plan.noise_level_factor;
    c.max_scale = plan.h_argument != 0.0 ? plan.h_argument : plan.h;
    c.wiener_variance_factor = plan.wiener_variance_factor;
    c.coverage_threshold = plan.coverage_threshold;
    fresh();
}

const sw::FilterCall& PlainCall::fresh() {
    noisy = plan.noisy;
    pilot = plan.pilot;
    call.noisy_image = noisy.data();
    call.pilot_image = pilot.data();
    return call;
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

mxArray* MexCall::own(mxArray* a) {
    args.emplace_back(a);
    return a;
}

mxArray* MexCall::replace(int p, mxArray* a) {
    prhs[p] = own(a);
    return a;
}

std::vector<double> MexCall::output() const { return values_of(out.get()); }
std::vector<double> MexCall::noisy() const { return values_of(args[8].get()); }
std::vector<double> MexCall::pilot() const { return values_of(args[13].get()); }

double unit(std::mt19937& rng) { return static_cast<double>(rng() >> 8) * (1.0 / 16777216.0); }

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

std::vector<std::vector<double>> dct_bank(uint32_t count) {
    std::vector<std::vector<double>> bank;
    for (uint32_t len = 1; len <= count; ++len) bank.push_back(dct_matrix(len));
    return bank;
}

std::vector<double> random_orthogonal(uint32_t len, std::mt19937& rng) {
    std::vector<double> q(static_cast<size_t>(len) * len);
    // Rows are orthonormalised in turn: row f at f + s*len.
    for (uint32_t f = 0; f < len; ++f) {
        for (double norm = 0.0; norm < 1e-6;) {
            for (uint32_t s = 0; s < len; ++s) q[f + s * len] = 2.0 * unit(rng) - 1.0;
            for (uint32_t g = 0; g < f; ++g) {
                double dot = 0.0;
                for (uint32_t s = 0; s < len; ++s) dot += q[f + s * len] * q[g + s * len];
                for (uint32_t s = 0; s < len; ++s) q[f + s * len] -= dot * q[g + s * len];
            }
            norm = 0.0;
            for (uint32_t s = 0; s < len; ++s) norm += q[f + s * len] * q[f + s * len];
            norm = std::sqrt(norm);
            if (norm >= 1e-6) {
                for (uint32_t s = 0; s < len; ++s) q[f + s * len] /= norm;
            }
        }
    }
    return q;
}

std::vector<std::vector<uint8_t>> square_masks(uint32_t h) {
    const int w = static_cast<int>(2 * h - 1);
    const int centre = static_cast<int>(h) - 1;
    std::vector<std::vector<uint8_t>> masks(8 * h * h, std::vector<uint8_t>(w * w, 0));
    for (uint32_t c = 0; c < masks.size(); ++c) {
        const int radius = static_cast<int>(std::min(c % h, c / h % h));  // min(a, b) - 1
        for (int j = 0; j < w; ++j) {
            for (int i = 0; i < w; ++i) {
                masks[c][i + j * w] = std::max(std::abs(i - centre), std::abs(j - centre)) <= radius;
            }
        }
    }
    return masks;
}

std::vector<double> smooth_image(uint32_t m, uint32_t k) {
    std::vector<double> img(static_cast<size_t>(m) * k);
    for (uint32_t x = 0; x < k; ++x) {
        for (uint32_t y = 0; y < m; ++y) {
            const double ty = std::abs(static_cast<int>((y + 3) % 32) - 16) / 8.0 - 1.0;
            const double tx = std::abs(static_cast<int>((x + 1) % 24) - 12) / 6.0 - 1.0;
            img[y + static_cast<size_t>(x) * m] = 0.5 + 0.25 * ty * tx + (x > k / 2 ? 0.15 : -0.15);
        }
    }
    return img;
}

RandomOptions random_options(uint32_t h, uint32_t n, uint32_t m, uint32_t k, unsigned flags,
                             double coverage_threshold) {
    return RandomOptions{h, n, m, k, !(flags & kSquareMasks), (flags & kRandomMatrices) != 0,
                         (flags & kRepeatPixels) != 0, coverage_threshold};
}

CallPlan random_plan(uint32_t seed, const RandomOptions& o) {
    std::mt19937 rng(seed);
    CallPlan s;
    s.m = o.m;
    s.k = o.k;
    s.h = o.h;
    s.n = o.n;
    const uint32_t w = s.w();
    const uint32_t mk = s.pixel_count();
    // L scales, each rounding into 1..h (some written as x.4).
    const uint32_t l = 1 + rng() % 5;
    for (uint32_t i = 0; i < l; ++i) s.scale_set.push_back(1 + rng() % s.h + (rng() % 2 ? 0.4 : 0.0));
    s.direction_scale_map.resize(static_cast<size_t>(mk) * 8);
    for (auto& v : s.direction_scale_map) v = static_cast<uint8_t>(1 + rng() % l);

    for (uint32_t len = 1; len <= w; ++len) {
        s.transforms.push_back(o.random_matrices ? random_orthogonal(len, rng) : dct_matrix(len));
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
    for (uint32_t i = mk; i > 1; --i) std::swap(s.pixels[i - 1], s.pixels[rng() % i]);
    if (o.repeat_pixels) {
        for (uint32_t i = 1; i < mk; i += 3) s.pixels[i] = s.pixels[i - 1];
    }
    for (uint32_t i = 0; i < mk; ++i) {
        s.keys[i] = (i > 0 && s.pixels[i] == s.pixels[i - 1]) ? s.keys[i - 1] : static_cast<int32_t>(i + 1);
    }
    s.coverage_threshold = o.coverage_threshold;
    s.noise_level_factor = 0.5 + unit(rng);
    s.wiener_variance_factor = 8.0 * unit(rng);
    return s;
}

CallPlan square_plan(uint32_t m, uint32_t k, uint32_t h, uint32_t n) {
    CallPlan s;
    s.m = m;
    s.k = k;
    s.h = h;
    s.n = n;
    s.scale_set = {static_cast<double>(h)};
    s.direction_scale_map.assign(static_cast<size_t>(m) * k * 8, 1);
    s.transforms = dct_bank(s.w());
    s.sector_masks = square_masks(h);
    s.psd.assign(static_cast<size_t>(n) * n, 0.01);
    s.noisy = smooth_image(m, k);
    s.pilot = s.noisy;
    // Group pixels by how the box is clipped at each border.
    std::map<std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>, std::vector<int32_t>> groups;
    const uint32_t reach = h - 1;
    for (uint32_t x = 0; x < k; ++x) {
        for (uint32_t y = 0; y < m; ++y) {
            groups[{std::min(y, reach), std::min(m - 1 - y, reach), std::min(x, reach),
                    std::min(k - 1 - x, reach)}]
                .push_back(static_cast<int32_t>(y + x * m + 1));
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
