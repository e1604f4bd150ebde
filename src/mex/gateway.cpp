// The module's entry point: validation, the maximum scale, and the dispatch
// to a size-specialised variant or the general path.
#include "mex/gateway.h"

#include "driver/filter.h"
#include "mex/arguments.h"
#include "mex/validate.h"

namespace sw {

void mexFunction_h4(int, mxArray* plhs[], int, const mxArray* prhs[]) { run_filter<4>(plhs, prhs, 4); }
void mexFunction_h5(int, mxArray* plhs[], int, const mxArray* prhs[]) { run_filter<5>(plhs, prhs, 5); }
void mexFunction_h6(int, mxArray* plhs[], int, const mxArray* prhs[]) { run_filter<6>(plhs, prhs, 6); }
void mexFunction_h7(int, mxArray* plhs[], int, const mxArray* prhs[]) { run_filter<7>(plhs, prhs, 7); }
void mexFunction_h8(int, mxArray* plhs[], int, const mxArray* prhs[]) { run_filter<8>(plhs, prhs, 8); }
void mexFunction_h9(int, mxArray* plhs[], int, const mxArray* prhs[]) { run_filter<9>(plhs, prhs, 9); }
void mexFunction_h10(int, mxArray* plhs[], int, const mxArray* prhs[]) { run_filter<10>(plhs, prhs, 10); }
void mexFunction_h11(int, mxArray* plhs[], int, const mxArray* prhs[]) { run_filter<11>(plhs, prhs, 11); }

MexEntry variant_for(uint32_t h) {
    switch (h) {
        case 4: return mexFunction_h4;
        case 5: return mexFunction_h5;
        case 6: return mexFunction_h6;
        case 7: return mexFunction_h7;
        case 8: return mexFunction_h8;
        case 9: return mexFunction_h9;
        case 10: return mexFunction_h10;
        case 11: return mexFunction_h11;
        default: return nullptr;
    }
}

}  // namespace sw

void mexFunction(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]) {
    sw::validate_arguments(nlhs, nrhs, prhs);
    const uint32_t h = sw::round_to_unsigned(sw::first_element(prhs[sw::kArgMaxScale]));
    if (sw::MexEntry variant = sw::variant_for(h)) {
        variant(nlhs, plhs, nrhs, prhs);
        return;
    }
    sw::run_filter<0>(plhs, prhs, h);
}
