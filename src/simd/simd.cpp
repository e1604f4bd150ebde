#include "simd/simd.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "simd/x86.h"

namespace sw {
namespace simd {
namespace {

constexpr const char* kNames[kLevelCount] = {"reference", "scalar", "sse2", "avx2", "avx512"};

bool cpu_has(Level level) {
    switch (level) {
        case Level::reference:
        case Level::scalar:
            return true;
#if SHAPEWIENER_X86_SIMD
        case Level::sse2:
            return true;  // part of x86-64
        case Level::avx2:
            return __builtin_cpu_supports("avx2") != 0;
        case Level::avx512:
            return __builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512dq") != 0 &&
                   __builtin_cpu_supports("avx512vl") != 0;
#endif
        default:
            return false;
    }
}

Level initial_level() {
    const char* text = std::getenv("SHAPEWIENER_SIMD");
    Level level;
    if (text != nullptr && parse(text, &level) && supported(level)) return level;
    return best();
}

std::atomic<int>& active_slot() {
    static std::atomic<int> slot{static_cast<int>(initial_level())};
    return slot;
}

}  // namespace

bool supported(Level level) {
    const int i = static_cast<int>(level);
    if (i < 0 || i >= kLevelCount) return false;
    static const bool table[kLevelCount] = {cpu_has(Level::reference), cpu_has(Level::scalar),
                                            cpu_has(Level::sse2), cpu_has(Level::avx2),
                                            cpu_has(Level::avx512)};
    return table[i];
}

Level best() {
    for (int i = kLevelCount - 1; i > 0; --i) {
        if (supported(static_cast<Level>(i))) return static_cast<Level>(i);
    }
    return Level::scalar;
}

Level active() { return static_cast<Level>(active_slot().load(std::memory_order_relaxed)); }

bool set_level(Level level) {
    if (!supported(level)) return false;
    active_slot().store(static_cast<int>(level), std::memory_order_relaxed);
    return true;
}

const char* name(Level level) {
    const int i = static_cast<int>(level);
    return i >= 0 && i < kLevelCount ? kNames[i] : "unknown";
}

bool parse(const char* text, Level* level) {
    for (int i = 0; i < kLevelCount; ++i) {
        if (std::strcmp(text, kNames[i]) == 0) {
            *level = static_cast<Level>(i);
            return true;
        }
    }
    return false;
}

}  // namespace simd
}  // namespace sw
