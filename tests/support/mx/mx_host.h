// Host-side extras of the standalone matrix API: the exception that
// mexErrMsgIdAndTxt throws, and small helpers for programs and tests that
// build argument lists. Nothing in the filter core includes this header.
#ifndef SHAPEWIENER_MX_HOST_H
#define SHAPEWIENER_MX_HOST_H

#include <stdexcept>
#include <string>

#include "mex.h"

namespace mx_host {

// Raised by mexErrMsgIdAndTxt: carries the identifier and the formatted text.
class MexError : public std::runtime_error {
public:
    MexError(std::string identifier, const std::string& message)
        : std::runtime_error(message), identifier_(std::move(identifier)) {}
    const std::string& identifier() const { return identifier_; }

private:
    std::string identifier_;
};

// Owns one mxArray and destroys it; for programs that build argument lists.
class ArrayPtr {
public:
    ArrayPtr() = default;
    explicit ArrayPtr(mxArray* a) : a_(a) {}
    ArrayPtr(const ArrayPtr&) = delete;
    ArrayPtr& operator=(const ArrayPtr&) = delete;
    ArrayPtr(ArrayPtr&& o) noexcept : a_(o.a_) { o.a_ = nullptr; }
    ArrayPtr& operator=(ArrayPtr&& o) noexcept {
        if (this != &o) {
            reset(o.a_);
            o.a_ = nullptr;
        }
        return *this;
    }
    ~ArrayPtr() { reset(); }
    mxArray* get() const { return a_; }
    void reset(mxArray* a = nullptr) {
        if (a_ != nullptr) mxDestroyArray(a_);
        a_ = a;
    }

private:
    mxArray* a_ = nullptr;
};

// Number of mxArrays created and not yet destroyed (cells included), for
// leak checks in tests.
long live_array_count();

// Bytes per element of a numeric, char or logical class; 0 for the others.
size_t element_size(mxClassID id);

}  // namespace mx_host

#endif  // SHAPEWIENER_MX_HOST_H
