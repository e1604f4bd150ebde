// shapewiener: a filter plan, made once per image and executed per pass.
//
// A plan holds what is fixed for one image: the shapes (scales, sector
// masks, processing list), the transforms, the noise spectrum, and, once a
// pass has computed them, every key's coefficient noise levels. Each
// execution is one call of the filter (see filter.h) against its own pilot
// image and Wiener factor; the levels are computed by the first execution
// and read by the later ones over the same noisy image, with the same bits
// as a call that computes them. A multi-pass caller thus pays for the
// levels once:
//
//     sw::Plan plan;
//     if (sw::Error e = sw::make_plan(call, &plan)) ...;   // checks `call`
//     for each pass: sw::execute(plan, noisy_copy, pilot, factor, frame, out, options);
//
// sw::run(call, ...) is one plan executed once, without keeping levels.
#ifndef SHAPEWIENER_PLAN_H
#define SHAPEWIENER_PLAN_H

#include <memory>

#include "shapewiener/filter.h"

namespace sw {

// How a plan's executions get the coefficient noise levels.
//  kComputed: from the noise spectrum, as run() computes them (its bits).
//  kFlatShortcut: where the spectrum is flat (white noise: every value of
//    NoisePsd the same) and every transform orthonormal, a coefficient's
//    variance is the spectrum's value whatever its shape, so every level is
//    sqrt(NoisePsd) * NoiseLevelFactor (0 where the noisy coefficient is 0)
//    without any spectrum work. The levels then equal the computed ones up
//    to rounding, not bit for bit: for callers that do not promise run()'s
//    bits (the denoiser). Any other call is planned as with kComputed.
//  kShapeLevels: as kFlatShortcut, and every coefficient of a key's shape
//    gets its level whatever the entry's values. run() gives a coefficient
//    level 0 where the key's first entry has it exactly 0 (as the rounding
//    of the mean removal can leave it), so its levels depend on which entry
//    comes first: a tile of an image, or another image, may have another
//    first entry. Here a key's levels follow from its shape and the
//    spectrum alone: a tile executed with its frame gets, for every key it
//    keeps, the levels the whole image gets, and stored levels serve any
//    noisy image. Equal to run()'s except where it would give 0.
enum class LevelRule { kComputed, kFlatShortcut, kShapeLevels };

// Which noisy images a plan's stored levels serve.
//  kThisImage: the one that computed them (run()'s bits).
//  kAnyImage: every noisy image executed with the plan (same frame): each
//    key keeps the levels of the first image's first entry, with 0 wherever
//    an entry's own noisy coefficient is exactly 0 (as computed levels have
//    where the first image's is). For a caller that filters several images
//    with the same noise spectrum (the channels of a colour image): the
//    levels are computed once for all of them. The first image's levels
//    have run()'s bits; another image's are those of its own spectrum only
//    up to which of its coefficients are exactly 0.
enum class LevelScope { kThisImage, kAnyImage };

class Plan {
public:
    Plan();
    ~Plan();
    Plan(Plan&&) noexcept;
    Plan& operator=(Plan&&) noexcept;
    Plan(const Plan&) = delete;
    Plan& operator=(const Plan&) = delete;

    // Keys whose noise levels the plan holds (0 before the first execution,
    // and always 0 when the levels would take more than kMaxStoredBytes).
    uint64_t stored_keys() const;
    // Whether the plan's levels are flat (LevelRule::kFlatShortcut applied).
    bool flat_levels() const;
    static constexpr uint64_t kMaxStoredBytes = uint64_t{512} << 20;

    struct State;

private:
    std::unique_ptr<State> state_;
    friend Error make_plan(const FilterCall& call, Plan* plan, bool keep_levels, LevelRule rule,
                           LevelScope scope);
    friend Error execute(Plan& plan, double* noisy_image, double* pilot_image,
                         double wiener_variance_factor, const FilterCall::Frame& frame,
                         double* output, const RunOptions& options);
    friend Error execute_sparse(Plan& plan, uint32_t entry_step, double* noisy_image,
                                double* pilot_image, double wiener_variance_factor,
                                const FilterCall::Frame& frame, double* output,
                                const RunOptions& options, bool diagonal);
};

// Checks `call` as check() does and plans it. The plan refers to the call's
// arrays (all but the two images, which each execution names): they must
// outlive it, unchanged. `keep_levels` false: every execution computes its
// own levels (one-pass callers save the store's memory). `rule`: see
// LevelRule; `scope`: see LevelScope.
Error make_plan(const FilterCall& call, Plan* plan, bool keep_levels = true,
                LevelRule rule = LevelRule::kComputed,
                LevelScope scope = LevelScope::kThisImage);

// One pass: the call the plan was made from, with these images (M x K, as
// planned; both dithered in place), Wiener factor and frame. Returns what
// run() returns. The stored levels are those of the first execution's noisy
// image and frame; an execution with another frame, or (LevelScope::
// kThisImage, unless LevelRule::kShapeLevels) another noisy image, computes
// (and stores) them afresh.
Error execute(Plan& plan, double* noisy_image, double* pilot_image, double wiener_variance_factor,
              const FilterCall::Frame& frame, double* output,
              const RunOptions& options = RunOptions());

// execute() with FilterCall::entry_step = `entry_step` (0 or 1: every
// entry) in place of the planned call's, for a plan of a call with
// entry_step 1 whose every key is one run of the list, the keys numbered 1,
// 2, 3, ... in list order, and every entry of a key of the key's shape (the
// lists of one key per distinct shape). The caller promises the last part.
// Such a list's levels depend on the key alone, up to which coefficients
// are exactly 0, so the passes share the stored levels whatever their step:
// a sparse first pass computes the levels of the keys it meets, and the
// full passes after it compute only the rest; every level has the bits a
// computing pass gives it. Other plans: the pass computes its own levels.
// `diagonal`: FilterCall::entry_diagonal (the entries on diagonal lines).
Error execute_sparse(Plan& plan, uint32_t entry_step, double* noisy_image, double* pilot_image,
                     double wiener_variance_factor, const FilterCall::Frame& frame,
                     double* output, const RunOptions& options = RunOptions(),
                     bool diagonal = false);

}  // namespace sw

#endif  // SHAPEWIENER_PLAN_H
