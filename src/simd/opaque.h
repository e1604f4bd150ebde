// A value the optimiser must take as it is. GCC 12 at -O3 can drop the
// rounding of a double to float and back when it vectorises interleaved
// running sums (the pair of conversions is treated as an identity); passing
// the rounded float through an empty assembler statement keeps the
// conversions. The statement emits no instruction.
//
// SHAPEWIENER_KEEP(v) is a statement on a variable v. It is a macro so that
// it takes the instruction set of the function it is written in (a vector
// operand needs the registers of that instruction set).
#ifndef SHAPEWIENER_SIMD_OPAQUE_H
#define SHAPEWIENER_SIMD_OPAQUE_H

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#define SHAPEWIENER_KEEP(v) __asm__("" : "+v"(v))
#elif defined(__GNUC__) && defined(__aarch64__)
#define SHAPEWIENER_KEEP(v) __asm__("" : "+w"(v))
#elif defined(__GNUC__)
#define SHAPEWIENER_KEEP(v) __asm__("" : "+m"(v))
#else
#define SHAPEWIENER_KEEP(v) ((void)0)
#endif

#endif  // SHAPEWIENER_SIMD_OPAQUE_H
