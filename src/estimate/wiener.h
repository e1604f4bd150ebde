// Empirical Wiener shrinkage of a shape's coefficients and of its mean.
#ifndef SHAPEWIENER_ESTIMATE_WIENER_H
#define SHAPEWIENER_ESTIMATE_WIENER_H

#include <cstdint>

namespace sw {

struct ShrinkResult {
    float dc_estimate;        // shrunk noisy mean
    float estimate_variance;  // w0^2 s0^2 + sum s[t]^2 w[t]^2
};

// Shrinks every non-zero noisy coefficient y[t] by w = e^2 / (s^2 lambda + e^2)
// with e the pilot coefficient and s the coefficient's noise level, and the
// noisy mean by w0 = mp^2 / (s0^2 lambda / n + mp^2). Clears both gather
// arrays at every position in the same sweep.
// The shape mean's shrinkage and the result, given `variance`, the sum of
// the shrunk coefficients' variances.
inline ShrinkResult shrink_mean(float variance, float dc_noise_level, float noisy_mean,
                                float pilot_mean, double shape_size, double lambda) {
    const float pilot_power = pilot_mean * pilot_mean;
    const float dc_noise = dc_noise_level * dc_noise_level;
    const double dp = static_cast<double>(pilot_power);
    const float dc_factor =
        static_cast<float>(dp / ((static_cast<double>(dc_noise) * lambda) / shape_size + dp));
    ShrinkResult result;
    result.dc_estimate = noisy_mean * dc_factor;
    result.estimate_variance = ((dc_factor * dc_factor) * dc_noise_level) * dc_noise_level + variance;
    return result;
}

template <class Box>
ShrinkResult wiener_shrink(const Box& box, float* noisy_coefficients,
                           const float* pilot_coefficients, const float* noise_level,
                           float dc_noise_level, float noisy_mean, float pilot_mean,
                           double shape_size, double lambda, float* noisy_gather,
                           float* pilot_gather) {
    const uint32_t area = box.W() * box.W();
    float variance = 0.0f;
    for (uint32_t t = 0; t < area; ++t) {
        const float y = noisy_coefficients[t];
        if (y != 0.0f) {
            const float e = pilot_coefficients[t];
            const float sigma = noise_level[t];
            const float energy = e * e;
            const float noise = sigma * sigma;
            const double de = static_cast<double>(energy);
            const float factor = static_cast<float>(de / (static_cast<double>(noise) * lambda + de));
            noisy_coefficients[t] = y * factor;
            variance = variance + sigma * ((factor * factor) * sigma);
        }
        noisy_gather[t] = 0.0f;
        pilot_gather[t] = 0.0f;
    }
    return shrink_mean(variance, dc_noise_level, noisy_mean, pilot_mean, shape_size, lambda);
}

}  // namespace sw

#endif  // SHAPEWIENER_ESTIMATE_WIENER_H
