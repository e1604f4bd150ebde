// Calls outside the argument contract are answered with an error before
// anything is allocated or modified; calls inside it are accepted. One table
// of faults (support/test_args.h, shared with the fuzz driver) runs on a few
// base calls, each fault with several of its variants.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include "support/test_args.h"

namespace {

using swtest::CallPlan;
using swtest::Fault;
using swtest::MexCall;

std::vector<CallPlan> base_plans() {
    return {swtest::random_plan(7, swtest::random_options(2, 6, 6, 5)), swtest::square_plan(4, 7, 3, 32),
            swtest::square_plan(3, 1, 1, 2), swtest::square_plan(0, 7, 2, 4)};
}

TEST(Validation, EveryFaultRaisesItsIdentifierAndChangesNothing) {
    std::set<std::string> identifiers;
    for (const CallPlan& plan : base_plans()) {
        for (const Fault& fault : swtest::faults()) {
            if (fault.needs_pixels && plan.pixel_count() == 0) continue;
            for (uint32_t r = 0; r < 8; ++r) {
                MexCall call = swtest::make_call(plan);
                fault.apply(call, plan, r);
                const char* expected = fault.outcome == Fault::kError     ? fault.identifier.c_str()
                                       : fault.outcome == Fault::kSuccess ? ""
                                                                          : nullptr;
                std::string text;
                EXPECT_EQ(swtest::check_call(call, 1, 16, expected, &text), "")
                    << fault.name << " " << fault.identifier << ", r = " << r << ", " << plan.m << "x"
                    << plan.k << " H = " << plan.h;
                if (fault.outcome == Fault::kError) {
                    EXPECT_NE(text.find(fault.message), std::string::npos) << fault.name << ": " << text;
                    identifiers.insert(fault.identifier);
                }
            }
        }
    }
    EXPECT_EQ(identifiers.size(), 64u);  // all but the counts and memory, every argument with its own
}

TEST(Validation, MessagesNameTheArgumentAsTheUserCountsIt) {
    const CallPlan plan = swtest::square_plan(64, 64, 2, 32);
    MexCall call = swtest::make_call(plan);
    static_cast<int32_t*>(mxGetData(call.args[9].get()))[16] = 0;
    std::string text;
    EXPECT_EQ(swtest::check_call(call, 1, 16, "shapewiener:ProcessingList:pixelOutOfRange", &text), "");
    EXPECT_EQ(text,
              "shapewiener:ProcessingList:pixelOutOfRange: argument 10 (ProcessingList): entry 17 "
              "has pixel index 0; pixel indices must lie in 1..4096.");
}

TEST(Validation, ArgumentCountsAndEmptyImages) {
    for (const CallPlan& plan : base_plans()) {
        for (const auto& c : {std::make_pair(1, 15), {1, 0}, {2, 16}, {3, 16}, {0, 16}, {1, 17}, {1, 20}}) {
            MexCall call = swtest::make_call(plan);
            const char* expected = c.second < 16 ? "shapewiener:nrhs:tooFew"
                                   : c.first > 1 ? "shapewiener:nlhs:tooMany"
                                                 : "";
            EXPECT_EQ(swtest::check_call(call, c.first, c.second, expected), "")
                << c.first << " " << c.second;
        }
    }
}

TEST(Validation, FailedAllocationIsAnErrorAndChangesNothing) {
#if defined(SWTEST_ASAN)
    GTEST_SKIP() << "address space limits do not mix with the address sanitizer";
#else
    // In a child process: a call whose workspace and twiddle table need about
    // 330 MB under an address-space limit that leaves far less.
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        CallPlan plan = swtest::square_plan(3, 3, 1, 2);
        plan.n = 4096;
        plan.psd.assign(size_t{4096} * 4096, 0.01);
        MexCall call = swtest::make_call(plan);
        plan = CallPlan();
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
            _exit(e.identifier() == "shapewiener:memory:outOfMemory" && plhs[0] == nullptr &&
                          swtest::same_bits(before, call.noisy())
                      ? 0
                      : 5);
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
