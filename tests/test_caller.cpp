// The caller-side argument builder: processing list grouping, coloured
// noise. (The transforms and sector masks are pinned byte for byte by the
// shared workloads: ShapeList in test_denoise.cpp.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "caller/coloured_noise.h"
#include "caller/image.h"
#include "caller/processing_list.h"
#include "caller/sector_masks.h"
#include "caller/shape_arguments.h"
#include "shape/shape.h"

namespace {

using swcaller::Image;
using swcaller::Mask;

// ---------------------------------------------------------------------------
// Processing list

// Checks that the list is a permutation of the pixels with non-zero keys,
// each key in one consecutive run, and returns the number of runs.
uint32_t check_list_structure(const swcaller::ProcessingList& list, uint32_t pixel_count) {
    EXPECT_EQ(list.pixels.size(), pixel_count);
    EXPECT_EQ(list.keys.size(), pixel_count);
    std::vector<int> seen(pixel_count + 1, 0);
    std::set<int32_t> finished;
    uint32_t runs = 0;
    for (size_t e = 0; e < list.pixels.size(); ++e) {
        const int32_t p = list.pixels[e];
        EXPECT_GE(p, 1);
        EXPECT_LE(p, static_cast<int32_t>(pixel_count));
        if (p >= 1 && p <= static_cast<int32_t>(pixel_count)) ++seen[p];
        EXPECT_NE(list.keys[e], 0);
        if (e == 0 || list.keys[e] != list.keys[e - 1]) {
            ++runs;
            EXPECT_TRUE(finished.insert(list.keys[e]).second) << "key " << list.keys[e] << " reappears";
        }
    }
    for (uint32_t p = 1; p <= pixel_count; ++p) EXPECT_EQ(seen[p], 1) << "pixel " << p;
    EXPECT_EQ(list.key_changes, runs);
    return runs;
}

TEST(ProcessingList, FixedSquaresAreGroupedByBorderClipping) {
    const uint32_t rows = 20, cols = 17, h = 4;
    const swcaller::ShapeArguments s = swcaller::fixed_square_shapes(rows, cols, h, h);
    EXPECT_EQ(check_list_structure(s.list, rows * cols), (2 * h - 1) * (2 * h - 1));
    // With squares of the box's size the shape is fixed by the distances to
    // the four borders (capped at h - 1), and so is the key.
    std::map<std::vector<uint32_t>, std::set<int32_t>> keys_of_clip;
    std::map<int32_t, std::set<std::vector<uint32_t>>> clips_of_key;
    for (size_t e = 0; e < s.list.pixels.size(); ++e) {
        const uint32_t q = s.list.pixels[e] - 1;
        const uint32_t r = q % rows, c = q / rows;
        const std::vector<uint32_t> clip = {std::min(r, h - 1), std::min(rows - 1 - r, h - 1),
                                            std::min(c, h - 1), std::min(cols - 1 - c, h - 1)};
        keys_of_clip[clip].insert(s.list.keys[e]);
        clips_of_key[s.list.keys[e]].insert(clip);
    }
    for (const auto& k : keys_of_clip) EXPECT_EQ(k.second.size(), 1u);
    for (const auto& c : clips_of_key) EXPECT_EQ(c.second.size(), 1u);
    // The interior comes first in no particular way, but the order is stable:
    // pixel 1 (top-left corner) opens the list.
    EXPECT_EQ(s.list.pixels[0], 1);
    EXPECT_EQ(s.list.keys[0], 1);
}

// The shape the module forms for entry e: the sectors of the run's first
// entry, cut to entry e's box; and e's own shape.
struct EntryShapes {
    Mask formed;
    Mask own;
    bool formed_by_columns;
    bool own_by_columns;
};

std::vector<EntryShapes> shapes_per_entry(const swcaller::ShapeArguments& s) {
    const uint32_t rows = s.direction_scales.rows, cols = s.direction_scales.cols;
    std::vector<EntryShapes> out;
    uint32_t first_scales[8] = {};
    bool first_by_columns = false;
    for (size_t e = 0; e < s.list.pixels.size(); ++e) {
        const uint32_t q = s.list.pixels[e] - 1;
        const uint32_t r = q % rows, c = q / rows;
        uint8_t raw[8];
        uint32_t scales[8];
        for (uint32_t d = 0; d < 8; ++d) {
            raw[d] = s.direction_scales.at(r, c, d);
            scales[d] = swcaller::scale_length(s.scale_set[raw[d] - 1]);
        }
        if (e == 0 || s.list.keys[e] != s.list.keys[e - 1]) {
            std::copy(scales, scales + 8, first_scales);
            first_by_columns = sw::pack_by_columns(raw);
        }
        EntryShapes x;
        x.formed = swcaller::clip_to_image(swcaller::sector_union(s.h, s.sector_masks, first_scales),
                                           s.h, r, c, rows, cols);
        x.own = swcaller::clip_to_image(swcaller::sector_union(s.h, s.sector_masks, scales), s.h, r,
                                        c, rows, cols);
        x.formed_by_columns = first_by_columns;
        x.own_by_columns = sw::pack_by_columns(raw);
        out.push_back(x);
    }
    return out;
}

// Random scales from few values, so that shapes repeat. `how`: 0 the
// processing list, 1 the list grouped by shape, 2 grouped by shape with the
// scale set doubled so that east and west index its second copy (every
// shape packed by rows).
swcaller::ShapeArguments random_adaptive_shapes(uint32_t rows, uint32_t cols, uint32_t h,
                                                uint32_t seed, int how = 0) {
    std::mt19937 rng(seed);
    swcaller::DirectionScaleMap map(rows, cols, 1);
    for (uint8_t& v : map.indices) v = static_cast<uint8_t>(1 + rng() % 3);
    std::vector<double> set = {1.0, 2.0, 3.0};
    if (how == 2) {
        set.insert(set.end(), {1.0, 2.0, 3.0});
        for (uint32_t d : {0u, 4u}) {
            for (size_t p = 0; p < map.plane_size(); ++p) map.indices[p + d * map.plane_size()] += 3;
        }
    }
    return swcaller::make_shape_arguments(h, set, map, how > 0);
}

// Among the random maps are border pixels whose clipped shapes are equal
// while their sectors differ: they must not share a key.
TEST(ProcessingList, AdaptiveShapesShareKeysOnlyWhenTheModuleFormsTheOwnShape) {
    for (uint32_t seed = 1; seed <= 3; ++seed) {
        for (int how : {0, 1, 2}) {
            const swcaller::ShapeArguments s = random_adaptive_shapes(15, 13, 3, seed, how);
            const uint32_t runs = check_list_structure(s.list, 15 * 13);
            EXPECT_LT(runs, 15u * 13u);  // some sharing happens
            std::map<int32_t, std::set<std::string>> signatures_of_key;
            const std::vector<EntryShapes> shapes = shapes_per_entry(s);
            for (size_t e = 0; e < shapes.size(); ++e) {
                EXPECT_EQ(shapes[e].formed, shapes[e].own) << how;
                EXPECT_EQ(shapes[e].formed_by_columns, shapes[e].own_by_columns) << how;
                if (how == 2) {
                    EXPECT_FALSE(shapes[e].own_by_columns);
                }
                // Different shapes never share a key.
                std::string sig(shapes[e].own.begin(), shapes[e].own.end());
                sig += shapes[e].own_by_columns ? 'c' : 'r';
                signatures_of_key[s.list.keys[e]].insert(sig);
            }
            for (const auto& k : signatures_of_key) EXPECT_EQ(k.second.size(), 1u) << how;
        }
    }
}

// ---------------------------------------------------------------------------
// Coloured noise (its spectrum, noise_psd: BlockPsd in test_denoise.cpp)

// Sample correlation of the noise with itself shifted by (dr, dc).
double correlation(const Image& x, int dr, int dc) {
    double sum = 0.0, energy = 0.0;
    size_t count = 0;
    for (uint32_t c = 0; c + dc < x.cols; ++c) {
        for (uint32_t r = 0; r + dr < x.rows; ++r) {
            sum += x.at(r, c) * x.at(r + dr, c + dc);
            ++count;
        }
    }
    for (double v : x.pixels) energy += v * v;
    return (sum / count) / (energy / x.size());
}

TEST(ColouredNoise, HasTheKernelsVarianceAndCorrelation) {
    const double sigma = 0.1;
    const Image noise = swcaller::coloured_noise(256, 256, swcaller::binomial_kernel(), sigma, 5);
    double mean = 0.0, var = 0.0;
    for (double v : noise.pixels) mean += v / noise.size();
    for (double v : noise.pixels) var += (v - mean) * (v - mean) / noise.size();
    EXPECT_NEAR(mean, 0.0, 0.005);
    EXPECT_NEAR(var, sigma * sigma, 0.04 * sigma * sigma);
    // [1 2 1] has autocorrelation 6, 4, 1, 0: separably 2/3 at one step,
    // 4/9 diagonally, 1/6 at two steps, none at three.
    EXPECT_NEAR(correlation(noise, 1, 0), 2.0 / 3.0, 0.03);
    EXPECT_NEAR(correlation(noise, 0, 1), 2.0 / 3.0, 0.03);
    EXPECT_NEAR(correlation(noise, 1, 1), 4.0 / 9.0, 0.03);
    EXPECT_NEAR(correlation(noise, 2, 0), 1.0 / 6.0, 0.03);
    EXPECT_NEAR(correlation(noise, 0, 3), 0.0, 0.03);
    // Its orientation: Denoise.AnisotropicNoiseIsTakenInItsOwnOrientation;
    // the same bits from the same seed: the denoiser's pinned outputs.
}

}  // namespace
