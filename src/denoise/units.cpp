#include "shapewiener/units.h"

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <string>

namespace sw {
namespace {

struct TypeInfo {
    SampleType type;
    const char* name;
    double lowest;
    double highest;
};

constexpr TypeInfo kTypes[] = {
    {SampleType::kUint8, "uint8", 0.0, 255.0},
    {SampleType::kInt8, "int8", -128.0, 127.0},
    {SampleType::kUint16, "uint16", 0.0, 65535.0},
    {SampleType::kInt16, "int16", -32768.0, 32767.0},
    {SampleType::kUint32, "uint32", 0.0, 4294967295.0},
    {SampleType::kInt32, "int32", -2147483648.0, 2147483647.0},
    // The nearest doubles below 2^64 and 2^63.
    {SampleType::kUint64, "uint64", 0.0, 18446744073709549568.0},
    {SampleType::kInt64, "int64", -9223372036854775808.0, 9223372036854774784.0},
    {SampleType::kFloat32, "float32", -std::numeric_limits<float>::max(),
     std::numeric_limits<float>::max()},
    {SampleType::kFloat64, "float64", -std::numeric_limits<double>::max(),
     std::numeric_limits<double>::max()},
};

const TypeInfo& info(SampleType type) { return kTypes[static_cast<int>(type)]; }

std::string number(double v) {
    char text[32];
    if (std::fabs(v) >= 1000.0 && std::fabs(v) < 1e15) {
        std::snprintf(text, sizeof text, "%.0f", v);
    } else {
        std::snprintf(text, sizeof text, "%.4g", v);
    }
    return text;
}

}  // namespace

namespace {

std::string inexact(const char* sign, uint64_t magnitude) {
    if (magnitude <= kMaxExactInteger) return std::string();
    return std::string("the 64-bit integer ") + sign + std::to_string(magnitude) + ", beyond " +
           sign + "2^53 = " + sign + std::to_string(kMaxExactInteger) +
           ": a double cannot hold it exactly; convert the values to floating point first.";
}

}  // namespace

std::string inexact_integer(uint64_t value) { return inexact("", value); }

std::string inexact_integer(int64_t value) {
    // The magnitude without overflow for the most negative value.
    return value < 0 ? inexact("-", uint64_t{0} - static_cast<uint64_t>(value))
                     : inexact("", static_cast<uint64_t>(value));
}

const char* type_name(SampleType type) { return info(type).name; }

bool type_from_name(const std::string& name, SampleType* type) {
    for (const TypeInfo& t : kTypes) {
        if (name == t.name) {
            *type = t.type;
            return true;
        }
    }
    return false;
}

bool is_integer(SampleType type) {
    return type != SampleType::kFloat32 && type != SampleType::kFloat64;
}

double type_lowest(SampleType type) { return info(type).lowest; }
double type_highest(SampleType type) { return info(type).highest; }

double to_type(double value, SampleType type) {
    if (type == SampleType::kFloat64) return value;
    if (type == SampleType::kFloat32) return static_cast<double>(static_cast<float>(value));
    if (std::isnan(value)) {
        throw std::domain_error(std::string("a NaN value cannot be stored as ") + type_name(type));
    }
    const TypeInfo& t = info(type);
    if (value <= t.lowest) return t.lowest;
    if (value >= t.highest) return t.highest;
    // Round half to even; value - floor(value) is exact.
    double r = std::floor(value);
    const double fraction = value - r;
    if (fraction > 0.5 || (fraction == 0.5 && std::fmod(r, 2.0) != 0.0)) r += 1.0;
    return r;
}

void to_type(std::vector<double>* values, SampleType type) {
    if (type == SampleType::kFloat64) return;
    for (double& v : *values) v = to_type(v, type);
}

std::string noise_warning(double value_min, double value_max, SampleType type,
                          const NoiseModel& noise) {
    double level = noise.sigma;
    if (noise.kind == NoiseModel::Kind::kPsd) {
        if (noise.psd.empty()) return "";
        double sum = 0.0;
        for (double v : noise.psd) sum += v;
        level = std::sqrt(sum / static_cast<double>(noise.psd.size()));
    }
    if (!(level > 0.0) || !std::isfinite(level) || !std::isfinite(value_min) ||
        !std::isfinite(value_max) || value_max < value_min) {
        return "";
    }
    const bool integer = is_integer(type);
    const char* what = noise.kind == NoiseModel::Kind::kPsd ? "noise level (root of the mean PSD) "
                                                            : "sigma ";
    // Integer images are named by their type's range, float ones by theirs.
    const double top = integer ? type_highest(type) : value_max;
    const std::string values = integer ? std::string(type_name(type)) + " values " +
                                             number(type_lowest(type)) + ".." + number(top)
                                       : "values " + number(value_min) + ".." + number(value_max);
    const std::string head = what + number(level) + " on " + values +
                             ": noise levels are in the image's units";
    const double range = value_max - value_min;
    // A level meant for values scaled to [0, 1].
    const bool small = (type == SampleType::kUint8 && level < 1.0) ||
                       (range > 0.0 && level < 1e-4 * range);
    if (small) {
        if (integer && level <= 1.0) return head + "; did you mean " + number(level * top) + "?";
        return head + "; a level below 1e-4 of the value range leaves the image as it is";
    }
    // A level meant for 8-bit values on an image scaled to [0, 1].
    if (range > 0.0 && level > range) {
        if (!integer && value_min >= 0.0 && value_max <= 1.0 && level >= 1.0 && level <= 255.0) {
            return head + "; did you mean " + number(level / 255.0) + " (" + number(level) + "/255)?";
        }
        return head + "; a level larger than the value range flattens the image";
    }
    return "";
}

uint64_t denoise_bytes_per_pixel(const std::string& preset) {
    // Peak resident memory of a whole-image call with kernel noise on two
    // threads, 1024 x 1024: 88 bytes a pixel (fast), 252 (default), with a
    // margin for more threads and the caller's own copies.
    if (preset == "fast") return 160;
    return 320;
}

uint64_t memory_available() {
    std::ifstream in("/proc/meminfo");
    std::string key;
    uint64_t kb = 0;
    std::string unit;
    while (in >> key >> kb >> unit) {
        if (key == "MemAvailable:") return kb * 1024;
    }
    const long pages = sysconf(_SC_AVPHYS_PAGES);
    const long page = sysconf(_SC_PAGESIZE);
    return pages > 0 && page > 0 ? static_cast<uint64_t>(pages) * static_cast<uint64_t>(page) : 0;
}

std::string format_bytes(double bytes) {
    char text[32];
    if (bytes >= 1e9) {
        std::snprintf(text, sizeof text, "%.1f GB", bytes / 1e9);
    } else if (bytes >= 1e6) {
        std::snprintf(text, sizeof text, "%.0f MB", bytes / 1e6);
    } else {
        std::snprintf(text, sizeof text, "%.0f kB", std::ceil(bytes / 1e3));
    }
    return text;
}

std::string size_refusal(uint64_t rows, uint64_t cols, uint64_t bytes_per_pixel) {
    const std::string size = std::to_string(rows) + " x " + std::to_string(cols);
    const double pixels = static_cast<double>(rows) * static_cast<double>(cols);
    if (pixels > static_cast<double>(kMaxPixels)) {
        return size + " pixels, more than the library's limit of " + std::to_string(kMaxPixels) +
               " pixels (it would need " + format_bytes(pixels * bytes_per_pixel) + ")";
    }
    const double needed = pixels * static_cast<double>(bytes_per_pixel);
    const uint64_t available = memory_available();
    if (available > 0 && needed > static_cast<double>(available)) {
        return size + " pixels need about " + format_bytes(needed) + ", more than the " +
               format_bytes(static_cast<double>(available)) + " of memory available";
    }
    return "";
}

}  // namespace sw
