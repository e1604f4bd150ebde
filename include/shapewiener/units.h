// shapewiener: the unit rule every front end follows, and the checks that
// go with it.
//
// The unit rule: an image's values are used as the user holds them. An
// integer image (uint8, int16, ...) is read as stored, without scaling to
// [0, 1]; a float image as it is. Noise levels (sigma, a kernel's sigma, a
// power spectrum) are in those same units: 0..255 grey levels for an 8-bit
// image, 0..65535 for a 16-bit one. A result written back in an integer
// type is rounded (halves to even) and clipped to the type's range, by
// to_type() below; every front end converts through it.
#ifndef SHAPEWIENER_UNITS_H
#define SHAPEWIENER_UNITS_H

#include <cstdint>
#include <string>
#include <vector>

#include "shapewiener/denoise.h"

namespace sw {

// How an image's values are (or are to be) stored.
enum class SampleType {
    kUint8, kInt8, kUint16, kInt16, kUint32, kInt32, kUint64, kInt64, kFloat32, kFloat64
};

// "uint8", "int8", ..., "float32", "float64" (NumPy's names).
const char* type_name(SampleType type);
// The type of a name type_name() gives; false for any other name.
bool type_from_name(const std::string& name, SampleType* type);
bool is_integer(SampleType type);
// The smallest and largest value the type holds (for the 64-bit integer
// types the nearest doubles; for floats their finite range).
double type_lowest(SampleType type);
double type_highest(SampleType type);

// A value as stored in `type`: integers round half to even and clip to the
// type's range; float32 rounds to the nearest float; float64 is unchanged.
// A NaN has no integer value: to_type throws std::domain_error for it.
double to_type(double value, SampleType type);
void to_type(std::vector<double>* values, SampleType type);

// 64-bit integers: a double holds every integer of magnitude up to 2^53
// exactly, and not every larger one. Why `value` cannot be taken as a
// double ("the 64-bit integer 9007199254740993, beyond 2^53 =
// 9007199254740992: ..."), or "" when it is exact.
constexpr uint64_t kMaxExactInteger = uint64_t{1} << 53;
std::string inexact_integer(int64_t value);
std::string inexact_integer(uint64_t value);

// The plausibility guard. `value_min`/`value_max` are the image's smallest
// and largest value, `type` how it is stored. Returns a warning (one line,
// no trailing newline) when the noise level (sigma, or the square root of
// the power spectrum's mean) cannot be meant for values like these: larger
// than the image's value range, below 1e-4 of it, or below 1 on an 8-bit
// image. Returns "" otherwise, and for a noise model the denoiser would
// refuse anyway. Front ends show it and still run the call.
std::string noise_warning(double value_min, double value_max, SampleType type,
                          const NoiseModel& noise);

// The largest image the library takes, in pixels.
constexpr uint64_t kMaxPixels = 2147483647u;

// Memory: an estimate of the bytes denoise() needs per pixel with this
// preset (input and output included), for checks before anything is read.
uint64_t denoise_bytes_per_pixel(const std::string& preset);
// The memory the system has available now (bytes; 0 when unknown).
uint64_t memory_available();
// Why a rows x cols image cannot be processed when it needs
// `bytes_per_pixel` bytes a pixel: more pixels than kMaxPixels, or more
// memory than is available. "" when it fits. Says the size and the bytes.
std::string size_refusal(uint64_t rows, uint64_t cols, uint64_t bytes_per_pixel);
// "9.3 GB", "512 MB", "12 kB": a byte count for a message.
std::string format_bytes(double bytes);

}  // namespace sw

#endif  // SHAPEWIENER_UNITS_H
