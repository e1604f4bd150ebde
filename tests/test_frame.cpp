// Tiled processing: an image that is a window of a larger frame gets the
// frame's dither, and a frame equal to the image changes no bit.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "shape/gather.h"
#include "shapewiener/filter.h"
#include "support/test_args.h"

namespace {

struct PlanCall {
    std::vector<sw::ArrayView<double>> transforms;
    std::vector<sw::ArrayView<uint8_t>> masks;
    std::vector<int32_t> list;
    sw::FilterCall call;
};

// The plan as a FilterCall; the images stay in the plan (and are dithered there).
void describe(swtest::CallPlan& p, PlanCall* pc) {
    sw::FilterCall& c = pc->call;
    c.scale_set = {p.scale_set.data(), sw::Dims::matrix(1, p.scale_set.size())};
    c.direction_scale_map = {p.direction_scale_map.data(), sw::Dims::array3(p.m, p.k, 8)};
    for (const auto& t : p.transforms) {
        const uint64_t len = static_cast<uint64_t>(std::sqrt(static_cast<double>(t.size())) + 0.5);
        pc->transforms.push_back({t.data(), sw::Dims::matrix(len, len)});
    }
    for (const auto& m : p.sector_masks) pc->masks.push_back({m.data(), sw::Dims::matrix(p.w(), p.w())});
    c.transforms = pc->transforms.data();
    c.transform_count = pc->transforms.size();
    c.sector_masks = pc->masks.data();
    c.sector_mask_count = pc->masks.size();
    c.dft_size = p.n;
    c.noise_psd = {p.psd.data(), sw::Dims::matrix(p.n, p.n)};
    c.noisy_image = p.noisy.data();
    c.image_dims = sw::Dims::matrix(p.m, p.k);
    pc->list = p.pixels;
    pc->list.insert(pc->list.end(), p.keys.begin(), p.keys.end());
    c.processing_list = {pc->list.data(), sw::Dims::matrix(p.pixels.size(), 2)};
    c.noise_level_factor = p.noise_level_factor;
    c.max_scale = p.h;
    c.pilot_image = p.pilot.data();
    c.pilot_dims = sw::Dims::matrix(p.m, p.k);
    c.wiener_variance_factor = p.wiener_variance_factor;
    c.coverage_threshold = p.coverage_threshold;
}

TEST(Frame, TheImageAsItsOwnFrameChangesNoBit) {
    swtest::RandomOptions o;
    swtest::CallPlan a = swtest::random_plan(7, o);
    swtest::CallPlan b = a;
    PlanCall pa, pb;
    describe(a, &pa);
    describe(b, &pb);
    pb.call.frame = {a.m, a.k, 0, 0};
    ASSERT_FALSE(sw::check(pa.call));
    ASSERT_FALSE(sw::check(pb.call));
    std::vector<double> out_a(a.m * a.k), out_b(a.m * a.k);
    ASSERT_FALSE(sw::run(pa.call, out_a.data()));
    ASSERT_FALSE(sw::run(pb.call, out_b.data()));
    EXPECT_TRUE(swtest::same_bits(out_a, out_b));
    EXPECT_TRUE(swtest::same_bits(a.noisy, b.noisy));
    EXPECT_TRUE(swtest::same_bits(a.pilot, b.pilot));
}

TEST(Frame, AWindowGetsTheDitherOfItsPlaceInTheFrame) {
    // Frame sizes around the dither's period, windows at every corner.
    for (uint32_t fm : {7u, 256u, 300u}) {
        const uint32_t fk = 9;
        std::vector<double> noisy(fm * fk), pilot(fm * fk);
        for (size_t q = 0; q < noisy.size(); ++q) noisy[q] = pilot[q] = 0.25 + 1e-3 * q;
        std::vector<double> whole_noisy = noisy, whole_pilot = pilot;
        sw::dither_images(whole_noisy.data(), whole_pilot.data(), fm * fk);
        for (uint32_t r0 : {0u, 3u}) {
            for (uint32_t c0 : {0u, 4u}) {
                const uint32_t m = fm - r0 - (r0 == 0 ? 2 : 0), k = fk - c0;
                std::vector<double> tn(m * k), tp(m * k);
                for (uint32_t j = 0; j < k; ++j) {
                    for (uint32_t i = 0; i < m; ++i) {
                        tn[i + j * m] = noisy[(r0 + i) + (c0 + j) * fm];
                        tp[i + j * m] = pilot[(r0 + i) + (c0 + j) * fm];
                    }
                }
                sw::dither_window(tn.data(), tp.data(), m, k, r0, c0, fm, fk);
                for (uint32_t j = 0; j < k; ++j) {
                    for (uint32_t i = 0; i < m; ++i) {
                        const size_t q = (r0 + i) + (c0 + j) * size_t{fm};
                        ASSERT_EQ(std::memcmp(&tn[i + j * m], &whole_noisy[q], 8), 0) << fm << " " << i << " " << j;
                        ASSERT_EQ(std::memcmp(&tp[i + j * m], &whole_pilot[q], 8), 0) << fm << " " << i << " " << j;
                    }
                }
            }
        }
    }
}

TEST(Frame, AFrameThatDoesNotHoldTheImageIsRejected) {
    swtest::RandomOptions o;
    swtest::CallPlan a = swtest::random_plan(3, o);
    PlanCall pa;
    describe(a, &pa);
    for (sw::FilterCall::Frame f : {sw::FilterCall::Frame{a.m, a.k, 1, 0},
                                    sw::FilterCall::Frame{a.m + 5, a.k, 0, 1},
                                    sw::FilterCall::Frame{70000, 70000, 0, 0}}) {
        pa.call.frame = f;
        const sw::Error e = sw::check(pa.call);
        EXPECT_STREQ(e.identifier, "shapewiener:frame:invalid");
    }
}

}  // namespace
