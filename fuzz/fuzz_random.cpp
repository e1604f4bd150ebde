// Seeded random driver of fuzz_call: byte strings drawn from a fixed seed, so
// that every run with the same arguments makes the same calls. Meant to run
// under AddressSanitizer and UndefinedBehaviorSanitizer.
//
//   fuzz_random [--seed S] [--iterations N] [--max-seconds T]
//       runs N inputs (default 10000), stopping early after T seconds;
//   fuzz_random --seed S --replay I
//       describes and runs input I of seed S alone (a failure names it);
//   fuzz_random --input FILE
//       describes and runs the bytes of FILE (a libFuzzer crash file, say).
// Exit status 0 when every call passed its checks; a failed check aborts.
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "fuzz_call.h"
#include "support/test_args.h"

#if defined(SWTEST_ASAN)
#include <sanitizer/common_interface_defs.h>
// Leaks fail the run even where the environment does not ask for it.
extern "C" const char* __asan_default_options() { return "detect_leaks=1"; }
extern "C" const char* __ubsan_default_options() {
    return "print_stacktrace=1:halt_on_error=1:abort_on_error=1";
}
#endif

namespace {

unsigned long long g_seed = 1;
long long g_input = -1;  // the input being run, -1 outside the loop

// Names the failing input when a check aborts, a signal arrives or a sanitizer reports.
void name_failing_input() {
    if (g_input < 0) return;
    char text[128];
    const int len =
        std::snprintf(text, sizeof text, "fuzz_random: failing input: rerun with --seed %llu --replay %lld\n",
                      g_seed, g_input);
    if (len > 0 && write(STDERR_FILENO, text, static_cast<size_t>(len)) < 0) return;
}

void on_fatal_signal(int sig) {
    name_failing_input();
    std::signal(sig, SIG_DFL);
    std::raise(sig);
}

// Input i of a seed: 0 to 63 random bytes.
std::vector<uint8_t> input_for(unsigned long long seed, unsigned long long i) {
    std::seed_seq seq{static_cast<uint32_t>(seed), static_cast<uint32_t>(seed >> 32),
                      static_cast<uint32_t>(i), static_cast<uint32_t>(i >> 32)};
    std::mt19937_64 rng(seq);
    std::vector<uint8_t> bytes(rng() % 64);
    for (auto& b : bytes) b = static_cast<uint8_t>(rng());
    return bytes;
}

swfuzz::Result run(const std::vector<uint8_t>& bytes, bool describe) {
    const swfuzz::Result r = swfuzz::run_input(bytes.data(), bytes.size());
    if (describe || !r.problem.empty()) {
        std::printf("  %s\n  outcome: %s\n", r.description.c_str(),
                    r.error.empty() ? "success" : r.error.c_str());
    }
    if (!r.problem.empty()) {
        std::fflush(stdout);
        std::fprintf(stderr, "shapewiener fuzz: CHECK FAILED: %s\n", r.problem.c_str());
        std::abort();
    }
    return r;
}

[[noreturn]] void usage() {
    std::fprintf(stderr,
                 "usage: fuzz_random [--seed S] [--iterations N] [--max-seconds T]\n"
                 "       fuzz_random [--seed S] --replay I\n"
                 "       fuzz_random --input FILE\n");
    std::exit(2);
}

}  // namespace

int main(int argc, char** argv) {
    unsigned long long iterations = 10000;
    double max_seconds = 0.0;  // no limit
    long long replay = -1;
    const char* input = nullptr;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        char* end = nullptr;
        const unsigned long long number = value != nullptr ? std::strtoull(value, &end, 10) : 0;
        const bool numeric = value != nullptr && end != value && *end == '\0';
        if (a == "--input" && value != nullptr) {
            input = value;
        } else if (!numeric) {
            usage();
        } else if (a == "--seed") {
            g_seed = number;
        } else if (a == "--iterations") {
            iterations = number;
        } else if (a == "--max-seconds") {
            max_seconds = static_cast<double>(number);
        } else if (a == "--replay") {
            replay = static_cast<long long>(number);
        } else {
            usage();
        }
        ++i;
    }
#if defined(SWTEST_ASAN)
    __sanitizer_set_death_callback(name_failing_input);
    std::signal(SIGABRT, on_fatal_signal);  // the sanitizer handles the other fatal signals
#else
    for (int sig : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) std::signal(sig, on_fatal_signal);
#endif

    if (input != nullptr) {
        std::ifstream f(input, std::ios::binary);
        if (!f) usage();
        run(std::vector<uint8_t>{std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()}, true);
        return 0;
    }
    if (replay >= 0) {
        g_input = replay;
        run(input_for(g_seed, static_cast<unsigned long long>(replay)), true);
        return 0;
    }
    const auto start = std::chrono::steady_clock::now();
    const auto seconds = [&] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    unsigned long long done = 0, succeeded = 0;
    std::map<std::string, unsigned long long> errors;
    for (; done < iterations && (max_seconds <= 0.0 || done % 16 != 0 || seconds() <= max_seconds); ++done) {
        g_input = static_cast<long long>(done);
        const swfuzz::Result r = run(input_for(g_seed, done), false);
        if (r.error.empty()) {
            ++succeeded;
        } else {
            ++errors[r.error.substr(0, r.error.find(": "))];
        }
    }
    g_input = -1;
    std::printf(
        "fuzz_random: seed %llu: %llu calls in %.1f s, %llu succeeded, %llu rejected with %zu distinct "
        "identifiers%s\n",
        g_seed, done, seconds(), succeeded, done - succeeded, errors.size(),
        done < iterations ? " (stopped by the time limit)" : "");
    std::fflush(stdout);  // leaks are reported after main returns
    return 0;
}
