#include "adaptive_workload.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "support/sha256.h"

namespace swbench {
namespace {

constexpr uint32_t kSide = 512;
constexpr uint32_t kGrid = 32;

std::vector<char> read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot open " + path);
    return std::vector<char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Decompresses with the system's gzip.
std::vector<char> read_gzip(const std::string& path) {
    FILE* pipe = popen(("gzip -dc '" + path + "'").c_str(), "r");
    if (pipe == nullptr) throw std::runtime_error("cannot run gzip for " + path);
    std::vector<char> data;
    char buffer[1 << 16];
    size_t got = 0;
    while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) data.insert(data.end(), buffer, buffer + got);
    if (pclose(pipe) != 0) throw std::runtime_error("gzip failed on " + path);
    return data;
}

template <class T>
std::vector<T> as(const std::vector<char>& bytes, size_t count, const std::string& what) {
    if (bytes.size() != count * sizeof(T)) throw std::runtime_error(what + ": unexpected size");
    std::vector<T> v(count);
    std::memcpy(v.data(), bytes.data(), bytes.size());
    return v;
}

mxArray* double_matrix(const double* data, size_t m, size_t n) {
    mxArray* a = mxCreateDoubleMatrix(m, n, mxREAL);
    if (m * n > 0) std::memcpy(mxGetPr(a), data, sizeof(double) * m * n);
    return a;
}

mxArray* scalar(double v) { return double_matrix(&v, 1, 1); }

}  // namespace

AdaptiveWorkload::AdaptiveWorkload(const std::string& folder) {
    const std::string root = folder.substr(0, folder.find_last_of('/'));
    const std::vector<char> scale_bytes = read_file(folder + "/scaleset.f64");
    const std::vector<double> scales = as<double>(scale_bytes, scale_bytes.size() / 8, "scaleset");
    for (double s : scales) h_ = std::max(h_, static_cast<uint32_t>(s));
    const uint32_t w = 2 * h_ - 1;
    const size_t pixels = static_cast<size_t>(kSide) * kSide;

    args_.resize(16);
    args_[0].reset(double_matrix(scales.data(), 1, scales.size()));
    {
        const std::vector<char> dsm = read_gzip(folder + "/dsm.u8.gz");
        if (dsm.size() != pixels * 8) throw std::runtime_error("dsm: unexpected size");
        const mwSize dims[3] = {kSide, kSide, 8};
        mxArray* a = mxCreateNumericArray(3, dims, mxUINT8_CLASS, mxREAL);
        std::memcpy(mxGetData(a), dsm.data(), dsm.size());
        args_[1].reset(a);
    }
    {
        const std::vector<char> bytes = read_file(folder + "/transforms.f64");
        const std::vector<double> all = as<double>(bytes, bytes.size() / 8, "transforms");
        mxArray* bank = mxCreateCellMatrix(1, w);
        size_t at = 0;
        for (uint32_t len = 1; len <= w; ++len) {
            if (at + len * len > all.size()) throw std::runtime_error("transforms: too short");
            mxSetCell(bank, len - 1, double_matrix(all.data() + at, len, len));
            at += len * len;
        }
        args_[2].reset(bank);
    }
    {
        const std::vector<char> bytes = read_file(folder + "/masks.u8");
        const size_t cells = 8 * static_cast<size_t>(h_) * h_;
        if (bytes.size() != cells * w * w) throw std::runtime_error("masks: unexpected size");
        const mwSize dims[3] = {h_, h_, 8};
        mxArray* bank = mxCreateCellArray(3, dims);
        for (size_t c = 0; c < cells; ++c) {
            mxArray* mask = mxCreateNumericMatrix(w, w, mxUINT8_CLASS, mxREAL);
            std::memcpy(mxGetData(mask), bytes.data() + c * w * w, w * w);
            mxSetCell(bank, c, mask);
        }
        args_[3].reset(bank);
    }
    args_[4].reset(mxCreateDoubleMatrix(0, 0, mxREAL));
    args_[5].reset(mxCreateDoubleMatrix(0, 0, mxREAL));
    args_[6].reset(scalar(kGrid));
    const std::vector<double> psd =
        as<double>(read_file(root + "/camera512_gauss1_psd32.f64"), kGrid * kGrid, "psd");
    args_[7].reset(double_matrix(psd.data(), kGrid, kGrid));
    noisy_ = as<double>(read_file(root + "/camera512_gauss1_noisy.f64"), pixels, "noisy image");
    args_[8].reset(double_matrix(noisy_.data(), kSide, kSide));
    {
        const std::vector<char> list = read_gzip(folder + "/list.i32.gz");
        if (list.size() != pixels * 2 * 4) throw std::runtime_error("list: unexpected size");
        mxArray* a = mxCreateNumericMatrix(pixels, 2, mxINT32_CLASS, mxREAL);
        std::memcpy(mxGetData(a), list.data(), list.size());
        args_[9].reset(a);
    }
    args_[10].reset(scalar(1.0));
    args_[11].reset(mxCreateDoubleMatrix(0, 0, mxREAL));
    args_[12].reset(scalar(h_));
    args_[13].reset(double_matrix(noisy_.data(), kSide, kSide));
    args_[14].reset(scalar(6.0));
    args_[15].reset(scalar(1e9));
    for (const auto& a : args_) prhs_.push_back(a.get());

    const std::vector<char> sha = read_file(folder + "/out.sha256");
    expected_sha256_.assign(sha.begin(), sha.begin() + std::min<size_t>(64, sha.size()));
}

void AdaptiveWorkload::restore_images() {
    std::memcpy(mxGetPr(args_[8].get()), noisy_.data(), sizeof(double) * noisy_.size());
    std::memcpy(mxGetPr(args_[13].get()), noisy_.data(), sizeof(double) * noisy_.size());
}

std::vector<double> AdaptiveWorkload::run(void (*entry)(int, mxArray**, int, const mxArray**)) {
    restore_images();
    mxArray* plhs[1] = {nullptr};
    entry(1, plhs, nrhs(), const_cast<const mxArray**>(prhs()));
    mx_host::ArrayPtr out(plhs[0]);
    const double* p = mxGetPr(out.get());
    return std::vector<double>(p, p + mxGetM(out.get()) * mxGetN(out.get()));
}

std::string sha256_hex(const std::vector<double>& values) {
    return swtest::sha256_hex(values.data(), values.size() * sizeof(double));
}

}  // namespace swbench
