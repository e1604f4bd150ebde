// The last step of the noise estimate: white noise under an image whose own
// energy lifts the lowest frequencies of every block.
#ifndef SHAPEWIENER_DENOISE_WHITE_FLOOR_H
#define SHAPEWIENER_DENOISE_WHITE_FLOOR_H

#include <cstdint>
#include <vector>

namespace swdenoise {

// At the lowest frequencies every block of a natural image holds structure,
// so a block estimate of white noise rises towards DC (by 2 to 100 times on
// textured images) while it stays flat above. The denoiser reads such a rise
// as low-frequency noise and smooths the image's coarse structure away. A
// spectrum (rows x cols, column-major, DC at (0, 0)) whose values at
// frequencies of at least 0.14 cycles per pixel lie within a factor 1.6
// (5th to 95th percentile) is taken as white: it becomes flat at the median
// of those values. Correlated noise (low-pass, line, ring, 1/f, broad bands)
// spreads by a factor 3 or more there; white noise's block estimate by about
// 1.2 to 1.45. Narrow peaks are too few to move those percentiles: the
// caller keeps a spectrum with peaks out of this. Returns whether it did.
bool settle_white(std::vector<double>* psd, uint32_t rows, uint32_t cols);

}  // namespace swdenoise

#endif  // SHAPEWIENER_DENOISE_WHITE_FLOOR_H
