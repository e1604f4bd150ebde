// Noise too weak to tell from the rounding of a quantised image.
#ifndef SHAPEWIENER_DENOISE_QUANTISED_H
#define SHAPEWIENER_DENOISE_QUANTISED_H

#include <vector>

namespace swdenoise {

// The step of the lattice all values lie on (an 8-bit image scaled to
// [0, 1]: 1 / 255; one stored as 0..255: 1), or 0 where they lie on none.
// The step is taken as the smallest nonzero difference of two neighbours
// along the columns; every value must then be an integer number of steps
// from the first one (within 1e-6 of a step). An image whose neighbours
// never differ by a single step reads as not quantised, which only keeps
// the rule below from applying.
double quantisation_step(const std::vector<double>& pixels);

// Noise whose estimated standard deviation stays below this many steps is
// no noise: the estimate of a noise-free 8-bit image reads the rounding and
// the finest structure at a grey level or two, and a denoiser handed that
// moves edges and texture by several levels. Noise that weak is also below
// what the result's own rounding keeps.
const double kQuietSteps = 2.0;

}  // namespace swdenoise

#endif  // SHAPEWIENER_DENOISE_QUANTISED_H
