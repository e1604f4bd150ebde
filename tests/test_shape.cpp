// Sector-union shapes, gathering, mean removal.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "driver/box.h"
#include "shape/gather.h"
#include "shape/shape.h"

namespace {

// The per-entry arrays of one gather, for a box of half-width h - 1.
struct Entry {
    explicit Entry(uint32_t h)
        : box{h},
          w(2 * h - 1),
          shape_mask(w * w, 0xee),
          noisy_gather(w * w, -9.0f),
          pilot_gather(w * w, -9.0f),
          noisy_coefficients(w * w, -9.0f),
          pilot_coefficients(w * w, -9.0f),
          column_count(w, 77),
          row_count(w, 77),
          row_cursor(w, 77),
          masks(8, std::vector<uint8_t>(w * w, 0)) {}

    sw::GatherResult gather(uint32_t row, uint32_t col, uint32_t m, uint32_t k, bool by_columns,
                            const std::vector<double>& noisy, const std::vector<double>& pilot) {
        const uint8_t* mask_ptrs[8];
        for (int d = 0; d < 8; ++d) mask_ptrs[d] = masks[d].data();
        const sw::ClippedBox clip = sw::clipped_box(row, col, m, k, box.H());
        return sw::gather_shape(box, row, col, clip, mask_ptrs, by_columns, noisy.data(),
                                pilot.data(), m, shape_mask.data(), noisy_gather.data(),
                                pilot_gather.data(), column_count.data(), row_count.data(),
                                row_cursor.data());
    }

    void remove_mean(float mean) {
        sw::remove_mean(box, mean, noisy_gather.data(), pilot_gather.data(),
                        noisy_coefficients.data(), pilot_coefficients.data());
    }

    void fill_all_masks(uint8_t value) {
        for (auto& mask : masks) mask.assign(w * w, value);
    }

    sw::RuntimeBox box;
    uint32_t w;
    std::vector<uint8_t> shape_mask;
    std::vector<float> noisy_gather, pilot_gather, noisy_coefficients, pilot_coefficients;
    std::vector<int32_t> column_count, row_count, row_cursor;
    std::vector<std::vector<uint8_t>> masks;
};

// Image whose pixel q holds (q + 1) / 1000, so values name their pixel.
std::vector<double> index_image(uint32_t m, uint32_t k) {
    std::vector<double> img(m * k);
    for (uint32_t q = 0; q < m * k; ++q) img[q] = (q + 1) / 1000.0;
    return img;
}

TEST(SectorTable, CellIndicesForMaxScaleTwelve) {
    const uint32_t scales[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    const uint32_t expected[8] = {64, 221, 378, 439, 588, 745, 902, 1059};
    for (uint32_t d = 0; d < 8; ++d) {
        EXPECT_EQ(sw::sector_cell_index(d, scales, 12), expected[d]) << "sector " << d;
    }
}

TEST(SectorTable, OrientationFromRawIndices) {
    const uint8_t taller[8] = {2, 1, 3, 1, 2, 1, 3, 1};
    EXPECT_TRUE(sw::pack_by_columns(taller));
    const uint8_t equal[8] = {2, 9, 3, 9, 2, 9, 1, 9};
    EXPECT_FALSE(sw::pack_by_columns(equal));
    // Signed arithmetic on large bytes: 1 + 1 - 200 - 200 < 0.
    const uint8_t big[8] = {1, 0, 200, 0, 1, 0, 200, 0};
    EXPECT_TRUE(sw::pack_by_columns(big));
    const uint8_t wide[8] = {200, 0, 1, 0, 200, 0, 1, 0};
    EXPECT_FALSE(sw::pack_by_columns(wide));
}

TEST(SectorTable, ParametersUseRawIndicesForOrientationAndScalesForSizes) {
    // One pixel, planes 0..7 hold indices 2,1,3,1,2,1,3,1 into scales {5, 1, 2}.
    const uint8_t map[8] = {2, 1, 3, 1, 2, 1, 3, 1};
    const uint32_t rounded[3] = {5, 1, 2};
    uint32_t scale[8];
    bool by_columns = false;
    sw::shape_parameters(map, 0, 1, rounded, scale, &by_columns);
    EXPECT_TRUE(by_columns);
    const uint32_t expected[8] = {1, 5, 2, 5, 1, 5, 2, 5};
    for (int d = 0; d < 8; ++d) EXPECT_EQ(scale[d], expected[d]);
}

TEST(ClippedBox, CornersEdgesAndSmallImages) {
    sw::ClippedBox b = sw::clipped_box(0, 0, 10, 10, 4);
    EXPECT_EQ(b.r0, 0u);
    EXPECT_EQ(b.c0, 0u);
    EXPECT_EQ(b.r1, 3u);
    EXPECT_EQ(b.c1, 3u);
    b = sw::clipped_box(9, 8, 10, 10, 4);
    EXPECT_EQ(b.r0, 6u);
    EXPECT_EQ(b.r1, 9u);
    EXPECT_EQ(b.c0, 5u);
    EXPECT_EQ(b.c1, 9u);
    b = sw::clipped_box(5, 5, 20, 20, 4);
    EXPECT_EQ(b.r0, 2u);
    EXPECT_EQ(b.r1, 8u);
    // Fewer rows than H: every pixel reaches the last row.
    for (uint32_t r = 0; r < 2; ++r) {
        b = sw::clipped_box(r, 3, 2, 9, 4);
        EXPECT_EQ(b.r0, 0u);
        EXPECT_EQ(b.r1, 1u);
    }
    // H = 1: the box is the pixel.
    b = sw::clipped_box(4, 6, 9, 9, 1);
    EXPECT_EQ(b.r0, 4u);
    EXPECT_EQ(b.r1, 4u);
    EXPECT_EQ(b.c0, 6u);
    EXPECT_EQ(b.c1, 6u);
}

TEST(Gather, MaskBytesAreOredAndCarried) {
    Entry e(2);  // 3 x 3 box
    e.masks[0][4] = 2;
    e.masks[5][4] = 1;
    e.masks[3][0] = 4;
    e.masks[7][8] = 0x80;
    const auto img = index_image(3, 3);
    const sw::GatherResult g = e.gather(1, 1, 3, 3, false, img, img);
    EXPECT_EQ(e.shape_mask[4], 3);
    EXPECT_EQ(e.shape_mask[0], 4);
    EXPECT_EQ(e.shape_mask[8], 0x80);
    EXPECT_EQ(g.shape_size, 3u);
    for (uint32_t at : {1u, 2u, 3u, 5u, 6u, 7u}) EXPECT_EQ(e.shape_mask[at], 0);
    // Every per-entry array was cleared first.
    for (int32_t r : e.row_count) EXPECT_EQ(r, 0);
    for (int32_t r : e.row_cursor) EXPECT_EQ(r, 0);
}

TEST(Gather, OnlyTheClippedBoxIsRead) {
    // Pixel (0, 0) of a 6 x 6 image with H = 3: box rows and columns 2..4 only.
    Entry e(3);
    e.fill_all_masks(1);
    const auto img = index_image(6, 6);
    const sw::GatherResult g = e.gather(0, 0, 6, 6, true, img, img);
    EXPECT_EQ(g.shape_size, 9u);
    EXPECT_EQ(g.max_column_count, 3);
    for (uint32_t j = 0; j < 5; ++j) {
        for (uint32_t i = 0; i < 5; ++i) {
            EXPECT_EQ(e.shape_mask[i + j * 5], (i >= 2 && j >= 2) ? 1 : 0) << i << "," << j;
        }
        EXPECT_EQ(e.column_count[j], j >= 2 ? 3 : 0);
    }
    // Slots of the empty block columns stay 0.
    for (uint32_t t = 0; t < 10; ++t) EXPECT_EQ(e.noisy_gather[t], 0.0f);
}

TEST(Gather, PackingOrderInBothOrientations) {
    // 5 x 5 image, H = 2, pixel (2, 2); the shape is the box minus its centre.
    const auto img = index_image(5, 5);
    Entry rows(2);
    rows.fill_all_masks(1);
    for (auto& m : rows.masks) m[4] = 0;
    rows.gather(2, 2, 5, 5, false, img, img);
    // By rows: block column i = box row i, values in increasing image column.
    // Box row 0 is image row 1: pixels (1,1), (1,2), (1,3) = q 6, 11, 16.
    EXPECT_EQ(rows.noisy_gather[0], static_cast<float>(7 / 1000.0));
    EXPECT_EQ(rows.noisy_gather[1], static_cast<float>(12 / 1000.0));
    EXPECT_EQ(rows.noisy_gather[2], static_cast<float>(17 / 1000.0));
    // Box row 1 without its centre: (2,1), (2,3) = q 7, 17.
    EXPECT_EQ(rows.column_count[1], 2);
    EXPECT_EQ(rows.noisy_gather[3], static_cast<float>(8 / 1000.0));
    EXPECT_EQ(rows.noisy_gather[4], static_cast<float>(18 / 1000.0));
    EXPECT_EQ(rows.noisy_gather[5], 0.0f);

    Entry cols(2);
    cols.fill_all_masks(1);
    for (auto& m : cols.masks) m[4] = 0;
    const sw::GatherResult g = cols.gather(2, 2, 5, 5, true, img, img);
    // By columns: block column j = box column j, values in increasing image row.
    // Box column 0 is image column 1: (1,1), (2,1), (3,1) = q 6, 7, 8.
    EXPECT_EQ(cols.noisy_gather[0], static_cast<float>(7 / 1000.0));
    EXPECT_EQ(cols.noisy_gather[1], static_cast<float>(8 / 1000.0));
    EXPECT_EQ(cols.noisy_gather[2], static_cast<float>(9 / 1000.0));
    EXPECT_EQ(cols.noisy_gather[3], static_cast<float>(12 / 1000.0));
    EXPECT_EQ(cols.noisy_gather[4], static_cast<float>(14 / 1000.0));
    // The sums run in column-major pixel order in both orientations.
    float sum = 0.0f;
    for (uint32_t q : {6u, 7u, 8u, 11u, 13u, 16u, 17u, 18u}) sum = sum + static_cast<float>((q + 1) / 1000.0);
    EXPECT_EQ(g.noisy_mean, static_cast<float>(static_cast<double>(sum) / 8.0));
}

TEST(MeanRemoval, ColumnOfThreeValues) {
    Entry e(2);
    e.masks[0][0] = e.masks[0][1] = e.masks[0][2] = 1;  // box column 0
    // 3 x 3 image, pixel (1, 1): box column 0 is image column 0.
    const std::vector<double> noisy = {0.25, 0.5, 0.75, 0, 0, 0, 0, 0, 0};
    const std::vector<double> pilot = {0.125, 0.5, 0.875, 0, 0, 0, 0, 0, 0};
    const sw::GatherResult g = e.gather(1, 1, 3, 3, true, noisy, pilot);
    EXPECT_EQ(g.noisy_mean, 0.5f);
    EXPECT_EQ(g.pilot_mean, 0.5f);
    e.remove_mean(g.noisy_mean);
    EXPECT_EQ(e.noisy_gather[0], -0.25f);
    EXPECT_EQ(e.noisy_gather[1], 0.0f);  // 0.5 + 1e-17 rounds to 0.5 in double
    EXPECT_EQ(e.noisy_gather[2], 0.25f);
    // The pilot is centred on the noisy mean with its own ramp offset.
    EXPECT_EQ(e.pilot_gather[0], static_cast<float>(0.125 - (2e-17 + 0.5)));
    EXPECT_EQ(e.pilot_gather[2], static_cast<float>(0.875 - (4e-17 + 0.5)));
    // Both coefficient blocks are cleared everywhere.
    for (float c : e.noisy_coefficients) EXPECT_EQ(c, 0.0f);
    for (float c : e.pilot_coefficients) EXPECT_EQ(c, 0.0f);
}

TEST(MeanRemoval, ConstantShapeShowsTheRamp) {
    Entry e(4);  // 7 x 7 box, full square shape
    e.fill_all_masks(1);
    const std::vector<double> img(100, 0.5);
    const sw::GatherResult g = e.gather(5, 5, 10, 10, false, img, img);
    ASSERT_EQ(g.shape_size, 49u);
    EXPECT_EQ(g.noisy_mean, 0.5f);
    e.remove_mean(g.noisy_mean);
    for (uint32_t t = 0; t <= 5; ++t) EXPECT_EQ(e.noisy_gather[t], 0.0f) << t;
    for (uint32_t t = 6; t <= 16; ++t) EXPECT_EQ(e.noisy_gather[t], -1.1102230246251565e-16f) << t;
    for (uint32_t t = 17; t <= 27; ++t) EXPECT_EQ(e.noisy_gather[t], -2.220446049250313e-16f) << t;
    for (uint32_t t = 28; t <= 38; ++t) EXPECT_EQ(e.noisy_gather[t], -3.3306690738754696e-16f) << t;
}

TEST(MeanRemoval, ExactZeroSlotIsNotCentredButCounts) {
    Entry e(2);
    e.masks[0][3] = e.masks[0][4] = e.masks[0][5] = 1;  // box column 1
    const std::vector<double> noisy = {0, 0, 0, 0.0, 3e-17, 0.6, 0, 0, 0};
    const std::vector<double> pilot = {0, 0, 0, 0.2, 0.3, 0.4, 0, 0, 0};
    const sw::GatherResult g = e.gather(1, 1, 3, 3, true, noisy, pilot);
    EXPECT_EQ(g.shape_size, 3u);
    EXPECT_EQ(e.column_count[1], 3);
    EXPECT_EQ(e.noisy_gather[4], 3.0000001167615996e-17f);
    e.remove_mean(g.noisy_mean);
    // Slot t = 3 held an exact 0: neither array is centred there.
    EXPECT_EQ(e.noisy_gather[3], 0.0f);
    EXPECT_EQ(e.pilot_gather[3], 0.2f);
    // Slot t = 4 held a tiny non-zero value and is centred.
    EXPECT_NE(e.noisy_gather[4], 3.0000001167615996e-17f);
    EXPECT_NE(e.pilot_gather[4], 0.3f);
}

TEST(MeanRemoval, NanSlotIsCentredLikeAnyOther) {
    Entry e(2);
    e.masks[2][4] = 1;
    e.masks[2][5] = 1;
    const std::vector<double> noisy = {0, 0, 0, 0, std::nan(""), 0.5, 0, 0, 0};
    const std::vector<double> pilot = {0, 0, 0, 0, 0.25, 0.5, 0, 0, 0};
    const sw::GatherResult g = e.gather(1, 1, 3, 3, true, noisy, pilot);
    EXPECT_TRUE(std::isnan(g.noisy_mean));
    e.remove_mean(g.noisy_mean);
    EXPECT_TRUE(std::isnan(e.pilot_gather[3]));  // centred on a NaN mean
}

TEST(Gather, EmptyShape) {
    Entry e(3);
    const auto img = index_image(5, 5);
    const sw::GatherResult g = e.gather(2, 2, 5, 5, false, img, img);
    EXPECT_EQ(g.shape_size, 0u);
    EXPECT_EQ(g.max_column_count, 0);
    EXPECT_TRUE(std::isnan(g.noisy_mean));
    EXPECT_TRUE(std::isnan(g.pilot_mean));
    e.remove_mean(g.noisy_mean);
    for (uint32_t t = 0; t < 25; ++t) {
        EXPECT_EQ(e.shape_mask[t], 0);
        EXPECT_EQ(e.noisy_gather[t], 0.0f);
        EXPECT_EQ(e.pilot_gather[t], 0.0f);
    }
    for (int32_t c : e.column_count) EXPECT_EQ(c, 0);
}

}  // namespace
