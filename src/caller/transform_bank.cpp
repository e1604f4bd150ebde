#include "caller/transform_bank.h"

#include <cmath>

namespace swcaller {

std::vector<double> dct_matrix(uint32_t length) {
    const double pi = 3.14159265358979323846;
    std::vector<double> t(static_cast<size_t>(length) * length);
    for (uint32_t f = 0; f < length; ++f) {
        const double scale = std::sqrt((f == 0 ? 1.0 : 2.0) / length);
        for (uint32_t s = 0; s < length; ++s) {
            t[f + static_cast<size_t>(s) * length] =
                scale * std::cos(pi * (2.0 * s + 1.0) * f / (2.0 * length));
        }
    }
    return t;
}

TransformBank dct_bank(uint32_t max_length) {
    TransformBank bank;
    bank.reserve(max_length);
    for (uint32_t length = 1; length <= max_length; ++length) bank.push_back(dct_matrix(length));
    return bank;
}

}  // namespace swcaller
