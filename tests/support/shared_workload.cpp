#include "support/shared_workload.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "support/sha256.h"

namespace swtest {
namespace {

std::vector<char> read_all(FILE* f) {
    std::vector<char> bytes;
    char buffer[1 << 16];
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, f)) > 0) bytes.insert(bytes.end(), buffer, buffer + got);
    return bytes;
}

std::vector<char> read_file(const std::string& path) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) throw std::runtime_error("cannot open " + path);
    std::vector<char> bytes = read_all(f);
    std::fclose(f);
    return bytes;
}

// Decompressed with the system's gzip.
std::vector<char> read_gzip(const std::string& path) {
    FILE* pipe = popen(("gzip -dc '" + path + "'").c_str(), "r");
    if (pipe == nullptr) throw std::runtime_error("cannot run gzip on " + path);
    std::vector<char> bytes = read_all(pipe);
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

}  // namespace

SharedWorkload::SharedWorkload(const std::string& folder) {
    const std::string root = folder + "/..";
    CallPlan& s = plan_;
    s.m = s.k = 512;
    s.n = 32;
    const size_t mk = s.pixel_count();
    s.scale_set = as<double>(read_file(folder + "/scaleset.f64"), 0, "scaleset.f64");
    if (s.scale_set.empty()) throw std::runtime_error("scaleset.f64 is empty");
    s.h = 0;
    for (double v : s.scale_set) s.h = std::max(s.h, sw::round_to_unsigned(v));
    const uint32_t w = s.w();
    s.direction_scale_map = as<uint8_t>(read_gzip(folder + "/dsm.u8.gz"), mk * 8, "dsm.u8.gz");
    const auto list = as<int32_t>(read_gzip(folder + "/list.i32.gz"), mk * 2, "list.i32.gz");
    s.pixels.assign(list.begin(), list.begin() + mk);
    s.keys.assign(list.begin() + mk, list.end());
    const auto bank = as<double>(read_file(folder + "/transforms.f64"), 0, "transforms.f64");
    size_t at = 0;
    for (uint32_t len = 1; len <= w; ++len) {
        if (at + len * len > bank.size()) throw std::runtime_error("transforms.f64 is too short");
        s.transforms.emplace_back(bank.begin() + at, bank.begin() + at + len * len);
        at += len * len;
    }
    const auto masks = as<uint8_t>(read_file(folder + "/masks.u8"), size_t{8} * s.h * s.h * w * w, "masks.u8");
    for (size_t c = 0; c < size_t{8} * s.h * s.h; ++c) {
        s.sector_masks.emplace_back(masks.begin() + c * w * w, masks.begin() + (c + 1) * w * w);
    }
    s.psd = as<double>(read_file(root + "/camera512_gauss1_psd32.f64"), 32 * 32, "psd");
    s.noisy = as<double>(read_file(root + "/camera512_gauss1_noisy.f64"), mk, "image");
    s.pilot = s.noisy;
    s.noise_level_factor = 1;
    s.wiener_variance_factor = 6;
    s.coverage_threshold = 1e9;
    const std::vector<char> sha = read_file(folder + "/out.sha256");
    expected_sha256_.assign(sha.begin(), sha.begin() + std::min<size_t>(64, sha.size()));

    call_ = std::make_unique<PlainCall>(s);
}

const sw::FilterCall& SharedWorkload::fresh_call() { return call_->fresh(); }

std::string shared_workload_root(const std::string& fallback) {
    const char* env = std::getenv("SHAPEWIENER_WORKLOADS");
    const std::string root = env != nullptr && *env != '\0' ? env : fallback;
    struct stat st;
    if (stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return std::string();
    return root;
}

std::string output_sha256(const std::vector<double>& output) {
    return sha256_hex(output.data(), output.size() * sizeof(double));
}

}  // namespace swtest
