#include "driver/parallel.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "driver/box.h"
#include "driver/entry.h"
#include "driver/filter.h"
#include "driver/kernels.h"
#include "driver/level_store.h"

namespace sw {
namespace {

// Chunks: at most kChunkEntries accepted entries, and values of at most
// kArenaFloats box pixels (at least one box). kChunkSlots chunks are in
// flight: the workers compute one while the calling thread commits an older
// one and plans the next. Key states live in a ring that holds the keys of
// every chunk in flight and the one carried into the oldest.
constexpr uint32_t kChunkEntries = 256;
constexpr uint32_t kChunkSlots = 3;
// Entries a thread takes at once (fewer trips through the run's mutex).
constexpr uint32_t kTakeEntries = 4;
constexpr uint64_t kArenaFloats = uint64_t{1} << 16;
constexpr uint64_t kLevelFloats = uint64_t{1} << 17;
// The calling thread offers the progress callback a turn after every
// kProgressInterval list entries and while it waits, at least this often.
constexpr uint32_t kProgressInterval = 4096;
constexpr auto kProgressWait = std::chrono::milliseconds(50);

// Buffer sizes for one call.
struct ChunkLimits {
    uint64_t arena_floats;  // per chunk
    uint32_t chunk_keys;    // key changes per chunk
    uint64_t key_slots;     // ring size
    uint64_t box_area;      // W*W
};

ChunkLimits chunk_limits(const WorkspaceSizes& sizes) {
    ChunkLimits c;
    c.box_area = uint64_t{sizes.w} * sizes.w;
    c.arena_floats = kArenaFloats > c.box_area ? kArenaFloats : c.box_area;
    const uint64_t keys = kLevelFloats / (kChunkSlots * c.box_area);
    c.chunk_keys = keys < 1 ? 1 : (keys > kChunkEntries ? kChunkEntries : static_cast<uint32_t>(keys));
    c.key_slots = uint64_t{kChunkSlots} * c.chunk_keys + 1;
    return c;
}

// One accepted entry of a chunk.
struct PlannedEntry {
    uint32_t pixel;   // 0-based
    uint32_t offset;  // its first value in the chunk's arena
    uint64_t key;     // number of its key state (counted over the call)
    bool key_change;
};

struct Chunk {
    std::vector<PlannedEntry> entries;  // list order
    std::vector<uint32_t> order;        // the key changes first, then the others
    std::vector<double> weights;
    std::vector<float> values;
    uint32_t list_end = 0;  // list position after the chunk
    // Guarded by the run's mutex.
    uint32_t taken = 0;
    uint32_t done = 0;
};

// The shape of one key and, once its key-change entry has computed them,
// its noise levels (in the run's level ring).
struct KeyState {
    KeyShape shape;
    float dc_level;
    std::atomic<uint64_t> ready{0};  // key number + 1 once the levels are in
};

uint64_t chunk_bytes(const WorkspaceSizes& sizes) {
    const ChunkLimits c = chunk_limits(sizes);
    const uint64_t per_chunk = c.arena_floats * sizeof(float) +
                               uint64_t{kChunkEntries} *
                                   (sizeof(PlannedEntry) + sizeof(uint32_t) + sizeof(double));
    const uint64_t committing = c.box_area * (1 + 2 * sizeof(uint32_t)) + sizes.w * sizeof(int32_t);
    return kChunkSlots * per_chunk + c.key_slots * (sizeof(KeyState) + c.box_area * sizeof(float)) +
           committing;
}

// Marks a shape's pixels in the coverage counts, as the aggregation does.
template <class Box>
void count_coverage(const Box& box, uint32_t row, uint32_t col, const ClippedBox& clip,
                    const uint8_t* const masks[8], uint32_t m, uint16_t* coverage_count) {
    const uint32_t w = box.W();
    const uint32_t reach = box.H() - 1;
    for (uint32_t x = clip.c0; x <= clip.c1; ++x) {
        const uint32_t j = x - col + reach;
        for (uint32_t y = clip.r0; y <= clip.r1; ++y) {
            const uint32_t at = y - row + reach + j * w;
            const uint8_t byte = sector_union_at(masks, at);
            if (byte == 0) continue;
            uint16_t& c = coverage_count[y + static_cast<size_t>(x) * m];
            c = static_cast<uint16_t>(c + 1);
        }
    }
}

template <uint32_t HC>
class ParallelRun {
public:
    ParallelRun(const FilterCall& call, double* output, const RunOptions& options, uint32_t h,
                unsigned threads, LevelStore* store)
        : call_(call),
          output_(output),
          options_(options),
          box_{h},
          m_(static_cast<uint32_t>(call.image_dims.rows())),
          k_(static_cast<uint32_t>(call.image_dims.cols())),
          pixel_count_(m_ * k_),
          sizes_{m_, k_, box_.W(), round_to_unsigned(call.dft_size),
                 static_cast<uint32_t>(call.scale_set.dims.elements())},
          limits_(chunk_limits(sizes_)),
          threshold_(round_to_unsigned(call.coverage_threshold)),
          // A 16-bit count never exceeds 65535: no entry is ever skipped.
          skipping_(threshold_ < 65535),
          step_(call.entry_step),
          row0_(call.frame.rows > 0 ? call.frame.row0 : 0),
          col0_(call.frame.rows > 0 ? call.frame.col0 : 0),
          threads_(threads),
          store_(store) {}

    ~ParallelRun() {
        stop_workers();
        if (have_workspace_) workspace_release(&ws_);
    }

    // Allocates and starts the workers; false when nothing could start.
    bool start(Error* error) {
        try {
            for (Chunk& c : chunks_) {
                c.entries.reserve(kChunkEntries);
                c.order.reserve(kChunkEntries);
                c.weights.resize(kChunkEntries);
                c.values.resize(static_cast<size_t>(limits_.arena_floats));
            }
            keys_ = std::vector<KeyState>(static_cast<size_t>(limits_.key_slots));
            const size_t area = static_cast<size_t>(limits_.box_area);
            commit_mask_.resize(area);
            commit_counts_.resize(sizes_.w);
            commit_offsets_.resize(area);
            commit_slots_.resize(area);
            committing_.layout = {commit_offsets_.data(), commit_slots_.data()};
            levels_.resize(static_cast<size_t>(limits_.key_slots * limits_.box_area));
        } catch (const std::bad_alloc&) {
            *error = out_of_memory();
            return true;
        }
        if (!workspace_create(sizes_, threads_, &ws_)) {
            *error = out_of_memory();
            return true;
        }
        have_workspace_ = true;
        try {
            // The calling thread computes too, with the last scratch set.
            workers_.reserve(threads_ - 1);
            for (unsigned i = 0; i + 1 < threads_; ++i) {
                workers_.emplace_back([this, i] { work(i); });
            }
        } catch (...) {
            // Fewer workers than asked for: go on with those that started.
        }
        return !workers_.empty();
    }

    Error run() {
        const CallState& cs = ws_.call;
        own_scratch_ = workspace_scratch(ws_, sizes_, threads_ - 1);
        own_listed_.layout = {own_scratch_.pixel_offset, own_scratch_.packed_slot};
        entry_setup(call_, cs, sizes_.w, sizes_.l, output_);

        uint64_t planned = 0;
        uint64_t committed = 0;
        uint32_t list_done = 0;
        uint32_t next_offer = kProgressInterval;
        for (;;) {
            while (planned - committed < kChunkSlots && list_at_ < pixel_count_) {
                Chunk& c = chunks_[planned % kChunkSlots];
                plan(&c);
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    ++planned_;
                }
                work_ready_.notify_all();
                ++planned;
            }
            if (committed == planned) break;
            Chunk& c = chunks_[committed % kChunkSlots];
            if (!wait_done(c, committed, list_done)) return interrupted();
            if (failed_.load()) return out_of_memory();
            for (uint32_t e = 0; e < c.entries.size(); ++e) {
                const PlannedEntry& pe = c.entries[e];
                const uint32_t col = pe.pixel / m_;
                const uint32_t row = pe.pixel - col * m_;
                const ClippedBox clip = clipped_box(row, col, m_, k_, box_.H());
                const ClipReach reach = clip_reach(clip, row, col);
                if (committing_.key != pe.key || !(committing_.reach == reach)) {
                    const KeyState& ks = keys_[pe.key % limits_.key_slots];
                    const uint8_t* masks[8];
                    fetch_sector_masks(call_.sector_masks, ks.shape.direction_scale, box_.H(), masks);
                    build_layout(box_, row, col, clip, masks, ks.shape.by_columns, m_,
                                 commit_mask_.data(), commit_counts_.data(), &committing_.layout);
                    committing_.key = pe.key;
                    committing_.reach = reach;
                }
                commit_listed(clip, committing_.layout, c.values.data() + pe.offset,
                              c.weights[e], m_, output_, cs.weight_sum);
            }
            ++committed;
            list_done = c.list_end;
            if (c.list_end >= next_offer && options_.progress) {
                next_offer = c.list_end - c.list_end % kProgressInterval + kProgressInterval;
                if (!options_.progress(static_cast<double>(c.list_end) / pixel_count_)) {
                    return interrupted();
                }
            }
        }
        stop_workers();
        normalise_output(output_, cs.weight_sum, pixel_count_);
        return Error();
    }

private:
    Error out_of_memory() const {
        return call_error(ErrorCode::kOutOfMemory, "shapewiener:memory:outOfMemory",
                          "not enough memory for the working arrays of this call.");
    }
    Error interrupted() {
        stop_workers();
        return call_error(ErrorCode::kInterrupted, "shapewiener:interrupted",
                          "the call was interrupted.");
    }

    // Plans the chunk from list position list_at_ on: the coverage test on
    // the simulated counts, key changes, shape parameters, arena offsets.
    void plan(Chunk* c) {
        const int32_t* pixels = call_.processing_list.data;
        const int32_t* keys = pixels + pixel_count_;
        const CallState& cs = ws_.call;
        c->entries.clear();
        c->order.clear();
        c->taken = 0;
        c->done = 0;
        uint64_t used = 0;
        uint32_t chunk_keys = 0;
        const uint64_t most = limits_.arena_floats;
        for (; list_at_ < pixel_count_ && c->entries.size() < kChunkEntries; ++list_at_) {
            const uint32_t q = static_cast<uint32_t>(pixels[list_at_]) - 1;
            if (skipping_ && cs.coverage_count[q] > threshold_) continue;
            const uint32_t col = q / m_;
            const uint32_t row = q - col * m_;
            if (!on_entry_lattice(row + row0_, col + col0_, step_, call_.entry_diagonal)) continue;
            const ClippedBox clip = clipped_box(row, col, m_, k_, box_.H());
            const uint64_t area = uint64_t{clip.r1 - clip.r0 + 1} * (clip.c1 - clip.c0 + 1);
            const int32_t key = keys[list_at_];
            const bool key_change = !have_key_ || key != previous_key_;
            if (used + area > most || (key_change && chunk_keys == limits_.chunk_keys)) break;
            if (key_change) {
                ++key_count_;
                KeyState& ks = keys_[(key_count_ - 1) % limits_.key_slots];
                shape_parameters(call_.direction_scale_map.data, q, pixel_count_, cs.rounded_scales,
                                 ks.shape.direction_scale, &ks.shape.by_columns);
                ++chunk_keys;
                c->order.push_back(static_cast<uint32_t>(c->entries.size()));
            }
            const uint64_t key_number = key_count_ - 1;
            c->entries.push_back({q, static_cast<uint32_t>(used), key_number, key_change});
            used += area;
            if (skipping_) {
                const KeyState& ks = keys_[key_number % limits_.key_slots];
                const uint8_t* masks[8];
                fetch_sector_masks(call_.sector_masks, ks.shape.direction_scale, box_.H(), masks);
                count_coverage(box_, row, col, clip, masks, m_, cs.coverage_count);
            }
            previous_key_ = key;
            have_key_ = true;
        }
        for (uint32_t e = 0; e < c->entries.size(); ++e) {
            if (!c->entries[e].key_change) c->order.push_back(e);
        }
        c->list_end = list_at_;
    }

    // Waits until every entry of chunk number `number` is computed, taking
    // entries itself while there are any left to take, and offering the
    // progress callback a turn at least every kProgressWait. False when it
    // says stop. Chunk number `number` must not be dispatched after this:
    // its slot gets the next chunk but two once it is committed.
    bool wait_done(Chunk& c, uint64_t number, uint32_t list_done) {
        auto offered = std::chrono::steady_clock::now();
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            if (c.done == c.entries.size() || failed_.load()) {
                if (dispatch_ <= number) dispatch_ = number + 1;
                return true;
            }
            if (!take_and_compute(lock, own_scratch_, &own_listed_)) {
                chunk_done_.wait_for(lock, kProgressWait, [&] {
                    return c.done == c.entries.size() || failed_.load() || dispatch_ < planned_;
                });
            }
            if (options_.progress) {
                const auto now = std::chrono::steady_clock::now();
                if (now - offered >= kProgressWait) {
                    offered = now;
                    lock.unlock();
                    if (!options_.progress(static_cast<double>(list_done) / pixel_count_)) {
                        return false;
                    }
                    lock.lock();
                }
            }
        }
    }

    // With `lock` held: takes the next entries (up to kTakeEntries) of the
    // oldest planned chunk that has any left, computes them in order
    // (without the lock) and counts them done. False when there is nothing
    // to take. A key change comes before every other entry of its chunk, so
    // a thread that waits for one waits for a thread that does not wait.
    bool take_and_compute(std::unique_lock<std::mutex>& lock, const EntryScratch& sc,
                          ListedShape* listed) {
        while (dispatch_ < planned_) {
            Chunk& c = chunks_[dispatch_ % kChunkSlots];
            if (c.taken == c.entries.size()) {
                ++dispatch_;
                continue;
            }
            const uint32_t first = c.taken;
            const uint32_t left = static_cast<uint32_t>(c.entries.size()) - first;
            const uint32_t count = left < kTakeEntries ? left : kTakeEntries;
            c.taken += count;
            lock.unlock();
            for (uint32_t i = first; i < first + count && !failed_.load(); ++i) {
                try {
                    compute(c, c.order[i], sc, listed);
                } catch (...) {
                    fail();
                }
            }
            lock.lock();
            c.done += count;
            if (c.done == c.entries.size()) chunk_done_.notify_all();
            return true;
        }
        return false;
    }

    void stop_workers() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        work_ready_.notify_all();
        for (std::thread& t : workers_) t.join();
        workers_.clear();
    }

    // A worker: computes entries of planned chunks until stopped.
    void work(unsigned index) {
        const EntryScratch sc = workspace_scratch(ws_, sizes_, index);
        ListedShape listed{{sc.pixel_offset, sc.packed_slot}};
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            if (stopping_) return;
            if (!take_and_compute(lock, sc, &listed)) work_ready_.wait(lock);
        }
    }

    // An entry could not be computed (no memory): the call reports
    // kOutOfMemory, and nobody waits for what it would have given.
    void fail() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            failed_.store(true);
        }
        key_ready_.notify_all();
        chunk_done_.notify_all();
    }

    // One entry, as the serial loop computes it, up to the values it would
    // aggregate.
    void compute(Chunk& c, uint32_t e, const EntryScratch& sc, ListedShape* listed) {
        const PlannedEntry& pe = c.entries[e];
        const uint64_t slot = pe.key % limits_.key_slots;
        KeyState& ks = keys_[slot];
        float* levels = levels_.data() + slot * limits_.box_area;
        const EntryInputs<HC> in(call_, ws_.call, box_.h);
        const EntryState es = entry_gather<Kernels>(in, pe.pixel, pe.key, ks.shape, sc, listed);
        entry_forward<Kernels>(in, es, sc);
        if (pe.key_change) {
            ks.dc_level = entry_levels<Kernels>(in, es, pe.key, ks.shape, sc, store_, levels);
            {
                std::lock_guard<std::mutex> lock(mutex_);
                ks.ready.store(pe.key + 1, std::memory_order_release);
            }
            key_ready_.notify_all();
        } else if (ks.ready.load(std::memory_order_acquire) != pe.key + 1) {
            std::unique_lock<std::mutex> lock(mutex_);
            key_ready_.wait(lock, [&] {
                return ks.ready.load(std::memory_order_acquire) == pe.key + 1 || failed_.load();
            });
            if (failed_.load()) return;
        }
        const ShrinkResult s = entry_shrink<Kernels>(in, es, sc, levels, ks.dc_level);
        entry_inverse<Kernels>(in, es, sc);
        c.weights[e] = estimate_listed(listed->layout, sc.noisy_gather, s.dc_estimate,
                                       s.estimate_variance,
                                       static_cast<double>(es.gather.shape_size),
                                       c.values.data() + pe.offset);
    }

    using Kernels = FastKernels;

    const FilterCall& call_;
    double* output_;
    const RunOptions& options_;
    const Box<HC> box_;
    const uint32_t m_;
    const uint32_t k_;
    const uint32_t pixel_count_;
    const WorkspaceSizes sizes_;
    const ChunkLimits limits_;
    const uint32_t threshold_;
    const bool skipping_;
    const uint32_t step_;
    const uint32_t row0_;
    const uint32_t col0_;
    const unsigned threads_;
    LevelStore* const store_;

    Workspace ws_;
    bool have_workspace_ = false;
    Chunk chunks_[kChunkSlots];
    std::vector<KeyState> keys_;
    std::vector<float> levels_;
    std::vector<std::thread> workers_;

    // The calling thread's scratch set and listed shape.
    EntryScratch own_scratch_{};
    ListedShape own_listed_{{nullptr, nullptr}};
    // The listed shape of the entries being committed, in arrays of its own.
    ListedShape committing_{{nullptr, nullptr}};
    std::vector<uint8_t> commit_mask_;
    std::vector<int32_t> commit_counts_;
    std::vector<uint32_t> commit_offsets_;
    std::vector<uint32_t> commit_slots_;

    // Planning state (calling thread).
    uint32_t list_at_ = 0;
    uint64_t key_count_ = 0;
    int32_t previous_key_ = 0;
    bool have_key_ = false;  // a key 0 on the first accepted entry is a key change

    std::mutex mutex_;
    std::condition_variable work_ready_;
    std::condition_variable chunk_done_;
    std::condition_variable key_ready_;
    // Guarded by mutex_: chunks the workers may take, the one they take from.
    uint64_t planned_ = 0;
    uint64_t dispatch_ = 0;
    bool stopping_ = false;
    std::atomic<bool> failed_{false};
};

}  // namespace

unsigned requested_threads(const RunOptions& options) {
    if (options.threads != 0) return options.threads;
    if (const char* text = std::getenv("SHAPEWIENER_THREADS")) {
        char* end = nullptr;
        const unsigned long v = std::strtoul(text, &end, 10);
        if (end != text && *end == '\0' && text[0] != '-' && v >= 1 && v <= kMaxThreads) {
            return static_cast<unsigned>(v);
        }
    }
    const unsigned hardware = std::thread::hardware_concurrency();
    return hardware == 0 ? 1 : hardware;
}

unsigned affordable_threads(const WorkspaceSizes& sizes, unsigned wanted) {
    if (wanted > kMaxThreads) wanted = kMaxThreads;
    const uint64_t fixed = chunk_bytes(sizes);
    for (unsigned t = wanted; t >= 2; --t) {
        if (workspace_bytes(sizes, t) + fixed <= UINT32_MAX) return t;
    }
    return 1;
}

template <uint32_t HC>
Error run_parallel(const FilterCall& call, double* output, const RunOptions& options, uint32_t h,
                   unsigned threads, LevelStore* store, bool* ran) {
    ParallelRun<HC> run(call, output, options, h, threads, store);
    Error error;
    *ran = run.start(&error);
    if (!*ran || error) return error;
    return run.run();
}

template Error run_parallel<0>(const FilterCall&, double*, const RunOptions&, uint32_t, unsigned,
                               LevelStore*, bool*);
#define SW_INSTANTIATE(H)                                                                      \
    template Error run_parallel<H>(const FilterCall&, double*, const RunOptions&, uint32_t,    \
                                   unsigned, LevelStore*, bool*);
SW_INSTANTIATE(4)
SW_INSTANTIATE(5)
SW_INSTANTIATE(6)
SW_INSTANTIATE(7)
SW_INSTANTIATE(8)
SW_INSTANTIATE(9)
SW_INSTANTIATE(10)
SW_INSTANTIATE(11)
#undef SW_INSTANTIATE

}  // namespace sw
