// Tiled processing: an image that is a window of a larger frame gets the
// dither of its place in the frame (the Python suite checks whole calls).
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "shape/gather.h"

namespace {

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

}  // namespace
