#include "caller/processing_list.h"

#include "cancel/cancel.h"
#include "shape/shape.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <tuple>
#include <unordered_map>

namespace swcaller {
namespace {

// The part of the W x W box around (row, col) that lies inside the image:
// box rows i0..i1 and columns j0..j1, inclusive.
struct BoxWindow {
    uint32_t i0, i1, j0, j1;
};

BoxWindow box_window(uint32_t h, uint32_t row, uint32_t col, uint32_t rows, uint32_t cols) {
    const uint32_t reach = h - 1;
    BoxWindow b;
    b.i0 = row >= reach ? 0 : reach - row;
    b.j0 = col >= reach ? 0 : reach - col;
    b.i1 = reach + (rows - 1 - row < reach ? rows - 1 - row : reach);
    b.j1 = reach + (cols - 1 - col < reach ? cols - 1 - col : reach);
    return b;
}

// Whether masks a and b agree at every position of the window.
bool agree_inside(const Mask& a, const Mask& b, uint32_t w, const BoxWindow& window) {
    for (uint32_t j = window.j0; j <= window.j1; ++j) {
        for (uint32_t i = window.i0; i <= window.i1; ++i) {
            if ((a[i + j * w] != 0) != (b[i + j * w] != 0)) return false;
        }
    }
    return true;
}

// One run of consecutive entries with one key: the union of sectors of its
// first pixel (an index into the table of distinct unions) and its pixels.
struct Run {
    uint32_t union_index;
    std::vector<int32_t> pixels;
};

}  // namespace

Mask sector_union(uint32_t h, const SectorMaskBank& bank, const uint32_t scales[8]) {
    const uint32_t w = 2 * h - 1;
    Mask shape(static_cast<size_t>(w) * w, 0);
    for (uint32_t d = 0; d < 8; ++d) {
        const uint32_t a = scales[sector_first_plane(d)];
        const uint32_t b = scales[sector_second_plane(d)];
        const Mask& sector = bank.at(sector_cell_index(h, d, a, b));
        for (size_t t = 0; t < shape.size(); ++t) shape[t] = shape[t] | sector[t];
    }
    return shape;
}

Mask clip_to_image(const Mask& mask, uint32_t h, uint32_t row, uint32_t col, uint32_t rows,
                   uint32_t cols) {
    const uint32_t w = 2 * h - 1;
    const BoxWindow window = box_window(h, row, col, rows, cols);
    Mask clipped(mask.size(), 0);
    for (uint32_t j = window.j0; j <= window.j1; ++j) {
        for (uint32_t i = window.i0; i <= window.i1; ++i) clipped[i + j * w] = mask[i + j * w];
    }
    return clipped;
}

namespace {

// A pixel's eight scale indices, into q and packed into one word (equal
// words, equal unions).
uint64_t packed_indices(const DirectionScaleMap& map, uint32_t row, uint32_t col, uint8_t q[8]) {
    uint64_t packed = 0;
    for (uint32_t d = 0; d < 8; ++d) {
        q[d] = map.at(row, col, d);
        packed |= static_cast<uint64_t>(q[d]) << (8 * d);
    }
    return packed;
}

// The scale lengths that the indices q select, into scales; `who` names the
// builder in its errors.
void selected_scales(const uint8_t q[8], uint32_t h, const std::vector<double>& scale_set,
                     const char* who, uint32_t scales[8]) {
    for (uint32_t d = 0; d < 8; ++d) {
        if (q[d] < 1 || q[d] > scale_set.size()) {
            throw std::invalid_argument(std::string(who) + ": scale index out of range");
        }
        scales[d] = scale_length(scale_set[q[d] - 1]);
        if (scales[d] < 1 || scales[d] > h) {
            throw std::invalid_argument(std::string(who) + ": scale outside 1..h");
        }
    }
}

// The union of sectors that the indices q select.
Mask selected_union(const uint8_t q[8], uint32_t h, const std::vector<double>& scale_set,
                    const SectorMaskBank& bank, const char* who) {
    uint32_t scales[8];
    selected_scales(q, h, scale_set, who, scales);
    return sector_union(h, bank, scales);
}

// A W x W mask as bits (W * W <= 1024: h <= 16), element t at bit t % 64
// of word t / 64; unused bits 0.
using MaskBits = std::array<uint64_t, 16>;

struct MaskBitsHash {
    size_t operator()(const MaskBits& b) const {
        uint64_t x = 0;
        for (uint64_t v : b) x = (x ^ v) * 0x9E3779B97F4A7C15ull;
        return static_cast<size_t>(x ^ (x >> 29));
    }
};

// Whether mask a comes before mask b in the order of their bytes (0 or 1)
// from element 0 on, as std::vector's operator< orders the masks.
bool bits_before(const MaskBits& a, const MaskBits& b) {
    for (size_t i = 0; i < a.size(); ++i) {
        const uint64_t differ = a[i] ^ b[i];
        if (differ != 0) return (a[i] & (differ & (~differ + 1))) == 0;
    }
    return false;
}

MaskBits mask_bits(const Mask& mask) {
    MaskBits b{};
    for (size_t t = 0; t < mask.size(); ++t) {
        if (mask[t] != 0) b[t / 64] |= uint64_t{1} << (t % 64);
    }
    return b;
}

}  // namespace

ProcessingList build_processing_list(uint32_t h, const std::vector<double>& scale_set,
                                     const DirectionScaleMap& map, const SectorMaskBank& bank) {
    const uint32_t w = 2 * h - 1;
    const uint32_t rows = map.rows;
    const uint32_t cols = map.cols;
    if (bank.size() != static_cast<size_t>(8) * h * h) {
        throw std::invalid_argument("build_processing_list: the bank does not match h");
    }

    // Distinct unions of sectors, one per distinct set of eight raw indices.
    std::vector<Mask> unions;
    std::unordered_map<uint64_t, uint32_t> union_of_indices;

    // Shape groups by signature (clipped union and orientation), each a list
    // of runs, in order of their first pixel.
    std::unordered_map<std::string, uint32_t> group_of_signature;
    std::vector<std::vector<Run>> groups;

    std::string signature(static_cast<size_t>(w) * w + 1, '\0');
    for (uint32_t col = 0; col < cols; ++col) {
        swcancel::cancel_point();
        for (uint32_t row = 0; row < rows; ++row) {
            uint8_t q[8];
            const uint64_t packed = packed_indices(map, row, col, q);
            auto found = union_of_indices.find(packed);
            if (found == union_of_indices.end()) {
                Mask u = selected_union(q, h, scale_set, bank, "build_processing_list");
                found = union_of_indices.emplace(packed, static_cast<uint32_t>(unions.size())).first;
                unions.push_back(std::move(u));
            }
            const uint32_t union_index = found->second;
            const Mask& own = unions[union_index];

            const BoxWindow window = box_window(h, row, col, rows, cols);
            for (uint32_t t = 0; t < w * w; ++t) {
                const uint32_t i = t % w;
                const uint32_t j = t / w;
                const bool inside = i >= window.i0 && i <= window.i1 && j >= window.j0 && j <= window.j1;
                signature[t] = (inside && own[t] != 0) ? '1' : '0';
            }
            signature[static_cast<size_t>(w) * w] = sw::pack_by_columns(q) ? 'c' : 'r';

            const auto group = group_of_signature.emplace(signature, static_cast<uint32_t>(groups.size()));
            if (group.second) groups.emplace_back();
            std::vector<Run>& runs = groups[group.first->second];

            const int32_t pixel = static_cast<int32_t>(row + static_cast<size_t>(col) * rows + 1);
            Run* target = nullptr;
            for (Run& run : runs) {
                if (run.union_index == union_index ||
                    agree_inside(unions[run.union_index], own, w, window)) {
                    target = &run;
                    break;
                }
            }
            if (target == nullptr) {
                runs.push_back(Run{union_index, {}});
                target = &runs.back();
            }
            target->pixels.push_back(pixel);
        }
    }

    ProcessingList list;
    list.pixels.reserve(static_cast<size_t>(rows) * cols);
    list.keys.reserve(static_cast<size_t>(rows) * cols);
    int32_t key = 0;
    for (const std::vector<Run>& runs : groups) {
        for (const Run& run : runs) {
            ++key;
            for (int32_t pixel : run.pixels) {
                list.pixels.push_back(pixel);
                list.keys.push_back(key);
            }
        }
    }
    list.key_changes = static_cast<uint32_t>(key);
    return list;
}

ProcessingList build_shape_list(uint32_t h, const std::vector<double>& scale_set,
                                const DirectionScaleMap& map, const SectorMaskBank& bank,
                                GroupTies ties) {
    const uint32_t w = 2 * h - 1;
    const uint32_t rows = map.rows;
    const uint32_t cols = map.cols;
    if (bank.size() != static_cast<size_t>(8) * h * h) {
        throw std::invalid_argument("build_shape_list: the bank does not match h");
    }
    // Distinct unions by content, and the union of each set of raw indices.
    std::vector<Mask> unions;
    std::vector<uint32_t> union_area;
    std::vector<MaskBits> union_bits;
    std::unordered_map<MaskBits, uint32_t, MaskBitsHash> union_of_content;
    std::unordered_map<uint64_t, uint32_t> union_of_indices;
    // The bank as bits: a union of sectors is then eight word-wise ORs.
    if (w * w > 64 * std::tuple_size<MaskBits>::value) {
        throw std::invalid_argument("build_shape_list: h is larger than 16");
    }
    std::vector<MaskBits> bank_bits;
    bank_bits.reserve(bank.size());
    for (const Mask& m : bank) {
        if (m.size() != static_cast<size_t>(w) * w) {
            throw std::invalid_argument("build_shape_list: a sector mask does not match h");
        }
        bank_bits.push_back(mask_bits(m));
    }

    struct Group {
        uint32_t area;
        uint32_t union_index;
        std::string rest;  // the key after the union's number: orientation, cut union
        uint32_t count;    // pixels
    };
    std::vector<Group> groups;
    // Keys: the union's number and the orientation; with the cut union when
    // the cut removes something (near the border only).
    std::unordered_map<uint64_t, uint32_t> group_of_uncut;
    std::unordered_map<std::string, uint32_t> group_of_cut;
    std::vector<uint32_t> group_of_pixel(static_cast<size_t>(rows) * cols);
    std::string clipped;
    const uint32_t reach = h - 1;
    // The previous pixel's indices and group, when it lay away from the
    // border (runs of equal indices are common: flat areas).
    uint64_t last_packed = 0;
    uint32_t last_group = UINT32_MAX;
    for (uint32_t col = 0; col < cols; ++col) {
        swcancel::cancel_point();
        for (uint32_t row = 0; row < rows; ++row) {
            uint8_t q[8];
            const uint64_t packed = packed_indices(map, row, col, q);
            const bool near_border = row < reach || col < reach || rows - 1 - row < reach ||
                                     cols - 1 - col < reach;
            if (!near_border && last_group != UINT32_MAX && packed == last_packed) {
                ++groups[last_group].count;
                group_of_pixel[row + static_cast<size_t>(col) * rows] = last_group;
                continue;
            }
            auto found = union_of_indices.find(packed);
            if (found == union_of_indices.end()) {
                uint32_t scales[8];
                selected_scales(q, h, scale_set, "build_shape_list", scales);
                MaskBits bits{};
                for (uint32_t d = 0; d < 8; ++d) {
                    const MaskBits& sector = bank_bits[sector_cell_index(
                        h, d, scales[sector_first_plane(d)], scales[sector_second_plane(d)])];
                    for (size_t i = 0; i < bits.size(); ++i) bits[i] |= sector[i];
                }
                const auto added =
                    union_of_content.try_emplace(bits, static_cast<uint32_t>(unions.size()));
                if (added.second) {
                    union_bits.push_back(bits);
                    Mask u(static_cast<size_t>(w) * w);
                    for (size_t t = 0; t < u.size(); ++t) u[t] = (bits[t / 64] >> (t % 64)) & 1;
                    union_area.push_back(static_cast<uint32_t>(std::count(u.begin(), u.end(), 1)));
                    unions.push_back(std::move(u));
                }
                found = union_of_indices.emplace(packed, added.first->second).first;
            }
            const uint32_t union_index = found->second;
            const char orientation = sw::pack_by_columns(q) ? 'c' : 'r';
            bool cut = false;
            if (near_border) {
                const Mask& own = unions[union_index];
                const BoxWindow window = box_window(h, row, col, rows, cols);
                clipped.assign(static_cast<size_t>(w) * w, '\0');
                for (uint32_t j = 0; j < w; ++j) {
                    for (uint32_t i = 0; i < w; ++i) {
                        const bool inside = i >= window.i0 && i <= window.i1 && j >= window.j0 && j <= window.j1;
                        const uint8_t v = own[i + j * w];
                        if (v != 0 && !inside) cut = true;
                        clipped[i + j * w] = static_cast<char>(inside ? v : 0);
                    }
                }
            }
            const uint32_t next = static_cast<uint32_t>(groups.size());
            uint32_t group;
            bool added;
            if (cut) {
                std::string key(5, '\0');
                std::memcpy(&key[0], &union_index, 4);
                key[4] = orientation;
                key += clipped;
                const auto at = group_of_cut.try_emplace(std::move(key), next);
                group = at.first->second;
                added = at.second;
            } else {
                const uint64_t key = uint64_t{union_index} * 2 + (orientation == 'c' ? 1 : 0);
                const auto at = group_of_uncut.try_emplace(key, next);
                group = at.first->second;
                added = at.second;
            }
            if (added) {
                groups.push_back(Group{union_area[union_index], union_index,
                                       cut ? orientation + clipped : std::string(1, orientation), 0});
            }
            ++groups[group].count;
            group_of_pixel[row + static_cast<size_t>(col) * rows] = group;
            last_packed = packed;
            last_group = near_border ? UINT32_MAX : group;
        }
    }

    // The maps are done with; freeing them takes a while.
    union_of_indices = {};
    swcancel::cancel_point();
    union_of_content = {};
    swcancel::cancel_point();
    group_of_uncut = {};
    group_of_cut = {};
    swcancel::cancel_point();

    std::vector<uint32_t> order(groups.size());
    for (uint32_t g = 0; g < order.size(); ++g) order[g] = g;
    uint32_t compared = 0;
    std::stable_sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
        if (++compared % 4096 == 0) swcancel::cancel_point();
        const Group& ga = groups[a];
        const Group& gb = groups[b];
        if (ga.area != gb.area || ties == GroupTies::kFirstPixel) return ga.area < gb.area;
        if (ga.union_index != gb.union_index) {
            return bits_before(union_bits[ga.union_index], union_bits[gb.union_index]);
        }
        return ga.rest < gb.rest;
    });
    // Each group's first entry and key; its pixels then follow in
    // increasing order.
    std::vector<uint32_t> next_entry(groups.size()), key_of(groups.size());
    uint32_t at = 0;
    int32_t next_key = 0;
    for (uint32_t g : order) {
        next_entry[g] = at;
        at += groups[g].count;
        key_of[g] = static_cast<uint32_t>(++next_key);
    }
    ProcessingList list;
    list.pixels.resize(group_of_pixel.size());
    list.keys.resize(group_of_pixel.size());
    for (size_t p = 0; p < group_of_pixel.size(); ++p) {
        if ((p & 0xffff) == 0) swcancel::cancel_point();
        const uint32_t g = group_of_pixel[p];
        const uint32_t e = next_entry[g]++;
        list.pixels[e] = static_cast<int32_t>(p + 1);
        list.keys[e] = static_cast<int32_t>(key_of[g]);
    }
    list.key_changes = static_cast<uint32_t>(next_key);
    return list;
}

}  // namespace swcaller
