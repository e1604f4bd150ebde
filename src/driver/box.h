// The box size of one filter definition. With HC != 0 the maximum scale is a
// build-time constant (the size-specialised variants); with HC == 0 it is the
// run-time value h. Every per-entry routine takes the box by template
// parameter so that its loop bounds fold to constants in the variants.
#ifndef SHAPEWIENER_DRIVER_BOX_H
#define SHAPEWIENER_DRIVER_BOX_H

#include <cstdint>

namespace sw {

template <uint32_t HC>
struct Box {
    uint32_t h;  // read only when HC == 0
    uint32_t H() const { return HC != 0 ? HC : h; }
    uint32_t W() const { return 2 * H() - 1; }
};

using RuntimeBox = Box<0>;

}  // namespace sw

#endif  // SHAPEWIENER_DRIVER_BOX_H
