// SHA-256 (FIPS 180-4) of a byte string, as 64 lowercase hex digits: for
// pinning the exact bits of filter outputs in tests.
#ifndef SHAPEWIENER_TESTS_SUPPORT_SHA256_H
#define SHAPEWIENER_TESTS_SUPPORT_SHA256_H

#include <cstddef>
#include <string>

namespace swtest {

std::string sha256_hex(const void* data, size_t size);

}  // namespace swtest

#endif  // SHAPEWIENER_TESTS_SUPPORT_SHA256_H
