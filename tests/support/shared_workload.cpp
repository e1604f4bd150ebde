#include "support/shared_workload.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace swtest {
namespace {

std::vector<char> read_file(const std::string& path) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) throw std::runtime_error("cannot open " + path);
    std::vector<char> bytes;
    char buffer[1 << 16];
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, f)) > 0) bytes.insert(bytes.end(), buffer, buffer + got);
    std::fclose(f);
    return bytes;
}

// Decompressed with the system's gzip.
std::vector<char> read_gzip(const std::string& path) {
    FILE* pipe = popen(("gzip -dc '" + path + "'").c_str(), "r");
    if (pipe == nullptr) throw std::runtime_error("cannot run gzip on " + path);
    std::vector<char> bytes;
    char buffer[1 << 16];
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) bytes.insert(bytes.end(), buffer, buffer + got);
    if (pclose(pipe) != 0) throw std::runtime_error("gzip failed on " + path);
    return bytes;
}

template <class T>
std::vector<T> as(const std::vector<char>& bytes, size_t count, const std::string& what) {
    if (count == 0) count = bytes.size() / sizeof(T);
    if (bytes.size() < count * sizeof(T)) throw std::runtime_error(what + " is too short");
    std::vector<T> v(count);
    std::memcpy(v.data(), bytes.data(), count * sizeof(T));
    return v;
}

template <class T>
sw::ArrayView<T> view(const std::vector<T>& v, sw::Dims dims) {
    return sw::ArrayView<T>{v.data(), dims};
}

}  // namespace

SharedWorkload::SharedWorkload(const std::string& folder) {
    const std::string root = folder + "/..";
    const size_t mk = static_cast<size_t>(m_) * k_;
    scale_set_ = as<double>(read_file(folder + "/scaleset.f64"), 0, "scaleset.f64");
    if (scale_set_.empty()) throw std::runtime_error("scaleset.f64 is empty");
    uint32_t h = 0;
    for (double s : scale_set_) h = std::max(h, sw::round_to_unsigned(s));
    const uint32_t w = 2 * h - 1;
    dsm_ = as<uint8_t>(read_gzip(folder + "/dsm.u8.gz"), mk * 8, "dsm.u8.gz");
    list_ = as<int32_t>(read_gzip(folder + "/list.i32.gz"), mk * 2, "list.i32.gz");
    const auto bank = as<double>(read_file(folder + "/transforms.f64"), 0, "transforms.f64");
    size_t at = 0;
    for (uint32_t len = 1; len <= w; ++len) {
        if (at + len * len > bank.size()) throw std::runtime_error("transforms.f64 is too short");
        transforms_.emplace_back(bank.begin() + at, bank.begin() + at + len * len);
        at += len * len;
    }
    const auto masks = as<uint8_t>(read_file(folder + "/masks.u8"), size_t{8} * h * h * w * w, "masks.u8");
    for (size_t c = 0; c < size_t{8} * h * h; ++c) {
        masks_.emplace_back(masks.begin() + c * w * w, masks.begin() + (c + 1) * w * w);
    }
    psd_ = as<double>(read_file(root + "/camera512_gauss1_psd32.f64"), 32 * 32, "psd");
    image_ = as<double>(read_file(root + "/camera512_gauss1_noisy.f64"), mk, "image");
    const std::vector<char> sha = read_file(folder + "/out.sha256");
    expected_sha256_.assign(sha.begin(), sha.begin() + std::min<size_t>(64, sha.size()));

    for (uint32_t len = 1; len <= w; ++len) {
        transform_views_.push_back(view(transforms_[len - 1], sw::Dims::matrix(len, len)));
    }
    for (const auto& m : masks_) mask_views_.push_back(view(m, sw::Dims::matrix(w, w)));
    sw::FilterCall& c = call_;
    c.scale_set = view(scale_set_, sw::Dims::matrix(1, scale_set_.size()));
    c.direction_scale_map = view(dsm_, sw::Dims::array3(m_, k_, 8));
    c.transforms = transform_views_.data();
    c.transform_count = transform_views_.size();
    c.sector_masks = mask_views_.data();
    c.sector_mask_count = mask_views_.size();
    c.dft_size = 32;
    c.noise_psd = view(psd_, sw::Dims::matrix(32, 32));
    c.image_dims = sw::Dims::matrix(m_, k_);
    c.pilot_dims = c.image_dims;
    c.processing_list = view(list_, sw::Dims::matrix(mk, 2));
    c.noise_level_factor = 1;
    c.max_scale = h;
    c.wiener_variance_factor = 6;
    c.coverage_threshold = 1e9;
}

const sw::FilterCall& SharedWorkload::fresh_call() {
    noisy_ = image_;
    pilot_ = image_;
    call_.noisy_image = noisy_.data();
    call_.pilot_image = pilot_.data();
    return call_;
}

std::string shared_workload_root(const std::string& fallback) {
    const char* env = std::getenv("SHAPEWIENER_WORKLOADS");
    const std::string root = env != nullptr && *env != '\0' ? env : fallback;
    struct stat st;
    if (stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return std::string();
    return root;
}

// SHA-256 (FIPS 180-4).
std::string output_sha256(const std::vector<double>& output) {
    const void* data = output.data();
    const size_t size = output.size() * sizeof(double);
    static const uint32_t k[64] = {
        0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4,
        0xab1c5ed5, 0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe,
        0x9bdc06a7, 0xc19bf174, 0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f,
        0x4a7484aa, 0x5cb0a9dc, 0x76f988da, 0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7,
        0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967, 0x27b70a85, 0x2e1b2138, 0x4d2c6dfc,
        0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85, 0xa2bfe8a1, 0xa81a664b,
        0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070, 0x19a4c116,
        0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
        0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7,
        0xc67178f2};
    uint32_t hash[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                        0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    std::vector<uint8_t> msg(static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + size);
    const uint64_t bits = static_cast<uint64_t>(size) * 8;
    msg.push_back(0x80);
    while (msg.size() % 64 != 56) msg.push_back(0);
    for (int i = 7; i >= 0; --i) msg.push_back(static_cast<uint8_t>(bits >> (8 * i)));
    auto rotr = [](uint32_t x, int n) { return (x >> n) | (x << (32 - n)); };
    for (size_t block = 0; block < msg.size(); block += 64) {
        uint32_t w[64];
        for (int t = 0; t < 16; ++t) {
            const uint8_t* b = &msg[block + 4 * t];
            w[t] = uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3];
        }
        for (int t = 16; t < 64; ++t) {
            const uint32_t s0 = rotr(w[t - 15], 7) ^ rotr(w[t - 15], 18) ^ (w[t - 15] >> 3);
            const uint32_t s1 = rotr(w[t - 2], 17) ^ rotr(w[t - 2], 19) ^ (w[t - 2] >> 10);
            w[t] = w[t - 16] + s0 + w[t - 7] + s1;
        }
        uint32_t a[8];
        std::memcpy(a, hash, sizeof a);
        for (int t = 0; t < 64; ++t) {
            const uint32_t s1 = rotr(a[4], 6) ^ rotr(a[4], 11) ^ rotr(a[4], 25);
            const uint32_t ch = (a[4] & a[5]) ^ (~a[4] & a[6]);
            const uint32_t t1 = a[7] + s1 + ch + k[t] + w[t];
            const uint32_t s0 = rotr(a[0], 2) ^ rotr(a[0], 13) ^ rotr(a[0], 22);
            const uint32_t maj = (a[0] & a[1]) ^ (a[0] & a[2]) ^ (a[1] & a[2]);
            const uint32_t t2 = s0 + maj;
            for (int i = 7; i > 0; --i) a[i] = a[i - 1];
            a[4] += t1;
            a[0] = t1 + t2;
        }
        for (int i = 0; i < 8; ++i) hash[i] += a[i];
    }
    char hex[65];
    for (int i = 0; i < 8; ++i) std::snprintf(hex + 8 * i, 9, "%08x", hash[i]);
    return std::string(hex, 64);
}

}  // namespace swtest
