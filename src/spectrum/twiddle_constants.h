// Double-precision twiddle constants shared by the 32-point transforms.
// kCos[k] and kSin[k] are cos(k*pi/16) and sin(k*pi/16), k = 0..31, built by
// symmetry from the correctly rounded values of the first octant so that
// every constant is exactly the negation or swap of one of seven numbers.
#ifndef SHAPEWIENER_SPECTRUM_TWIDDLE_CONSTANTS_H
#define SHAPEWIENER_SPECTRUM_TWIDDLE_CONSTANTS_H

namespace sw {

constexpr double kC1 = 0.9807852804032304;   // cos(pi/16)
constexpr double kS1 = 0.19509032201612828;  // sin(pi/16)
constexpr double kC2 = 0.9238795325112867;   // cos(pi/8)
constexpr double kS2 = 0.3826834323650898;   // sin(pi/8)
constexpr double kC3 = 0.8314696123025452;   // cos(3pi/16)
constexpr double kS3 = 0.5555702330196022;   // sin(3pi/16)
constexpr double kC4 = 0.7071067811865476;   // cos(pi/4) = sin(pi/4)

constexpr double kCos[32] = {
    1.0,  kC1,  kC2,  kC3,  kC4,  kS3,  kS2,  kS1,  0.0,  -kS1, -kS2,
    -kS3, -kC4, -kC3, -kC2, -kC1, -1.0, -kC1, -kC2, -kC3, -kC4, -kS3,
    -kS2, -kS1, 0.0,  kS1,  kS2,  kS3,  kC4,  kC3,  kC2,  kC1};
constexpr double kSin[32] = {
    0.0,  kS1,  kS2,  kS3,  kC4,  kC3,  kC2,  kC1,  1.0,  kC1,  kC2,
    kC3,  kC4,  kS3,  kS2,  kS1,  0.0,  -kS1, -kS2, -kS3, -kC4, -kC3,
    -kC2, -kC1, -1.0, -kC1, -kC2, -kC3, -kC4, -kS3, -kS2, -kS1};

}  // namespace sw

#endif  // SHAPEWIENER_SPECTRUM_TWIDDLE_CONSTANTS_H
