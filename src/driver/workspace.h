// The working memory of one call. What the whole call shares (weight sums,
// coverage counts, rounded scales, transform table) and the scratch that one
// entry in flight needs (spectrum buffers, gather and coefficient blocks,
// noise levels, counts, shape mask) are regions of one heap block; a call
// carves one scratch set per entry it keeps in flight. The twiddle table for
// DFT sizes other than 32 is a second block.
#ifndef SHAPEWIENER_DRIVER_WORKSPACE_H
#define SHAPEWIENER_DRIVER_WORKSPACE_H

#include <cstddef>
#include <cstdint>

namespace sw {

struct WorkspaceSizes {
    uint32_t m;  // image rows
    uint32_t k;  // image columns
    uint32_t w;  // box side, 2H - 1
    uint32_t n;  // DFT grid side
    uint32_t l;  // ScaleSet length
};

// Shared by every entry of a call.
struct CallState {
    float* twiddle;                  // n*n complex, exp(+2 pi i jk/n) at jn + k; null when n == 32
    float* weight_sum;               // m*k
    uint16_t* coverage_count;        // m*k
    uint32_t* rounded_scales;        // l
    const double** transform_table;  // w: entry len-1 points to the len x len matrix
};

// What one entry in flight works on. Complex arrays are interleaved floats.
struct EntryScratch {
    float* spatial_block;            // n*n
    float* row_spectrum;             // n*(n/2+1) complex
    float* block_spectrum;           // n*(n/2+1) complex
    float* noisy_gather;             // w*w
    float* noisy_coefficients;       // w*w
    float* pilot_gather;             // w*w
    float* pilot_coefficients;       // w*w
    float* coefficient_noise_level;  // w*w
    int32_t* column_count;           // w
    int32_t* row_count;              // w
    int32_t* row_cursor;             // w
    uint8_t* shape_mask;             // w*w
    // The shape's pixels as listed by shape_layout.h (optimised path).
    uint32_t* pixel_offset;          // w*w
    uint32_t* packed_slot;           // w*w
};

struct Workspace {
    void* block = nullptr;
    float* twiddle = nullptr;  // separate block, null when n == 32
    CallState call{};
    unsigned scratch_count = 0;
    unsigned char* scratch_base = nullptr;
    size_t scratch_stride = 0;
};

// Everything a call with `scratch_count` scratch sets allocates: the block
// (alignment gaps included) and the twiddle table. 64-bit arithmetic.
uint64_t workspace_bytes(const WorkspaceSizes& sizes, unsigned scratch_count);

// Allocates the block and, when n != 32, the twiddle table (filled), and
// clears every SpatialBlock. Returns false, with nothing left allocated,
// when an allocation fails or the size does not fit the address space.
bool workspace_create(const WorkspaceSizes& sizes, unsigned scratch_count, Workspace* ws);

// Scratch set i (0 .. scratch_count - 1).
EntryScratch workspace_scratch(const Workspace& ws, const WorkspaceSizes& sizes, unsigned i);

// Frees the twiddle table (if any) and then the block.
void workspace_release(Workspace* ws);

// Fills the n*n complex twiddle table row by row with the rotation
// recurrence from (1, 0).
void twiddle_fill(float* table, uint32_t n);

}  // namespace sw

#endif  // SHAPEWIENER_DRIVER_WORKSPACE_H
