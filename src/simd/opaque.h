// A value the optimiser must take as it is. GCC 12 at -O3 can drop the
// rounding of a double to float and back when it vectorises interleaved
// running sums (the pair of conversions is treated as an identity); passing
// the rounded float through an empty assembler statement keeps the
// conversions. The statement emits no instruction.
#ifndef SHAPEWIENER_SIMD_OPAQUE_H
#define SHAPEWIENER_SIMD_OPAQUE_H

namespace sw {
namespace simd {

#if defined(__GNUC__)
template <class T>
__attribute__((always_inline)) inline T opaque(T v) {
#if defined(__x86_64__) || defined(__i386__)
    __asm__("" : "+v"(v));
#elif defined(__aarch64__)
    __asm__("" : "+w"(v));
#else
    __asm__("" : "+m"(v));
#endif
    return v;
}
#else
template <class T>
inline T opaque(T v) {
    return v;
}
#endif

}  // namespace simd
}  // namespace sw

#endif  // SHAPEWIENER_SIMD_OPAQUE_H
