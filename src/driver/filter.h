// The filter of one call, defined once for every box size.
#ifndef SHAPEWIENER_DRIVER_FILTER_H
#define SHAPEWIENER_DRIVER_FILTER_H

#include <cstdint>

#include "shapewiener/filter.h"

namespace sw {

// Whether the entry of the pixel at (row, col) of the frame is on the
// lattice a pass with FilterCall::entry_step `step` and entry_diagonal
// `diagonal` processes.
inline bool on_entry_lattice(uint32_t row, uint32_t col, uint32_t step, bool diagonal) {
    if (step <= 1) return true;
    return diagonal ? (uint64_t{row} + col) % step == 0 : row % step == 0 && col % step == 0;
}

// An Error with the given code, identifier and message.
Error call_error(ErrorCode code, const char* identifier, const char* message);

// One filter definition: HC is the maximum scale fixed at build time (the
// size-specialised instantiations) or 0 for the general path, which takes
// the run-time value h.
using FilterEntry = Error (*)(const FilterCall& call, double* output, const RunOptions& options,
                              uint32_t h);

// The instantiation that serves maximum scale h: the size-specialised one
// for h in kSpecialisedScales, the general path otherwise.
FilterEntry filter_entry(uint32_t h);

struct LevelStore;

// The same, reading and filling a plan's stored noise levels (null: none).
using StoredLevelsEntry = Error (*)(const FilterCall& call, double* output,
                                    const RunOptions& options, uint32_t h, LevelStore* store);
StoredLevelsEntry stored_levels_entry(uint32_t h);

// The general path, whatever h is (for checks that compare the two).
Error run_general(const FilterCall& call, double* output, const RunOptions& options, uint32_t h);

}  // namespace sw

#endif  // SHAPEWIENER_DRIVER_FILTER_H
