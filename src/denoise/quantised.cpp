#include "denoise/quantised.h"

#include <cmath>

namespace swdenoise {

double quantisation_step(const std::vector<double>& pixels) {
    if (pixels.size() < 2) return 0.0;
    double step = 0.0;
    for (size_t i = 1; i < pixels.size(); ++i) {
        const double d = std::fabs(pixels[i] - pixels[i - 1]);
        if (d > 0.0 && (step == 0.0 || d < step)) step = d;
    }
    if (!(step > 0.0)) return 0.0;
    const double first = pixels[0];
    for (double v : pixels) {
        const double k = (v - first) / step;
        if (!(std::fabs(k - std::nearbyint(k)) <= 1e-6)) return 0.0;
    }
    return step;
}

}  // namespace swdenoise
