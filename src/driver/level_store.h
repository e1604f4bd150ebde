// The noise levels of a plan's keys, kept from one pass to the next.
//
// A key's levels follow from its shape, the noise spectrum and which of its
// first accepted entry's noisy coefficients are exactly 0; none of these
// depends on the pilot image or the Wiener factor. Which entries are
// accepted, and so which entry is a key's first, follows from the shapes
// alone. So a pass over the same noisy image (and frame) numbers its key
// changes as every other pass does, and key number i has the same levels,
// bit for bit, in every pass: the first pass stores them, later ones read
// them. Each key is written by the one thread that computes its key change.
//
// A plan may instead hold one flat level (see LevelRule in plan.h): with a
// flat spectrum and orthonormal transforms every coefficient's variance is
// the spectrum's value, so the levels need no spectra at all. They then
// equal the computed ones up to rounding, not bit for bit.
#ifndef SHAPEWIENER_DRIVER_LEVEL_STORE_H
#define SHAPEWIENER_DRIVER_LEVEL_STORE_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace sw {

struct LevelStore {
    uint32_t area = 0;           // W*W levels per key
    std::vector<float> levels;   // keys * area
    std::vector<float> dc;       // keys
    std::vector<uint8_t> known;  // keys; 1 once stored
    bool flat = false;           // every level is flat_level (area set, nothing stored)
    float flat_level = 0.0f;
    // Stored levels serve other noisy images too (LevelScope::kAnyImage):
    // a load gives 0 wherever the entry's noisy coefficient is exactly 0.
    bool any_image = false;
    // Every coefficient of the shape has its level, whatever the entry's
    // values (LevelRule::kShapeLevels): the levels depend on the key alone.
    // Set on a plan that stores nothing too (keys() 0): computing entries
    // then ask for every coefficient's level.
    bool shape_levels = false;

    uint64_t keys() const { return known.size(); }

    // Writes key `key`'s levels into `levels_out` and returns true when they
    // are stored, or flat: then every coefficient that is exactly 0 in
    // `noisy_coefficients` (the key's first entry) gets 0, as it would from
    // the spectra, every other one and the mean flat_level. Stored levels
    // for any image get the same zeros. With shape_levels no zeros.
    bool load(uint64_t key, const float* noisy_coefficients, float* levels_out,
              float* dc_out) const {
        if (flat) {
            for (uint32_t t = 0; t < area; ++t) {
                levels_out[t] =
                    noisy_coefficients[t] == 0.0f && !shape_levels ? 0.0f : flat_level;
            }
            *dc_out = flat_level;
            return true;
        }
        if (key >= known.size() || known[key] == 0) return false;
        const float* stored = levels.data() + key * area;
        if (any_image && !shape_levels) {
            for (uint32_t t = 0; t < area; ++t) {
                levels_out[t] = noisy_coefficients[t] == 0.0f ? 0.0f : stored[t];
            }
        } else {
            std::memcpy(levels_out, stored, sizeof(float) * area);
        }
        *dc_out = dc[key];
        return true;
    }
    void save(uint64_t key, const float* levels_in, float dc_in) {
        if (key >= known.size()) return;
        std::memcpy(levels.data() + key * area, levels_in, sizeof(float) * area);
        dc[key] = dc_in;
        known[key] = 1;
    }
    void forget() { std::fill(known.begin(), known.end(), uint8_t{0}); }
};

}  // namespace sw

#endif  // SHAPEWIENER_DRIVER_LEVEL_STORE_H
