/*
 * Standalone stand-in for the host's matrix and MEX API.
 *
 * The filter core includes <mex.h> and is built three ways: against MATLAB's
 * header, against Octave's, and against this one for standalone programs and
 * tests. Only the part of the API that the module and its tests use is here,
 * with MATLAB's names, types and signatures.
 *
 * Differences from the real hosts:
 * - mexErrMsgIdAndTxt throws mx_host::MexError (see mx_host.h) instead of
 *   returning control to an interpreter.
 * - Arrays are never garbage-collected: whoever creates one destroys it with
 *   mxDestroyArray (a cell array owns the arrays stored in its cells).
 */
#ifndef SHAPEWIENER_MX_MEX_H
#define SHAPEWIENER_MX_MEX_H

#include <stddef.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct mxArray_tag mxArray;
typedef size_t mwSize;
typedef size_t mwIndex;

typedef enum {
    mxUNKNOWN_CLASS = 0,
    mxCELL_CLASS,
    mxSTRUCT_CLASS,
    mxLOGICAL_CLASS,
    mxCHAR_CLASS,
    mxVOID_CLASS,
    mxDOUBLE_CLASS,
    mxSINGLE_CLASS,
    mxINT8_CLASS,
    mxUINT8_CLASS,
    mxINT16_CLASS,
    mxUINT16_CLASS,
    mxINT32_CLASS,
    mxUINT32_CLASS,
    mxINT64_CLASS,
    mxUINT64_CLASS,
    mxFUNCTION_CLASS
} mxClassID;

typedef enum { mxREAL = 0, mxCOMPLEX = 1 } mxComplexity;

/* The gateway every MEX module defines. */
void mexFunction(int nlhs, mxArray *plhs[], int nrhs, const mxArray *prhs[]);

/* Queries. */
size_t mxGetM(const mxArray *pa);
size_t mxGetN(const mxArray *pa);
void *mxGetData(const mxArray *pa);
double *mxGetPr(const mxArray *pa);
mxArray *mxGetCell(const mxArray *pa, mwIndex i);
mxClassID mxGetClassID(const mxArray *pa);
bool mxIsDouble(const mxArray *pa);
bool mxIsCell(const mxArray *pa);
bool mxIsComplex(const mxArray *pa);
bool mxIsSparse(const mxArray *pa);
size_t mxGetNumberOfElements(const mxArray *pa);
mwSize mxGetNumberOfDimensions(const mxArray *pa);
const mwSize *mxGetDimensions(const mxArray *pa);

/* Construction and destruction. */
mxArray *mxCreateDoubleMatrix(mwSize m, mwSize n, mxComplexity flag);
mxArray *mxCreateNumericArray(mwSize ndim, const mwSize *dims, mxClassID classid,
                              mxComplexity flag);
mxArray *mxCreateNumericMatrix(mwSize m, mwSize n, mxClassID classid, mxComplexity flag);
mxArray *mxCreateCellArray(mwSize ndim, const mwSize *dims);
mxArray *mxCreateCellMatrix(mwSize m, mwSize n);
mxArray *mxCreateSparse(mwSize m, mwSize n, mwSize nzmax, mxComplexity flag);
mxArray *mxCreateString(const char *str);
void mxSetCell(mxArray *pa, mwIndex i, mxArray *value);
void mxDestroyArray(mxArray *pa);

/* Errors: does not return. */
#if defined(__GNUC__)
__attribute__((noreturn, format(printf, 2, 3)))
#endif
void mexErrMsgIdAndTxt(const char *identifier, const char *fmt, ...);

#ifdef __cplusplus
}
#endif

#endif /* SHAPEWIENER_MX_MEX_H */
