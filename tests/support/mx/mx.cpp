// Standalone implementation of the matrix and MEX API declared in mex.h.
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mex.h"
#include "mx_host.h"

struct mxArray_tag {
    mxClassID class_id = mxUNKNOWN_CLASS;
    std::vector<mwSize> dims;  // always at least two
    bool complex = false;
    bool sparse = false;
    size_t element_count = 0;  // product of dims
    void* real = nullptr;      // element_count (nzmax for sparse) elements
    void* imag = nullptr;      // same size, complex arrays only
    std::vector<mxArray*> cells;
};

namespace {

std::atomic<long> g_live_arrays{0};

[[noreturn]] void host_abort(const char* what) {
    std::fprintf(stderr, "mx host: %s\n", what);
    std::abort();
}

void out_of_memory() {
    mexErrMsgIdAndTxt("MATLAB:nomem", "Out of memory.");
}

// Overflow-checked product of the dimensions.
size_t checked_count(const std::vector<mwSize>& dims) {
    size_t n = 1;
    for (mwSize d : dims) {
        if (d != 0 && n > static_cast<size_t>(-1) / d) out_of_memory();
        n *= d;
    }
    return n;
}

mxArray* new_array(mxClassID id, mwSize ndim, const mwSize* dims, bool complex,
                   bool sparse) {
    std::vector<mwSize> d(dims, dims + ndim);
    while (d.size() < 2) d.push_back(d.empty() ? 0 : 1);
    // Trailing singleton dimensions beyond the second are dropped, as the
    // real hosts do.
    while (d.size() > 2 && d.back() == 1) d.pop_back();
    auto* a = new mxArray_tag;
    a->class_id = id;
    a->dims = std::move(d);
    a->complex = complex;
    a->sparse = sparse;
    a->element_count = checked_count(a->dims);
    ++g_live_arrays;
    return a;
}

void allocate_data(mxArray* a, size_t count) {
    size_t bytes = mx_host::element_size(a->class_id);
    if (count == 0 || bytes == 0) return;
    if (count > static_cast<size_t>(-1) / bytes) {
        mxDestroyArray(a);
        out_of_memory();
    }
    a->real = std::calloc(count, bytes);
    if (a->complex) a->imag = std::calloc(count, bytes);
    if (a->real == nullptr || (a->complex && a->imag == nullptr)) {
        mxDestroyArray(a);
        out_of_memory();
    }
}

}  // namespace

namespace mx_host {
long live_array_count() { return g_live_arrays.load(); }
size_t element_size(mxClassID id) {
    switch (id) {
        case mxDOUBLE_CLASS: case mxINT64_CLASS: case mxUINT64_CLASS: return 8;
        case mxSINGLE_CLASS: case mxINT32_CLASS: case mxUINT32_CLASS: return 4;
        case mxINT16_CLASS: case mxUINT16_CLASS: case mxCHAR_CLASS: return 2;
        case mxINT8_CLASS: case mxUINT8_CLASS: case mxLOGICAL_CLASS: return 1;
        default: return 0;
    }
}
}  // namespace mx_host

extern "C" {

size_t mxGetM(const mxArray* pa) { return pa->dims[0]; }

size_t mxGetN(const mxArray* pa) {
    size_t n = 1;
    for (size_t i = 1; i < pa->dims.size(); ++i) n *= pa->dims[i];
    return n;
}

void* mxGetData(const mxArray* pa) {
    if (pa->class_id == mxCELL_CLASS) host_abort("mxGetData called on a cell array");
    return pa->real;
}

double* mxGetPr(const mxArray* pa) {
    if (pa->class_id != mxDOUBLE_CLASS) host_abort("mxGetPr called on a non-double array");
    return static_cast<double*>(pa->real);
}

mxArray* mxGetCell(const mxArray* pa, mwIndex i) {
    if (pa->class_id != mxCELL_CLASS) host_abort("mxGetCell called on a non-cell array");
    if (i >= pa->cells.size()) host_abort("mxGetCell index out of range");
    return pa->cells[i];
}

mxClassID mxGetClassID(const mxArray* pa) { return pa->class_id; }
bool mxIsDouble(const mxArray* pa) { return pa->class_id == mxDOUBLE_CLASS; }
bool mxIsCell(const mxArray* pa) { return pa->class_id == mxCELL_CLASS; }
bool mxIsComplex(const mxArray* pa) { return pa->complex; }
bool mxIsSparse(const mxArray* pa) { return pa->sparse; }
size_t mxGetNumberOfElements(const mxArray* pa) { return pa->element_count; }
mwSize mxGetNumberOfDimensions(const mxArray* pa) { return pa->dims.size(); }
const mwSize* mxGetDimensions(const mxArray* pa) { return pa->dims.data(); }

mxArray* mxCreateNumericArray(mwSize ndim, const mwSize* dims, mxClassID classid,
                              mxComplexity flag) {
    if (mx_host::element_size(classid) == 0 || classid == mxCHAR_CLASS || classid == mxLOGICAL_CLASS)
        host_abort("mxCreateNumericArray: not a numeric class");
    mxArray* a = new_array(classid, ndim, dims, flag == mxCOMPLEX, false);
    allocate_data(a, a->element_count);
    return a;
}

mxArray* mxCreateNumericMatrix(mwSize m, mwSize n, mxClassID classid, mxComplexity flag) {
    const mwSize dims[2] = {m, n};
    return mxCreateNumericArray(2, dims, classid, flag);
}

mxArray* mxCreateDoubleMatrix(mwSize m, mwSize n, mxComplexity flag) {
    return mxCreateNumericMatrix(m, n, mxDOUBLE_CLASS, flag);
}

mxArray* mxCreateCellArray(mwSize ndim, const mwSize* dims) {
    mxArray* a = new_array(mxCELL_CLASS, ndim, dims, false, false);
    try {
        a->cells.assign(a->element_count, nullptr);
    } catch (const std::bad_alloc&) {
        mxDestroyArray(a);
        out_of_memory();
    }
    return a;
}

mxArray* mxCreateCellMatrix(mwSize m, mwSize n) {
    const mwSize dims[2] = {m, n};
    return mxCreateCellArray(2, dims);
}

mxArray* mxCreateSparse(mwSize m, mwSize n, mwSize nzmax, mxComplexity flag) {
    const mwSize dims[2] = {m, n};
    mxArray* a = new_array(mxDOUBLE_CLASS, 2, dims, flag == mxCOMPLEX, true);
    allocate_data(a, nzmax == 0 ? 1 : nzmax);
    return a;
}

mxArray* mxCreateString(const char* str) {
    size_t len = std::strlen(str);
    const mwSize dims[2] = {1, len};
    mxArray* a = new_array(mxCHAR_CLASS, 2, dims, false, false);
    allocate_data(a, len);
    auto* chars = static_cast<unsigned short*>(a->real);
    for (size_t i = 0; i < len; ++i) chars[i] = static_cast<unsigned char>(str[i]);
    return a;
}

void mxSetCell(mxArray* pa, mwIndex i, mxArray* value) {
    if (pa->class_id != mxCELL_CLASS) host_abort("mxSetCell called on a non-cell array");
    if (i >= pa->cells.size()) host_abort("mxSetCell index out of range");
    if (pa->cells[i] != nullptr && pa->cells[i] != value) mxDestroyArray(pa->cells[i]);
    pa->cells[i] = value;
}

void mxDestroyArray(mxArray* pa) {
    if (pa == nullptr) return;
    for (mxArray* c : pa->cells) mxDestroyArray(c);
    std::free(pa->real);
    std::free(pa->imag);
    delete pa;
    --g_live_arrays;
}

void mexErrMsgIdAndTxt(const char* identifier, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    va_list copy;
    va_copy(copy, args);
    int len = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    std::string text(len > 0 ? static_cast<size_t>(len) : 0, '\0');
    if (len > 0) std::vsnprintf(&text[0], text.size() + 1, fmt, args);
    va_end(args);
    throw mx_host::MexError(identifier != nullptr ? identifier : "", text);
}

}  // extern "C"
