#include "caller/sector_masks.h"

#include <stdexcept>

namespace swcaller {
namespace {

// Points and vectors in (row, column) offsets from the centre pixel.
struct Point {
    long row;
    long col;
};

long cross(Point u, Point v) { return u.row * v.col - u.col * v.row; }
long dot(Point u, Point v) { return u.row * v.row + u.col * v.col; }

// Whether p lies on the closed segment from the origin to v.
bool on_segment(Point p, Point v) {
    if (v.row == 0 && v.col == 0) return p.row == 0 && p.col == 0;
    return cross(v, p) == 0 && dot(p, v) >= 0 && dot(p, v) <= dot(v, v);
}

// Whether p lies in the closed triangle (origin, a, b). The two endpoints lie
// on neighbouring directions, so the triangle is flat only when one of them
// is the origin.
bool in_triangle(Point p, Point a, Point b) {
    const long area = cross(a, b);
    if (area == 0) return on_segment(p, a) || on_segment(p, b);
    // p = alpha * a + beta * b with alpha * area = cross(p, b) and
    // beta * area = cross(a, p); inside when alpha, beta >= 0, alpha + beta <= 1.
    const long sign = area > 0 ? 1 : -1;
    const long alpha = sign * cross(p, b);
    const long beta = sign * cross(a, p);
    return alpha >= 0 && beta >= 0 && alpha + beta <= sign * area;
}

}  // namespace

Step plane_step(uint32_t plane) {
    static const Step kSteps[8] = {
        {0, 1},    // E
        {-1, 1},   // NE
        {-1, 0},   // N
        {-1, -1},  // NW
        {0, -1},   // W
        {1, -1},   // SW
        {1, 0},    // S
        {1, 1},    // SE
    };
    return kSteps[plane % 8];
}

Mask sector_mask(uint32_t h, uint32_t sector, uint32_t a, uint32_t b) {
    if (h < 1 || sector > 7 || a < 1 || a > h || b < 1 || b > h) {
        throw std::invalid_argument("sector_mask: scales must lie in 1..h and the sector in 0..7");
    }
    const uint32_t w = 2 * h - 1;
    const Step first = plane_step(sector_first_plane(sector));
    const Step second = plane_step(sector_second_plane(sector));
    const Point end_a{static_cast<long>(a - 1) * first.row, static_cast<long>(a - 1) * first.col};
    const Point end_b{static_cast<long>(b - 1) * second.row, static_cast<long>(b - 1) * second.col};
    const long reach = static_cast<long>(h) - 1;
    Mask mask(static_cast<size_t>(w) * w, 0);
    for (uint32_t j = 0; j < w; ++j) {
        for (uint32_t i = 0; i < w; ++i) {
            const Point p{static_cast<long>(i) - reach, static_cast<long>(j) - reach};
            if (in_triangle(p, end_a, end_b)) mask[i + static_cast<size_t>(j) * w] = 1;
        }
    }
    return mask;
}

SectorMaskBank sector_mask_bank(uint32_t h) {
    SectorMaskBank bank(static_cast<size_t>(8) * h * h);
    for (uint32_t d = 0; d < 8; ++d) {
        for (uint32_t b = 1; b <= h; ++b) {
            for (uint32_t a = 1; a <= h; ++a) {
                bank[sector_cell_index(h, d, a, b)] = sector_mask(h, d, a, b);
            }
        }
    }
    return bank;
}

}  // namespace swcaller
