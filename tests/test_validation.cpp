// Calls outside the argument contract are answered with an error, before
// anything is allocated or modified; calls inside it are never rejected.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/test_args.h"

namespace {

using swtest::same_bits;

using swtest::CallPlan;
using swtest::MexCall;

// A small valid call: 6 x 5 image, H = 2, N = 4.
CallPlan valid_plan() { return swtest::square_plan(6, 5, 2, 4); }

mxArray* scalar(double x) {
    mxArray* a = mxCreateDoubleMatrix(1, 1, mxREAL);
    *mxGetPr(a) = x;
    return a;
}

void replace(MexCall& call, int k, mxArray* value) {
    call.args[k].reset(value);
    call.prhs[k] = value;
}

// Runs the call and returns the error identifier ("" when it succeeded);
// checks that a failing call changed neither image.
std::string error_of(MexCall& call, int nlhs = 1, int nrhs = 16) {
    const std::vector<double> noisy = call.noisy();
    const std::vector<double> pilot = call.pilot();
    mxArray* plhs[4] = {nullptr, nullptr, nullptr, nullptr};
    try {
        mexFunction(nlhs, plhs, nrhs, call.prhs.data());
    } catch (const mx_host::MexError& e) {
        EXPECT_EQ(plhs[0], nullptr) << e.identifier();
        EXPECT_TRUE(same_bits(noisy, call.noisy())) << e.identifier();
        EXPECT_TRUE(same_bits(pilot, call.pilot())) << e.identifier();
        EXPECT_FALSE(std::string(e.what()).empty());
        return e.identifier();
    }
    call.out.reset(plhs[0]);
    return "";
}

struct Case {
    const char* identifier;
    std::function<void(MexCall&)> mutate;
};

TEST(Validation, EveryRuleRaisesItsIdentifierAndChangesNothing) {
    const std::vector<Case> cases = {
        {"shapewiener:ScaleSet:notDouble", [](MexCall& c) { replace(c, 0, mxCreateNumericMatrix(1, 1, mxINT32_CLASS, mxREAL)); }},
        {"shapewiener:ScaleSet:notVector", [](MexCall& c) { replace(c, 0, mxCreateDoubleMatrix(2, 2, mxREAL)); }},
        {"shapewiener:ScaleSet:notVector", [](MexCall& c) { replace(c, 0, mxCreateDoubleMatrix(0, 1000000, mxREAL)); }},
        {"shapewiener:ScaleSet:complex", [](MexCall& c) { replace(c, 0, mxCreateDoubleMatrix(1, 1, mxCOMPLEX)); }},
        {"shapewiener:DirectionScaleMap:notUint8", [](MexCall& c) { replace(c, 1, mxCreateDoubleMatrix(6, 40, mxREAL)); }},
        {"shapewiener:DirectionScaleMap:size", [](MexCall& c) {
             const mwSize dims[3] = {6, 5, 7};
             replace(c, 1, mxCreateNumericArray(3, dims, mxUINT8_CLASS, mxREAL));
         }},
        {"shapewiener:DirectionScaleMap:indexOutOfRange", [](MexCall& c) {
             static_cast<uint8_t*>(mxGetData(c.args[1].get()))[17] = 0;
         }},
        {"shapewiener:DirectionScaleMap:indexOutOfRange", [](MexCall& c) {
             static_cast<uint8_t*>(mxGetData(c.args[1].get()))[239] = 2;  // L = 1
         }},
        {"shapewiener:DirectionScaleMap:scaleOutOfRange", [](MexCall& c) { *mxGetPr(c.args[0].get()) = 2.5; }},
        {"shapewiener:DirectionScaleMap:scaleOutOfRange", [](MexCall& c) { *mxGetPr(c.args[0].get()) = 0.4; }},
        {"shapewiener:DirectionScaleMap:scaleOutOfRange", [](MexCall& c) { *mxGetPr(c.args[0].get()) = std::nan(""); }},
        {"shapewiener:TransformBank:notCell", [](MexCall& c) { replace(c, 2, scalar(1)); }},
        {"shapewiener:TransformBank:tooFewCells", [](MexCall& c) { replace(c, 2, mxCreateCellMatrix(1, 2)); }},
        {"shapewiener:TransformBank:emptyCell", [](MexCall& c) { mxSetCell(c.args[2].get(), 1, nullptr); }},
        {"shapewiener:TransformBank:size", [](MexCall& c) { mxSetCell(c.args[2].get(), 2, mxCreateDoubleMatrix(3, 2, mxREAL)); }},
        {"shapewiener:TransformBank:notDouble", [](MexCall& c) {
             mxSetCell(c.args[2].get(), 0, mxCreateNumericMatrix(1, 1, mxSINGLE_CLASS, mxREAL));
         }},
        {"shapewiener:TransformBank:sparse", [](MexCall& c) { mxSetCell(c.args[2].get(), 1, mxCreateSparse(2, 2, 4, mxREAL)); }},
        {"shapewiener:SectorMaskBank:notCell", [](MexCall& c) { replace(c, 3, mxCreateString("masks")); }},
        {"shapewiener:SectorMaskBank:cellCount", [](MexCall& c) { replace(c, 3, mxCreateCellMatrix(2, 2)); }},
        {"shapewiener:SectorMaskBank:emptyCell", [](MexCall& c) { mxSetCell(c.args[3].get(), 31, nullptr); }},
        {"shapewiener:SectorMaskBank:notUint8", [](MexCall& c) { mxSetCell(c.args[3].get(), 5, mxCreateDoubleMatrix(3, 3, mxREAL)); }},
        {"shapewiener:SectorMaskBank:size", [](MexCall& c) {
             mxSetCell(c.args[3].get(), 5, mxCreateNumericMatrix(9, 1, mxUINT8_CLASS, mxREAL));
         }},
        {"shapewiener:DftSize:notDouble", [](MexCall& c) { replace(c, 6, mxCreateNumericMatrix(1, 1, mxUINT8_CLASS, mxREAL)); }},
        {"shapewiener:DftSize:empty", [](MexCall& c) { replace(c, 6, mxCreateDoubleMatrix(0, 1, mxREAL)); }},
        {"shapewiener:DftSize:notFinite", [](MexCall& c) { replace(c, 6, scalar(INFINITY)); }},
        {"shapewiener:DftSize:notFinite", [](MexCall& c) { replace(c, 6, scalar(std::nan(""))); }},
        {"shapewiener:DftSize:tooSmall", [](MexCall& c) { replace(c, 6, scalar(2)); }},
        {"shapewiener:DftSize:odd", [](MexCall& c) { replace(c, 6, scalar(5)); }},
        {"shapewiener:NoisePsd:size", [](MexCall& c) { replace(c, 7, mxCreateDoubleMatrix(4, 3, mxREAL)); }},
        {"shapewiener:NoisePsd:sparse", [](MexCall& c) { replace(c, 7, mxCreateSparse(4, 4, 16, mxREAL)); }},
        {"shapewiener:NoisyImage:notDouble", [](MexCall& c) { replace(c, 8, mxCreateNumericMatrix(6, 5, mxSINGLE_CLASS, mxREAL)); }},
        {"shapewiener:NoisyImage:complex", [](MexCall& c) { replace(c, 8, mxCreateDoubleMatrix(6, 5, mxCOMPLEX)); }},
        {"shapewiener:NoisyImage:size", [](MexCall& c) {
             const mwSize dims[3] = {6, 5, 2};
             replace(c, 8, mxCreateNumericArray(3, dims, mxDOUBLE_CLASS, mxREAL));
         }},
        {"shapewiener:ProcessingList:notInt32", [](MexCall& c) { replace(c, 9, mxCreateDoubleMatrix(30, 2, mxREAL)); }},
        {"shapewiener:ProcessingList:size", [](MexCall& c) { replace(c, 9, mxCreateNumericMatrix(30, 3, mxINT32_CLASS, mxREAL)); }},
        {"shapewiener:ProcessingList:pixelOutOfRange", [](MexCall& c) { static_cast<int32_t*>(mxGetData(c.args[9].get()))[4] = 0; }},
        {"shapewiener:ProcessingList:pixelOutOfRange", [](MexCall& c) { static_cast<int32_t*>(mxGetData(c.args[9].get()))[29] = 31; }},
        {"shapewiener:NoiseLevelFactor:empty", [](MexCall& c) { replace(c, 10, mxCreateDoubleMatrix(1, 0, mxREAL)); }},
        {"shapewiener:NoiseLevelFactor:notDouble", [](MexCall& c) { replace(c, 10, mxCreateString("1")); }},
        {"shapewiener:MaxScale:outOfRange", [](MexCall& c) { replace(c, 12, scalar(0.4)); }},
        {"shapewiener:MaxScale:notFinite", [](MexCall& c) { replace(c, 12, scalar(-INFINITY)); }},
        {"shapewiener:MaxScale:complex", [](MexCall& c) { replace(c, 12, mxCreateDoubleMatrix(1, 1, mxCOMPLEX)); }},
        {"shapewiener:PilotImage:size", [](MexCall& c) { replace(c, 13, mxCreateDoubleMatrix(5, 6, mxREAL)); }},
        {"shapewiener:PilotImage:notDouble", [](MexCall& c) { replace(c, 13, mxCreateCellMatrix(6, 5)); }},
        {"shapewiener:WienerVarianceFactor:empty", [](MexCall& c) { replace(c, 14, mxCreateDoubleMatrix(0, 0, mxREAL)); }},
        {"shapewiener:CoverageThreshold:notDouble", [](MexCall& c) {
             replace(c, 15, mxCreateNumericMatrix(1, 1, mxINT32_CLASS, mxREAL));
         }},
        // Sizes whose working arrays would not be addressable in 32 bits: a
        // huge H is caught by the sizes before any mask is looked at.
        {"shapewiener:sizes:tooLarge", [](MexCall& c) {
             replace(c, 12, scalar(20000));
             replace(c, 6, scalar(40000));
         }},
        {"shapewiener:sizes:tooLarge", [](MexCall& c) { replace(c, 6, scalar(1e9)); }},
    };
    for (const Case& k : cases) {
        MexCall call = swtest::make_call(valid_plan());
        k.mutate(call);
        EXPECT_EQ(error_of(call), k.identifier);
    }
}

TEST(Validation, ArgumentCounts) {
    MexCall call = swtest::make_call(valid_plan());
    EXPECT_EQ(error_of(call, 1, 15), "shapewiener:nrhs:tooFew");
    EXPECT_EQ(error_of(call, 1, 0), "shapewiener:nrhs:tooFew");
    EXPECT_EQ(error_of(call, 2, 16), "shapewiener:nlhs:tooMany");
    // Extra inputs are ignored.
    call.args.emplace_back(mxCreateString("extra"));
    call.prhs.push_back(call.args.back().get());
    EXPECT_EQ(error_of(call, 1, 17), "");
}

TEST(Validation, MessagesNameTheArgumentAsTheUserCountsIt) {
    MexCall call = swtest::make_call(valid_plan());
    replace(call, 8, mxCreateNumericMatrix(6, 5, mxUINT8_CLASS, mxREAL));
    try {
        call.run();
        FAIL();
    } catch (const mx_host::MexError& e) {
        EXPECT_NE(std::string(e.what()).find("argument 9 (NoisyImage)"), std::string::npos) << e.what();
        EXPECT_NE(std::string(e.what()).find("uint8"), std::string::npos) << e.what();
    }
}

TEST(Validation, CallsInsideTheContractAreAccepted) {
    const std::vector<std::function<void(CallPlan&)>> allowed = {
        [](CallPlan& s) { s.coverage_threshold = std::nan(""); },
        [](CallPlan& s) { s.coverage_threshold = 1e300; },
        [](CallPlan& s) { s.coverage_threshold = -5; },
        [](CallPlan& s) { s.noise_level_factor = -1; },
        [](CallPlan& s) { s.noise_level_factor = std::nan(""); },
        [](CallPlan& s) { s.wiener_variance_factor = 0; },
        [](CallPlan& s) { s.wiener_variance_factor = -INFINITY; },
        [](CallPlan& s) { s.noisy[3] = std::nan(""); s.pilot[7] = -40; },
        [](CallPlan& s) { s.scale_set = {2.4, 99, std::nan("")}; },  // only element 1 selected
        [](CallPlan& s) { s.transforms.push_back(std::vector<double>(16, 0.0)); },
        [](CallPlan& s) { s.keys.assign(s.keys.size(), 0); },
        [](CallPlan& s) { s.pixels.assign(s.pixels.size(), 4); },
        [](CallPlan& s) { s.h_argument = 2.2; },
        [](CallPlan& s) { s.n = 6; s.psd.assign(36, 0.01); },
    };
    for (size_t i = 0; i < allowed.size(); ++i) {
        CallPlan plan = valid_plan();
        allowed[i](plan);
        MexCall call = swtest::make_call(plan);
        EXPECT_EQ(error_of(call), "") << "case " << i;
        EXPECT_NE(call.out.get(), nullptr);
    }
}

TEST(Validation, FailedAllocationIsAnErrorAndChangesNothing) {
#if defined(__SANITIZE_ADDRESS__) || SHAPEWIENER_HAS_ADDRESS_SANITIZER
    GTEST_SKIP() << "address space limits do not mix with the address sanitizer";
#else
    // In a child process: a call whose workspace and twiddle table need about
    // 330 MB under an address-space limit that leaves far less.
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        CallPlan plan = swtest::square_plan(3, 3, 1, 2);
        const uint32_t n = 4096;
        plan.n = n;
        plan.psd.assign(static_cast<size_t>(n) * n, 0.01);
        MexCall call = swtest::make_call(plan);
        plan.psd.clear();
        plan.psd.shrink_to_fit();
        long pages = 0;
        FILE* f = std::fopen("/proc/self/statm", "r");
        if (f == nullptr || std::fscanf(f, "%ld", &pages) != 1) _exit(3);
        std::fclose(f);
        const rlim_t limit = static_cast<rlim_t>(pages) * sysconf(_SC_PAGESIZE) + (64u << 20);
        const struct rlimit rl = {limit, limit};
        if (setrlimit(RLIMIT_AS, &rl) != 0) _exit(4);
        const std::vector<double> before = call.noisy();
        mxArray* plhs[1] = {nullptr};
        try {
            mexFunction(1, plhs, 16, call.prhs.data());
        } catch (const mx_host::MexError& e) {
            const bool ok = e.identifier() == "shapewiener:memory:outOfMemory" && plhs[0] == nullptr &&
                            std::memcmp(before.data(), call.noisy().data(), sizeof(double) * 9) == 0;
            _exit(ok ? 0 : 5);
        }
        _exit(6);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
#endif
}

}  // namespace
