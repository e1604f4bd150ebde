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
// Where a coefficient was exactly 0 the store keeps a NaN (no level was
// computed there). A load gives 0 wherever the loading entry's coefficient
// is 0 and the stored level everywhere else; where that entry has a
// coefficient the stored one lacked, the load fails and the key's levels
// are computed (and stored) afresh. So loaded levels have the bits of
// computed ones even when another entry of the same shape computed them.
//
// Keys by shape: when every key of the processing list is one run and the
// keys count 1, 2, 3, ... in list order (the denoiser's lists: one key per
// distinct shape), a key's levels depend on its shape alone, up to the
// zeros above. The store then serves a pass that skips entries (a sparse
// pass, FilterCall::entry_step) as well: its key changes are mapped to the
// list's keys (`slot_of_change`), so the levels a sparse pass computes serve
// the full passes after it and the other way round.
//
// Keys of one geometry: a key's levels depend only on where its shape's
// pixels lie along and across the lines it is packed in (the orientation
// only names which image axis the lines follow). Keys whose shapes agree
// there share one slot (`slot_of_key`), and each computes its levels on
// that common geometry, so whichever key computes them gives the same bits.
// With transforms whose rows are even or odd (T(f, L-1-s) = (-1)^f T(f, s))
// and a spectrum even across the lines, a shape and its mirror image across
// the lines have the same levels in exact arithmetic (the mirror flips the
// signs of coefficients only): they share a slot too, the mirrored key
// computing on the mirror of its geometry (`mirrored`). Keys that share a
// slot may meet it in one pass on two threads: load and save then hold
// `guard`.
//
// A plan may instead hold one flat level (see LevelRule in plan.h): with a
// flat spectrum and orthonormal transforms every coefficient's variance is
// the spectrum's value, so the levels need no spectra at all. They then
// equal the computed ones up to rounding, not bit for bit.
#ifndef SHAPEWIENER_DRIVER_LEVEL_STORE_H
#define SHAPEWIENER_DRIVER_LEVEL_STORE_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <vector>

namespace sw {

struct LevelStore {
    uint32_t area = 0;           // W*W levels per key
    std::vector<float> levels;   // keys * area
    std::vector<float> dc;       // keys
    std::vector<uint8_t> known;  // keys; 1 once stored
    bool flat = false;           // every level is flat_level (area set, nothing stored)
    float flat_level = 0.0f;
    // Stored levels serve other noisy images too (LevelScope::kAnyImage).
    bool any_image = false;
    // Every coefficient of the shape has its level, whatever the entry's
    // values (LevelRule::kShapeLevels): a key's levels follow from its shape
    // alone, whichever entry comes first. Set on a store that keeps nothing
    // too (keys() 0): the entries that compute levels then ask for all.
    bool shape_levels = false;
    // Keys by shape (see above): key change number i of the running pass is
    // the list's key slot_of_change[i] (empty: i itself).
    std::vector<uint32_t> slot_of_change;

    // Keys of one geometry (see above), by the list's key (0-based): the
    // slot of its levels, and whether it computes on the mirror of its own
    // geometry. Empty: every key its own slot.
    std::vector<uint32_t> slot_of_key;
    std::vector<uint8_t> mirrored;
    std::shared_ptr<std::mutex> guard;

    uint64_t keys() const { return known.size(); }

    // The list's key of key change `key` of the running pass.
    uint64_t list_key(uint64_t key) const {
        if (slot_of_change.empty()) return key;
        return key < slot_of_change.size() ? slot_of_change[key] : known.size();
    }
    // Whether key change `key` computes its levels on the mirror of its
    // geometry; false when keys do not share slots.
    bool mirror(uint64_t key) const {
        const uint64_t k = list_key(key);
        return k < mirrored.size() && mirrored[k] != 0;
    }

    // Writes key change `key`'s levels into `levels_out` and returns true
    // when they are stored, or flat: then every coefficient that is exactly
    // 0 in `noisy_coefficients` (the key's first entry) gets 0, as it would
    // from the spectra (not with shape_levels), every other one and the mean
    // flat_level. False where the stored levels lack one of the entry's
    // coefficients.
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
        std::unique_lock<std::mutex> lock;
        if (guard) lock = std::unique_lock<std::mutex>(*guard);
        const uint64_t slot = slot_of(key);
        if (slot >= known.size() || known[slot] == 0) return false;
        const float* stored = levels.data() + slot * area;
        if (shape_levels) {  // the key's levels whatever the entry: nothing to check
            std::memcpy(levels_out, stored, sizeof(float) * area);
            *dc_out = dc[slot];
            return true;
        }
        for (uint32_t t = 0; t < area; ++t) {
            if (noisy_coefficients[t] == 0.0f) {
                levels_out[t] = 0.0f;
            } else if (std::isnan(stored[t])) {
                return false;
            } else {
                levels_out[t] = stored[t];
            }
        }
        *dc_out = dc[slot];
        return true;
    }
    void save(uint64_t key, const float* noisy_coefficients, const float* levels_in, float dc_in) {
        std::unique_lock<std::mutex> lock;
        if (guard) lock = std::unique_lock<std::mutex>(*guard);
        const uint64_t slot = slot_of(key);
        if (slot >= known.size()) return;
        float* stored = levels.data() + slot * area;
        for (uint32_t t = 0; t < area; ++t) {
            stored[t] = noisy_coefficients[t] == 0.0f ? std::numeric_limits<float>::quiet_NaN()
                                                      : levels_in[t];
        }
        dc[slot] = dc_in;
        known[slot] = 1;
    }
    void forget() { std::fill(known.begin(), known.end(), uint8_t{0}); }

private:
    uint64_t slot_of(uint64_t key) const {
        const uint64_t k = list_key(key);
        if (slot_of_key.empty() || k >= slot_of_key.size()) return k;
        return slot_of_key[k];
    }
};

}  // namespace sw

#endif  // SHAPEWIENER_DRIVER_LEVEL_STORE_H
