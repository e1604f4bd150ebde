// The exact bits of whole calls: SHA-256 of the output's bytes followed by
// the bytes of both images after the call (the dither), for a table of calls
// that covers the fast N = 32 path, the table path (even N; odd N through the
// general path directly, since the contract check rejects it), the general
// path (H = 1..3), every size-specialised variant (H = 4..11), coverage
// skipping, repeated pixels, NaN pixels and flat regions; and the two
// adaptive workloads of tests/data/workloads against their published checksums.
//
// Inputs are generated deterministically (support/test_args.h: fixed seeds,
// exact arithmetic; the DCT matrices use glibc's cos, fixed on Debian 12).
// A change of any output bit fails. To change the expected bits deliberately,
// run with SHAPEWIENER_PRINT_HASHES=1: every row prints its actual checksum
// in the form of the table, ready to paste. A new row is one entry of kGolden.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "mex/gateway.h"
#include "shapewiener/filter.h"
#include "support/sha256.h"
#include "support/shared_workload.h"
#include "support/test_args.h"

namespace {

using swtest::CallPlan;

using swtest::kRandomMatrices;
using swtest::kRepeatPixels;
using swtest::kSquareMasks;
using swtest::random_options;

// Uniform noise of the given amplitude on the noisy image (the pilot keeps its values).
CallPlan noisy(CallPlan s, uint32_t seed, double amplitude) {
    std::mt19937 rng(seed);
    for (double& v : s.noisy) v += amplitude * (2.0 * swtest::unit(rng) - 1.0);
    return s;
}

struct Golden {
    const char* description;
    CallPlan (*plan)();
    bool general_path;  // run the general path directly, bypassing check and dispatch
    const char* sha256;
};

const Golden kGolden[] = {
    {"N = 32, H = 4, random masks", [] { return swtest::random_plan(101, random_options(4, 32, 12, 10)); }, false,
     "8b5b21a11ea1d5bc0ed64b7d1bfbea1123dedff6c4efd4747ec0a4204b1f9228"},
    {"N = 32, H = 4, squares, flat regions, zeros, values outside [0, 1]",
     [] {
         CallPlan s = swtest::square_plan(11, 9, 4, 32);
         for (uint32_t q = 0; q < 99; ++q) {
             s.noisy[q] = q < 40 ? 0.5 : q < 50 ? 0.0 : q % 7 == 0 ? 1.25 : q % 5 == 0 ? -0.125 : s.noisy[q];
             s.pilot[q] = q < 45 ? 0.5 : s.noisy[q];
         }
         return s;
     },
     false, "d5bbe04e4e2c08a439527c70ee24e88cb157407044848bc7c2da70dd4b462210"},
    {"flat image, noise far below the mean-removal ramp",
     [] {
         CallPlan s = swtest::square_plan(8, 7, 3, 32);
         s.noisy.assign(56, 0.5);
         s.pilot.assign(56, 0.5);
         s.psd.assign(32 * 32, 1e-33);
         return s;
     },
     false, "d50ab1b2e5edcb5316a792196157f49bb6126a782eb1738096440e18b762ee84"},
    {"table path N = 12, H = 3, random matrices",
     [] { return swtest::random_plan(102, random_options(3, 12, 9, 11, kRandomMatrices)); }, false,
     "3a5139867c979f185b8528628ded8b824db6b5fa89d006dba5feefddb673102a"},
    {"table path N = 10, H = 5 (variant)", [] { return swtest::random_plan(103, random_options(5, 10, 7, 6)); },
     false, "ce2b703944541897bbe5a730a143d5a3d5b6d00664342c7bb695829de00bb902"},
    {"odd N = 9, H = 2, general path", [] { return swtest::random_plan(104, random_options(2, 9, 8, 7)); }, true,
     "9c14c0d337e893ae391be04b22191b0fdc746aa98391b456e120c67fbef1d464"},
    {"odd N = 7, H = 4, general path", [] { return noisy(swtest::square_plan(9, 8, 4, 7), 5, 0.2); }, true,
     "0f2e36193922aaf2f080b9a61c73c86eba1d4d9cddb752382330e9c8c5b8b052"},
    {"H = 1", [] { return swtest::random_plan(105, random_options(1, 32, 7, 6)); }, false,
     "c8aff498dc9d84c760ada3ebd1ab6d2dac3a35fa5e891d357d1cc74aa56fa89e"},
    {"H = 2, random matrices, square masks",
     [] { return swtest::random_plan(106, random_options(2, 32, 8, 9, kRandomMatrices | kSquareMasks)); }, false,
     "0247d81560932f396773a902fd5986cdbe0eb56ebd970c9b3753efc12f938a60"},
    {"H = 3, repeated pixels", [] { return swtest::random_plan(107, random_options(3, 32, 10, 7, kRepeatPixels)); },
     false, "77ad8269d9489b9d692c27d82af426b77b120a5c3c8f2ad0c6a22135339c114d"},
    {"coverage threshold 0", [] { return swtest::random_plan(108, random_options(3, 32, 10, 9, kSquareMasks, 0)); },
     false, "7152f0870bfcb5d7276b8af230a237a150ee11585ef1364555e7cc6524b4a126"},
    {"coverage threshold 1, repeated pixels",
     [] { return swtest::random_plan(109, random_options(2, 16, 9, 9, kRepeatPixels, 1)); }, false,
     "f93f038dd248103619a9b8fabbac2b3ba656dcc0a91252528e0dfa6313ba1eb6"},
    {"NaN pixels in both images",
     [] {
         CallPlan s = swtest::random_plan(110, random_options(3, 32, 8, 8));
         s.noisy[9] = std::nan("");
         s.pilot[40] = std::nan("");
         return s;
     },
     false, "283ef867ba7e95376ed4efb243e0d11c7906df037c65ce41e4bc09f229d46086"},
    {"H = 4, squares with noise, threshold 1",
     [] {
         CallPlan s = noisy(swtest::square_plan(9, 7, 4, 32), 4, 0.1);
         s.coverage_threshold = 1;
         return s;
     },
     false, "d3ac0595cdda44e781c837b5e7cc0a36e9c1543a8765d6967382d8a8fc681229"},
    {"H = 5, random masks, image smaller than the box",
     [] { return swtest::random_plan(205, random_options(5, 32, 4, 7)); }, false,
     "df33fc148c9a4ff9eb057cd6f10049b1dd5e9d5daf9add655bd0b48139a203b7"},
    {"H = 6, squares with noise", [] { return noisy(swtest::square_plan(13, 11, 6, 32), 6, 0.1); }, false,
     "c731aba3e148f956879dae55139739c7ffcd2d0cc70b58074736559114ac42e2"},
    {"H = 7, random masks and matrices, N = 14",
     [] { return swtest::random_plan(207, random_options(7, 14, 6, 8, kRandomMatrices)); }, false,
     "5271aebcaa5503403656872474aa0d6078b90b29186acf98e79e03d21057ed3c"},
    {"H = 8, squares with noise", [] { return noisy(swtest::square_plan(10, 9, 8, 32), 8, 0.1); }, false,
     "903603bcb635a00af7831e178486667397fbca7840eb1f4a0daf2e7fcfa71bfc"},
    {"H = 9, random masks, repeated pixels",
     [] { return swtest::random_plan(209, random_options(9, 32, 8, 5, kRepeatPixels)); }, false,
     "03193065dfd29a91171087e224f0b211991fd9a5bf018eb7c4a0e36815bd57f4"},
    {"H = 10, squares with noise, N = 20", [] { return noisy(swtest::square_plan(6, 7, 10, 20), 10, 0.1); },
     false, "eb428ed9769c80eac9017d7df3e02960fef432b8e54de597fa60cc8afdcc523c"},
    {"H = 11, random masks", [] { return swtest::random_plan(211, random_options(11, 32, 5, 6)); }, false,
     "e9d4b3f94928c5daf815b147e47ac6b66fbcadd916fe39c11365436a851cf7b3"},
};

std::string hash_of(const swtest::MexCall& call) {
    std::vector<double> bytes = call.output();
    for (const auto& image : {call.noisy(), call.pilot()})
        bytes.insert(bytes.end(), image.begin(), image.end());
    return swtest::sha256_hex(bytes.data(), sizeof(double) * bytes.size());
}

TEST(Golden, EveryCallGivesItsBits) {
    const bool print = std::getenv("SHAPEWIENER_PRINT_HASHES") != nullptr;
    for (const Golden& g : kGolden) {
        const CallPlan plan = g.plan();
        swtest::MexCall call = swtest::make_call(plan);
        g.general_path ? call.run_general(plan.h) : call.run();
        const std::string actual = hash_of(call);
        if (print)
            std::printf("    {\"%s\", ... \"%s\"},\n", g.description, actual.c_str()), std::fflush(stdout);
        EXPECT_EQ(actual, g.sha256) << g.description;
        // The size-specialised variants compute what the general path does.
        if (!g.general_path && sw::variant_for(plan.h) != nullptr) {
            swtest::MexCall general = swtest::make_call(plan);
            general.run_general(plan.h);
            EXPECT_EQ(hash_of(general), actual) << g.description << ": variant and general path differ";
        }
    }
}

// The adaptive workloads (tests/data/workloads/README.md).
void run_workload(const char* name, uint32_t h) {
    const std::string root = swtest::shared_workload_root(SHAPEWIENER_WORKLOADS_DIR);
    ASSERT_FALSE(root.empty()) << "no workloads at " << SHAPEWIENER_WORKLOADS_DIR;
#if defined(SWTEST_ASAN)
    GTEST_SKIP() << "the workloads' bits are checked in the plain build";
#endif
    swtest::SharedWorkload workload(root + "/" + name);
    ASSERT_EQ(workload.h(), h);
    swtest::MexCall call = swtest::make_call(workload.plan());
    call.run();
    EXPECT_EQ(swtest::output_sha256(call.output()), workload.expected_sha256()) << name;
    // The serial loop with the optimised kernels and the threaded driver
    // with three workers give the same bits.
    for (unsigned threads : {1u, 3u}) {
        sw::RunOptions options;
        options.threads = threads;
        std::vector<double> out(workload.pixels());
        const sw::Error e = sw::run(workload.fresh_call(), out.data(), options);
        ASSERT_FALSE(e) << e.message;
        EXPECT_EQ(swtest::output_sha256(out), workload.expected_sha256()) << name << ", " << threads << " threads";
    }
}

TEST(Workload, AdaptiveH7) { run_workload("adaptive_h7", 7); }
TEST(Workload, AdaptiveH9) { run_workload("adaptive_h9", 9); }

}  // namespace
