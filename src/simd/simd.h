// Run-time choice of the instruction set of the hot paths.
//
// The per-shape hot paths (noise levels, shape transforms) exist once as
// straightforward reference routines and once as restructured routines that
// run several independent computations side by side in vector lanes. Every
// lane repeats the reference's float and double operations in the
// reference's order, so every level gives the same bits; the levels differ
// only in speed. The restructured routines are compiled for several
// instruction sets through function attributes and chosen at run time, so
// a binary built for plain x86-64 uses AVX2 or AVX-512 where the processor
// has them.
#ifndef SHAPEWIENER_SIMD_SIMD_H
#define SHAPEWIENER_SIMD_SIMD_H

namespace sw {
namespace simd {

enum class Level : int {
    reference = 0,  // the straightforward routines
    scalar = 1,     // restructured, one lane
    sse2 = 2,       // 4 float lanes (x86-64 baseline)
    avx2 = 3,       // 8 float lanes
    avx512 = 4,     // 16 float lanes (AVX-512 F, DQ, VL)
};

constexpr int kLevelCount = 5;

// Whether this build and this processor can run `level`.
bool supported(Level level);

// The widest supported level.
Level best();

// The level in use. Starts as the level named by the environment variable
// SHAPEWIENER_SIMD (reference, scalar, sse2, avx2, avx512) when it is set
// and supported, otherwise as best().
Level active();

// Switches the level for later calls (not while a filter call runs);
// returns false, changing nothing, when the level is not supported.
bool set_level(Level level);

// "reference", "scalar", "sse2", "avx2", "avx512".
const char* name(Level level);

// Parses a name; returns false when it names no level.
bool parse(const char* text, Level* level);

}  // namespace simd
}  // namespace sw

#endif  // SHAPEWIENER_SIMD_SIMD_H
