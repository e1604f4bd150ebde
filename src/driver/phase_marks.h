// Phase marks for profiling builds. The filter marks the start of each phase
// of an entry; in normal builds the marks compile to nothing. A profiling
// build defines SHAPEWIENER_PHASE_MARKS and links an implementation of
// sw::phase_mark (the benchmark does).
#ifndef SHAPEWIENER_DRIVER_PHASE_MARKS_H
#define SHAPEWIENER_DRIVER_PHASE_MARKS_H

namespace sw {

enum Phase : int {
    kPhaseSetup = 0,       // workspace, output, tables, dither
    kPhaseShape = 1,       // clipped box, shape, gathering, mean removal
    kPhaseForward = 2,     // forward shape transform
    kPhaseNoiseLevel = 3,  // coefficient noise levels (key changes only)
    kPhaseShrink = 4,      // Wiener shrinkage
    kPhaseInverse = 5,     // inverse shape transform
    kPhaseAggregate = 6,   // aggregation
    kPhaseLoop = 7,        // list walking, coverage test, skipped entries
    kPhaseFinish = 8,      // final normalisation and release
    kPhaseDone = 9,        // call finished
    kPhaseCount = 10,
};

#ifdef SHAPEWIENER_PHASE_MARKS
void phase_mark(Phase phase);
#define SW_PHASE_MARK(p) ::sw::phase_mark(p)
#else
#define SW_PHASE_MARK(p) ((void)0)
#endif

}  // namespace sw

#endif  // SHAPEWIENER_DRIVER_PHASE_MARKS_H
