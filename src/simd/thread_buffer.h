// A growing, 64-byte aligned scratch block, one per thread and use, kept
// between calls: the fast paths' working memory beyond the workspace.
#ifndef SHAPEWIENER_SIMD_THREAD_BUFFER_H
#define SHAPEWIENER_SIMD_THREAD_BUFFER_H

#include <cstddef>
#include <new>

namespace sw {
namespace simd {

constexpr size_t kBufferAlign = 64;

class ThreadBuffer {
public:
    ThreadBuffer() = default;
    ThreadBuffer(const ThreadBuffer&) = delete;
    ThreadBuffer& operator=(const ThreadBuffer&) = delete;
    ~ThreadBuffer() { release(); }

    // At least `bytes` bytes (old contents lost when it grows), or null
    // when they cannot be had.
    unsigned char* get(size_t bytes) {
        if (bytes > capacity_) {
            release();
            data_ = static_cast<unsigned char*>(
                ::operator new(bytes, std::align_val_t{kBufferAlign}, std::nothrow));
            capacity_ = data_ != nullptr ? bytes : 0;
        }
        return data_;
    }

private:
    void release() {
        if (data_ != nullptr) ::operator delete(data_, std::align_val_t{kBufferAlign});
        data_ = nullptr;
        capacity_ = 0;
    }

    unsigned char* data_ = nullptr;
    size_t capacity_ = 0;
};

// Lays typed regions, each 64-byte aligned, out in one block: a first walk
// with no base measures, a second with the block's base hands out pointers.
class Carver {
public:
    explicit Carver(unsigned char* base) : base_(base) {}

    template <class T>
    T* take(size_t count) {
        const size_t at = used_;
        used_ += (count * sizeof(T) + kBufferAlign - 1) / kBufferAlign * kBufferAlign;
        return base_ != nullptr ? reinterpret_cast<T*>(base_ + at) : nullptr;
    }
    size_t used() const { return used_; }

private:
    unsigned char* base_;
    size_t used_ = 0;
};

}  // namespace simd
}  // namespace sw

#endif  // SHAPEWIENER_SIMD_THREAD_BUFFER_H
