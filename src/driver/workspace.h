// The per-call working memory: one heap block carved into regions in a fixed
// order, plus the twiddle table for DFT sizes other than 32.
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

// Region pointers into the block. Complex arrays are interleaved floats.
struct Workspace {
    void* block;
    float* twiddle;  // n*n complex, exp(+2 pi i jk/n) at jn + k; null when n == 32
    float* spatial_block;            // n*n
    float* row_spectrum;             // n*(n/2+1) complex
    float* block_spectrum;           // n*(n/2+1) complex
    float* noisy_gather;             // w*w
    float* noisy_coefficients;       // w*w
    float* pilot_gather;             // w*w
    float* pilot_coefficients;       // w*w
    float* coefficient_noise_level;  // w*w
    float* weight_sum;               // m*k
    int32_t* column_count;           // w
    int32_t* row_count;              // w
    int32_t* row_cursor;             // w
    uint32_t* rounded_scales;        // l
    const double** transform_table;  // w
    uint16_t* coverage_count;        // m*k
    uint8_t* shape_mask;             // w*w
};

// Bytes of the block, alignment gaps included (64-bit arithmetic).
uint64_t workspace_bytes(const WorkspaceSizes& sizes);

// Bytes of the block by the plain region formula, without gaps:
// 4N^2 + 16N(N/2+1) + 21W^2 + 6MK + 12W + 4L + W*sizeof(pointer).
uint64_t workspace_formula_bytes(const WorkspaceSizes& sizes);

// Allocates the block and, when n != 32, the twiddle table (filled), then
// clears SpatialBlock. Returns false, with nothing left allocated, when an
// allocation fails.
bool workspace_create(const WorkspaceSizes& sizes, Workspace* ws);

// Frees the twiddle table (if any) and then the block.
void workspace_release(Workspace* ws);

// Fills the n*n complex twiddle table row by row with the rotation
// recurrence from (1, 0).
void twiddle_fill(float* table, uint32_t n);

}  // namespace sw

#endif  // SHAPEWIENER_DRIVER_WORKSPACE_H
