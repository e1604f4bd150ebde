#include "shapewiener/plan.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>
#include <vector>

#include "cancel/cancel.h"
#include "driver/filter.h"
#include "driver/level_store.h"
#include "shape/shape.h"

namespace sw {

struct Plan::State {
    FilterCall call;
    uint32_t h = 1;
    bool keep_levels = false;
    // The list's keys are runs numbered 1, 2, 3, ... in list order, and no
    // entry is skipped for coverage: key change i of a full pass is key i + 1.
    bool numbered_keys = false;
    LevelStore store;
    // Keeps nothing; only says whether levels are of the whole shape.
    LevelStore unstored;
    // What the stored levels were computed on.
    bool bound = false;
    std::vector<double> noisy;
    FilterCall::Frame frame;
};

Plan::Plan() = default;
Plan::~Plan() = default;
Plan::Plan(Plan&&) noexcept = default;
Plan& Plan::operator=(Plan&&) noexcept = default;

bool Plan::flat_levels() const { return state_ && state_->store.flat; }

uint64_t Plan::stored_keys() const {
    if (!state_) return 0;
    uint64_t n = 0;
    for (uint8_t k : state_->store.known) n += k;
    return n;
}

namespace {

// Key changes of the whole list: no pass has more (a pass's accepted
// entries are a subsequence of the list).
uint64_t list_key_changes(const FilterCall& call) {
    const uint64_t count = call.image_dims.elements();
    const int32_t* keys = call.processing_list.data + count;
    uint64_t changes = 0;
    for (uint64_t i = 0; i < count; ++i) changes += (i == 0 || keys[i] != keys[i - 1]) ? 1 : 0;
    return changes;
}

// Whether the list's keys are runs numbered 1, 2, 3, ... in list order.
bool keys_numbered_in_order(const FilterCall& call) {
    const uint64_t count = call.image_dims.elements();
    const int32_t* keys = call.processing_list.data + count;
    if (count == 0 || keys[0] != 1) return false;
    for (uint64_t i = 1; i < count; ++i) {
        if (keys[i] != keys[i - 1] && keys[i] != keys[i - 1] + 1) return false;
    }
    return true;
}

// The list's key (0-based) of every key change of a pass over the entries
// on every step-th row and column of the frame, in order.
std::vector<uint32_t> sparse_key_slots(const FilterCall& call, const FilterCall::Frame& frame,
                                       uint32_t step) {
    const uint32_t m = static_cast<uint32_t>(call.image_dims.rows());
    const uint64_t count = call.image_dims.elements();
    const int32_t* pixels = call.processing_list.data;
    const int32_t* keys = pixels + count;
    const uint32_t row0 = frame.rows > 0 ? frame.row0 : 0;
    const uint32_t col0 = frame.rows > 0 ? frame.col0 : 0;
    std::vector<uint32_t> slots;
    int32_t previous = 0;
    for (uint64_t i = 0; i < count; ++i) {
        const uint32_t q = static_cast<uint32_t>(pixels[i]) - 1;
        if (!on_entry_lattice(q % m + row0, q / m + col0, step, call.entry_diagonal)) continue;
        if (slots.empty() || keys[i] != previous) slots.push_back(static_cast<uint32_t>(keys[i] - 1));
        previous = keys[i];
    }
    return slots;
}

bool same_frame(const FilterCall::Frame& a, const FilterCall::Frame& b) {
    return a.rows == b.rows && a.cols == b.cols && a.row0 == b.row0 && a.col0 == b.col0;
}

// Relative spread below which two values count as the same: far below
// float rounding of a level.
constexpr double kFlatTolerance = 1e-9;

// Whether every matrix of the call's bank is orthonormal (T T' = I).
bool orthonormal_bank(const FilterCall& call) {
    for (size_t i = 0; i < call.transform_count; ++i) {
        const uint64_t len = call.transforms[i].dims.rows();
        const double* t = call.transforms[i].data;
        for (uint64_t a = 0; a < len; ++a) {
            for (uint64_t b = 0; b < len; ++b) {
                double dot = 0.0;
                for (uint64_t s = 0; s < len; ++s) dot += t[a + s * len] * t[b + s * len];
                if (!(std::abs(dot - (a == b ? 1.0 : 0.0)) <= kFlatTolerance)) return false;
            }
        }
    }
    return true;
}

// The level every coefficient has when the spectrum is flat and the bank
// orthonormal (the mean of NoisePsd is the pixels' variance); false when
// either is not so.
bool flat_level(const FilterCall& call, float* level) {
    const uint64_t n = call.noise_psd.dims.rows();
    const uint64_t count = call.noise_psd.dims.elements();
    if (count == 0) return false;
    double lo = call.noise_psd.data[0], hi = lo, sum = 0.0;
    for (uint64_t i = 0; i < count; ++i) {
        const double v = call.noise_psd.data[i];
        lo = std::min(lo, v);
        hi = std::max(hi, v);
        sum += v;
    }
    if (!(lo >= 0.0) || !std::isfinite(hi) || hi - lo > kFlatTolerance * hi || n == 0 ||
        !orthonormal_bank(call)) {
        return false;
    }
    *level = static_cast<float>(std::sqrt(sum / static_cast<double>(count)) * call.noise_level_factor);
    return true;
}

// Whether every matrix's rows are even or odd: T(f, L-1-s) = +-T(f, s),
// one sign per row.
bool mirror_symmetric_bank(const FilterCall& call) {
    for (size_t i = 0; i < call.transform_count; ++i) {
        const uint64_t len = call.transforms[i].dims.rows();
        const double* t = call.transforms[i].data;
        for (uint64_t f = 0; f < len; ++f) {
            const double sign = t[f] * t[f + (len - 1) * len] < 0.0 ? -1.0 : 1.0;
            for (uint64_t s = 0; s < len; ++s) {
                const double d = t[f + (len - 1 - s) * len] - sign * t[f + s * len];
                if (!(std::abs(d) <= kFlatTolerance)) return false;
            }
        }
    }
    return true;
}

// Whether the spectrum, as the levels read it (rows u = 0..N/2, the rest
// by symmetry through the origin), is even across the lines: P(u, -v) =
// P(u, v).
bool mirror_symmetric_psd(const FilterCall& call) {
    const uint64_t n = call.noise_psd.dims.rows();
    const double* p = call.noise_psd.data;
    if (n == 0 || call.noise_psd.dims.elements() != n * n) return false;
    double largest = 0.0;
    for (uint64_t i = 0; i < n * n; ++i) largest = std::max(largest, std::abs(p[i]));
    for (uint64_t v = 0; v < n; ++v) {
        for (uint64_t u = 0; u <= n / 2; ++u) {
            const double d = p[u + n * v] - p[u + n * ((n - v) % n)];
            if (!(std::abs(d) <= kFlatTolerance * largest)) return false;
        }
    }
    return true;
}

// Keys of one geometry (see level_store.h): every list key's slot, and
// whether it computes on its mirror image. A key's geometry is its shape's
// pixels by line (block column) and place along the line.
void share_levels(const FilterCall& call, uint32_t h, LevelStore* store) {
    const uint32_t m = static_cast<uint32_t>(call.image_dims.rows());
    const uint32_t k = static_cast<uint32_t>(call.image_dims.cols());
    const uint64_t count = call.image_dims.elements();
    const int32_t* pixels = call.processing_list.data;
    const int32_t* keys = pixels + count;
    const uint32_t w = 2 * h - 1;
    const uint32_t reach = h - 1;
    const bool mirrors = mirror_symmetric_bank(call) && mirror_symmetric_psd(call);
    std::vector<uint32_t> scales(call.scale_set.dims.elements());
    for (size_t i = 0; i < scales.size(); ++i) scales[i] = round_to_unsigned(call.scale_set.data[i]);
    std::vector<uint32_t> slot_of_key(store->keys());
    std::vector<uint8_t> mirrored(store->keys(), 0);
    std::unordered_map<std::string, uint32_t> slot_of_geometry;
    std::string geometry, mirror;
    for (uint64_t i = 0; i < count; ++i) {
        if (i > 0 && keys[i] == keys[i - 1]) continue;
        if ((i & 0xfff) == 0) swcancel::cancel_point();
        const uint32_t key = static_cast<uint32_t>(keys[i] - 1);
        const uint32_t q = static_cast<uint32_t>(pixels[i]) - 1;
        const uint32_t row = q % m;
        const uint32_t col = q / m;
        uint32_t direction_scale[8];
        bool by_columns = false;
        shape_parameters(call.direction_scale_map.data, q, m * k, scales.data(), direction_scale,
                         &by_columns);
        const uint8_t* masks[8];
        fetch_sector_masks(call.sector_masks, direction_scale, h, masks);
        const ClippedBox clip = clipped_box(row, col, m, k, h);
        geometry.assign(static_cast<size_t>(w) * w, '0');
        mirror.assign(static_cast<size_t>(w) * w, '0');
        for (uint32_t x = clip.c0; x <= clip.c1; ++x) {
            const uint32_t j = x - col + reach;
            for (uint32_t y = clip.r0; y <= clip.r1; ++y) {
                const uint32_t a = y - row + reach;
                const uint32_t at = a + j * w;
                const uint8_t byte = sector_union_at(masks, at);
                if (byte == 0) continue;
                const uint32_t line = by_columns ? j : a;
                const uint32_t along = by_columns ? a : j;
                geometry[along + line * w] = '1';
                mirror[along + (w - 1 - line) * w] = '1';
            }
        }
        const bool flip = mirrors && mirror < geometry;
        const auto at = slot_of_geometry.try_emplace(flip ? mirror : geometry, key);
        if (key < slot_of_key.size()) {
            slot_of_key[key] = at.first->second;
            mirrored[key] = flip ? 1 : 0;
        }
    }
    store->slot_of_key = std::move(slot_of_key);
    store->mirrored = std::move(mirrored);
    store->guard = std::make_shared<std::mutex>();
}

// Plans without checking (run() is only given checked calls).
Error plan_call(const FilterCall& call, Plan::State* s, bool keep_levels, LevelRule rule,
                LevelScope scope) {
    s->call = call;
    s->h = round_to_unsigned(call.max_scale);
    s->keep_levels = false;
    const bool shape = rule == LevelRule::kShapeLevels;
    s->store.shape_levels = shape;
    s->unstored.shape_levels = shape;
    float level = 0.0f;
    if (rule != LevelRule::kComputed && flat_level(call, &level)) {
        const uint64_t w = 2 * uint64_t{s->h} - 1;
        s->store.area = static_cast<uint32_t>(w * w);
        s->store.flat = true;
        s->store.flat_level = level;
        return Error();
    }
    if (!keep_levels) return Error();
    const uint64_t w = 2 * uint64_t{s->h} - 1;
    const uint64_t keys = list_key_changes(call);
    s->numbered_keys = call.coverage_threshold >= 1e9 && keys_numbered_in_order(call);
    swcancel::cancel_point();
    if (keys * (w * w + 1) * sizeof(float) > Plan::kMaxStoredBytes) return Error();
    try {
        s->store.area = static_cast<uint32_t>(w * w);
        s->store.levels.assign(keys * w * w, 0.0f);
        s->store.dc.assign(keys, 0.0f);
        s->store.known.assign(keys, 0);
        s->store.any_image = scope == LevelScope::kAnyImage;
        if (shape && s->numbered_keys) share_levels(call, s->h, &s->store);
        s->keep_levels = true;
    } catch (const std::bad_alloc&) {
        s->store = LevelStore();  // computed per execution instead
        s->store.shape_levels = shape;
    }
    return Error();
}

}  // namespace

Error make_plan(const FilterCall& call, Plan* plan, bool keep_levels, LevelRule rule,
                LevelScope scope) {
    const Error e = check(call);
    if (e) return e;
    swcancel::cancel_point();
    plan->state_.reset(new Plan::State);
    return plan_call(call, plan->state_.get(), keep_levels, rule, scope);
}

namespace {

Error execute_pass(Plan::State& s, uint32_t entry_step, bool diagonal, bool by_shape,
                   double* noisy_image, double* pilot_image, double wiener_variance_factor,
                   const FilterCall::Frame& frame, double* output, const RunOptions& options) {
    FilterCall call = s.call;
    call.noisy_image = noisy_image;
    call.pilot_image = pilot_image;
    call.wiener_variance_factor = wiener_variance_factor;
    call.frame = frame;
    if (entry_step > 0) call.entry_step = entry_step;
    call.entry_diagonal = diagonal && call.entry_step > 1;
    LevelStore* store = s.store.flat ? &s.store : nullptr;
    if (s.keep_levels && (s.store.any_image || s.store.shape_levels)) {
        // Levels that do not depend on the noisy image.
        if (!s.bound || !same_frame(frame, s.frame)) {
            s.store.forget();
            s.frame = frame;
            s.bound = true;
        }
        store = &s.store;
    } else if (s.keep_levels) {
        const size_t count = static_cast<size_t>(call.image_dims.elements());
        if (!s.bound || !same_frame(frame, s.frame) ||
            std::memcmp(noisy_image, s.noisy.data(), sizeof(double) * count) != 0) {
            s.store.forget();
            s.bound = false;
            try {
                s.noisy.assign(noisy_image, noisy_image + count);
                s.frame = frame;
                s.bound = true;
            } catch (const std::bad_alloc&) {
                // This execution computes its levels without keeping them.
            }
        }
        if (s.bound) store = &s.store;
    }
    // A pass that skips other entries than the planned call numbers its key
    // changes differently: it maps them to the list's keys where the keys
    // are numbered shapes, and else keeps off the store.
    s.store.slot_of_change.clear();
    if (store == &s.store && !s.store.flat &&
        (call.entry_step != s.call.entry_step || call.entry_diagonal != s.call.entry_diagonal)) {
        if (!by_shape || !s.numbered_keys || s.call.entry_step > 1) {
            store = nullptr;
        } else if (call.entry_step > 1) {
            try {
                s.store.slot_of_change = sparse_key_slots(call, frame, call.entry_step);
            } catch (const std::bad_alloc&) {
                store = nullptr;
            }
        }
    }
    // Nothing stored: every key change computes its levels (of every
    // coefficient of the shape, with LevelRule::kShapeLevels).
    if (store == nullptr && s.unstored.shape_levels) store = &s.unstored;
    return stored_levels_entry(s.h)(call, output, options, s.h, store);
}

}  // namespace

Error execute(Plan& plan, double* noisy_image, double* pilot_image, double wiener_variance_factor,
              const FilterCall::Frame& frame, double* output, const RunOptions& options) {
    return execute_pass(*plan.state_, 0, false, false, noisy_image, pilot_image,
                        wiener_variance_factor, frame, output, options);
}

Error execute_sparse(Plan& plan, uint32_t entry_step, double* noisy_image, double* pilot_image,
                     double wiener_variance_factor, const FilterCall::Frame& frame,
                     double* output, const RunOptions& options, bool diagonal) {
    return execute_pass(*plan.state_, entry_step == 0 ? 1 : entry_step, diagonal, true, noisy_image,
                        pilot_image, wiener_variance_factor, frame, output, options);
}

Error run(const FilterCall& call, double* output, const RunOptions& options) {
    Plan::State s;
    plan_call(call, &s, false, LevelRule::kComputed, LevelScope::kThisImage);
    return stored_levels_entry(s.h)(call, output, options, s.h, nullptr);
}

}  // namespace sw
