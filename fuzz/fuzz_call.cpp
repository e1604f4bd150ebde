#include "fuzz_call.h"

#include <vector>

#include "support/test_args.h"

namespace swfuzz {
namespace {

class Bytes {
public:
    Bytes(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    uint8_t u8() { return at_ < size_ ? data_[at_++] : 0; }
    uint32_t u32() {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) v = v << 8 | u8();
        return v;
    }

private:
    const uint8_t* data_;
    size_t size_;
    size_t at_ = 0;
};

}  // namespace

Result run_input(const uint8_t* data, size_t size) {
    Bytes in(data, size);
    Result result;
    const uint8_t nr = in.u8();
    const uint8_t nl = in.u8();
    const int nrhs = nr < 240 ? 16 : (nr - 240) % 21;
    const int nlhs = nl < 232 ? 1 : (nl - 232) % 4;

    swtest::RandomOptions o;
    o.h = 1 + in.u8() % 5;
    const uint32_t w = 2 * o.h - 1;
    const uint8_t nb = in.u8();
    o.n = nb < 128 ? 32 : w + 1 + 2 * ((nb - 128) % ((40 - w - 1) / 2 + 1));
    const uint8_t sb = in.u8();
    o.m = in.u8() % (sb < 176 ? 7 : 13);
    o.k = in.u8() % (sb < 176 ? 7 : 13);
    const uint8_t flags = in.u8();
    o.random_masks = !(flags & 1);
    o.random_matrices = flags & 2;
    o.repeat_pixels = flags & 4;
    const double thresholds[] = {1e9, 0.0, 1.0, 2.0, 3.0, 65535.0, -1.0, 0.4};
    o.coverage_threshold = thresholds[flags >> 3 & 7];
    const uint32_t seed = in.u32();
    swtest::CallPlan plan = swtest::random_plan(seed, o);
    if (flags & 0x40) {
        plan = swtest::square_plan(o.m, o.k, o.h, o.n);
        plan.coverage_threshold = o.coverage_threshold;
    }
    result.description = "nlhs " + std::to_string(nlhs) + ", nrhs " + std::to_string(nrhs) + "; " +
                         std::to_string(o.m) + "x" + std::to_string(o.k) + ", H = " + std::to_string(o.h) +
                         ", N = " + std::to_string(o.n) + (flags & 0x40 ? ", squares" : ", random, seed ") +
                         (flags & 0x40 ? "" : std::to_string(seed)) + ", flags " + std::to_string(flags);

    // The faults: allowed ones first, then at most one violation, then "either" ones.
    const std::vector<swtest::Fault>& table = swtest::faults();
    std::vector<std::pair<const swtest::Fault*, uint32_t>> chosen[3];
    const int count = in.u8() % 5;
    for (int i = 0; i < count; ++i) {
        const swtest::Fault& f = table[in.u8() % table.size()];
        const uint32_t r = in.u32();
        if (f.needs_pixels && plan.pixel_count() == 0) continue;
        const int group = f.outcome == swtest::Fault::kSuccess ? 0
                          : f.outcome == swtest::Fault::kError ? 1
                                                               : 2;
        if (group == 1 && !chosen[1].empty()) continue;
        chosen[group].push_back({&f, r});
    }
    swtest::MexCall call = swtest::make_call(plan);
    for (const auto& group : chosen) {
        for (const auto& c : group) {
            c.first->apply(call, plan, c.second);
            result.description += std::string("; ") + c.first->name + " " + c.first->identifier +
                                  " (r = " + std::to_string(c.second) + ")";
        }
    }
    const char* expected = nrhs < 16            ? "shapewiener:nrhs:tooFew"
                           : nlhs > 1           ? "shapewiener:nlhs:tooMany"
                           : !chosen[2].empty() ? nullptr
                           : !chosen[1].empty() ? chosen[1][0].first->identifier.c_str()
                                                : "";
    result.problem = swtest::check_call(call, nlhs, nrhs, expected, &result.error);
    return result;
}

}  // namespace swfuzz
