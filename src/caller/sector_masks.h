// Sector masks: the triangular pieces from which the module assembles a
// pixel's neighbourhood.
//
// The eight direction planes, 45 degrees apart and counter-clockwise on
// screen (row offsets grow downwards, so "north" is row offset -1):
//
//     plane:      0   1    2   3    4   5    6   7
//     direction:  E   NE   N   NW   W   SW   S   SE
//
// Sector d lies between planes (d + 4) mod 8 and (d + 5) mod 8; the module
// picks its mask with the scale a of the first plane and the scale b of the
// second. The mask is the filled triangle whose corners are the centre pixel
// and the endpoints at length a along the first direction and length b along
// the second, a pixel belonging to it when its centre lies inside or on the
// triangle. Length s reaches s - 1 steps from the centre (a diagonal step
// moves one row and one column), so scale 1 is the centre pixel alone and a
// sector with one scale 1 shrinks to the segment along the other direction.
// With every scale equal to s the eight sectors tile the square of side
// 2s - 1 around the centre.
#ifndef SHAPEWIENER_CALLER_SECTOR_MASKS_H
#define SHAPEWIENER_CALLER_SECTOR_MASKS_H

#include <cstdint>
#include <vector>

namespace swcaller {

enum Plane : uint32_t {
    kEast = 0,
    kNorthEast = 1,
    kNorth = 2,
    kNorthWest = 3,
    kWest = 4,
    kSouthWest = 5,
    kSouth = 6,
    kSouthEast = 7,
};

// One step along a plane's direction, in row and column offsets.
struct Step {
    int row;
    int col;
};

Step plane_step(uint32_t plane);

// The two planes that bound sector d.
inline uint32_t sector_first_plane(uint32_t sector) { return (sector + 4) % 8; }
inline uint32_t sector_second_plane(uint32_t sector) { return (sector + 5) % 8; }

// 0-based bank cell of sector d with scales a (first plane) and b (second
// plane): (a - 1) + (b - 1) * h + d * h * h, as the module indexes the bank.
inline uint32_t sector_cell_index(uint32_t h, uint32_t sector, uint32_t a, uint32_t b) {
    return (a - 1) + (b - 1) * h + sector * h * h;
}

// A W x W mask (W = 2h - 1), column-major: element (i, j) at i + j * W is
// the pixel at row offset i - (h - 1) and column offset j - (h - 1) from the
// centre; 1 means inside. Scales lie in 1 .. h.
using Mask = std::vector<uint8_t>;

Mask sector_mask(uint32_t h, uint32_t sector, uint32_t a, uint32_t b);

// All 8 h^2 masks, indexed by sector_cell_index.
using SectorMaskBank = std::vector<Mask>;

SectorMaskBank sector_mask_bank(uint32_t h);

}  // namespace swcaller

#endif  // SHAPEWIENER_CALLER_SECTOR_MASKS_H
