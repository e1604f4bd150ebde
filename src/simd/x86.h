// Whether this compiler can build the x86-64 vector levels: GCC or clang on
// x86-64, with function-level target selection and __builtin_cpu_supports.
// Elsewhere (MSVC, other processors) only the one-lane levels exist.
#ifndef SHAPEWIENER_SIMD_X86_H
#define SHAPEWIENER_SIMD_X86_H

#if defined(__x86_64__) && defined(__GNUC__)
#define SHAPEWIENER_X86_SIMD 1
#else
#define SHAPEWIENER_X86_SIMD 0
#endif

#endif  // SHAPEWIENER_SIMD_X86_H
