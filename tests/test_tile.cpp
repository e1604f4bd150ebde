// Tiled denoising: every tile, grown by tile_halo(preset) and denoised as its
// part of the whole image (TileFrame), gives the whole-image call's bits.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "shapewiener/denoise.h"

namespace {

sw::Image noisy_scene(uint32_t rows, uint32_t cols) {
    sw::Image img;
    img.rows = rows;
    img.cols = cols;
    img.pixels.resize(size_t{rows} * cols);
    std::mt19937 rng(5);
    std::normal_distribution<double> noise(0.0, 0.08);
    for (uint32_t j = 0; j < cols; ++j) {
        for (uint32_t i = 0; i < rows; ++i) {
            const double d = std::hypot(i - 0.4 * rows, j - 0.5 * cols);
            img.pixels[i + size_t{j} * rows] = (d < 0.3 * rows ? 0.7 : 0.25) + noise(rng);
        }
    }
    return img;
}

sw::Image tiled(const sw::Image& img, const sw::NoiseModel& noise, const std::string& preset,
                uint32_t tile_rows, uint32_t tile_cols) {
    const uint32_t halo = sw::tile_halo(preset);
    const auto [lo, hi] = std::minmax_element(img.pixels.begin(), img.pixels.end());
    sw::Image out = img;
    for (uint32_t c0 = 0; c0 < img.cols; c0 += tile_cols) {
        for (uint32_t r0 = 0; r0 < img.rows; r0 += tile_rows) {
            const uint32_t r1 = std::min(img.rows, r0 + tile_rows);
            const uint32_t c1 = std::min(img.cols, c0 + tile_cols);
            const uint32_t tr0 = r0 > halo ? r0 - halo : 0, tc0 = c0 > halo ? c0 - halo : 0;
            const uint32_t tr1 = std::min(img.rows, r1 + halo), tc1 = std::min(img.cols, c1 + halo);
            sw::Image t;
            t.rows = tr1 - tr0;
            t.cols = tc1 - tc0;
            for (uint32_t j = tc0; j < tc1; ++j) {
                for (uint32_t i = tr0; i < tr1; ++i) t.pixels.push_back(img.pixels[i + size_t{j} * img.rows]);
            }
            sw::DenoiseOptions options;
            options.preset = preset;
            options.threads = 1;
            options.tile = {img.rows, img.cols, tr0, tc0, *lo, *hi};
            const sw::Image d = sw::denoise(t, noise, options);
            for (uint32_t j = c0; j < c1; ++j) {
                for (uint32_t i = r0; i < r1; ++i) {
                    out.pixels[i + size_t{j} * img.rows] = d.pixels[(i - tr0) + size_t{j - tc0} * t.rows];
                }
            }
        }
    }
    return out;
}

TEST(Tiles, GiveTheWholeImagesBits) {
    const sw::Image img = noisy_scene(50, 61);
    const sw::NoiseModel noise = sw::NoiseModel::from_kernel({1, 2, 1, 2, 4, 2, 1, 2, 1}, 3, 3, 0.08);
    const struct {
        const char* preset;
        // 3 x 3 tiles for fast; 2 x 1 for default, the second grown from row 1
        // (an odd frame offset)
        uint32_t tile_rows, tile_cols;
    } cases[] = {{"fast", 17, 23}, {"default", 37, 61}};
    for (const auto& [preset, tile_rows, tile_cols] : cases) {
        sw::DenoiseOptions options;
        options.preset = preset;
        const sw::Image whole = sw::denoise(img, noise, options);
        const sw::Image pieces = tiled(img, noise, preset, tile_rows, tile_cols);
        size_t differ = 0;
        for (size_t p = 0; p < whole.pixels.size(); ++p) {
            differ += std::memcmp(&whole.pixels[p], &pieces.pixels[p], sizeof(double)) != 0;
        }
        EXPECT_EQ(differ, 0u) << preset;
    }
}

TEST(Tiles, ATileMustLieInsideItsFrameAndItsRange) {
    const sw::Image img = noisy_scene(12, 10);
    const auto [lo, hi] = std::minmax_element(img.pixels.begin(), img.pixels.end());
    const struct {
        sw::TileFrame tile;
        const char* identifier;
    } cases[] = {
        {{12, 10, 1, 0, *lo, *hi}, "shapewiener:tile:outside"},
        {{11, 40, 0, 0, *lo, *hi}, "shapewiener:tile:outside"},
        {{12, 10, 0, 0, *lo + 0.01, *hi}, "shapewiener:tile:range"},
    };
    for (const auto& c : cases) {
        sw::DenoiseOptions options;
        options.tile = c.tile;
        try {
            sw::denoise(img, sw::NoiseModel::white(0.1), options);
            ADD_FAILURE() << c.identifier;
        } catch (const sw::DenoiseError& e) {
            EXPECT_STREQ(e.error().identifier, c.identifier);
        }
    }
}

}  // namespace
