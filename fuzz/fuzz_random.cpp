// Seeded random driver of the call decoder: feeds it byte strings drawn from
// a fixed seed, so that every run with the same arguments makes the same
// calls. Meant to run under AddressSanitizer and UndefinedBehaviorSanitizer.
//
//   fuzz_random [--seed S] [--iterations N] [--max-seconds T] [--verbose]
//       runs N inputs (default 10000), stopping early after T seconds;
//   fuzz_random --seed S --replay I
//       describes and runs input I of seed S alone (a failure names it);
//   fuzz_random --input FILE
//       describes and runs the bytes of FILE (a libFuzzer crash file, say).
//
// Exit status 0 when every call passed its checks; a failed check aborts.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "call_decoder.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SW_FUZZ_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define SW_FUZZ_ASAN 1
#endif

#ifdef SW_FUZZ_ASAN
#include <sanitizer/common_interface_defs.h>

// Leaks fail the run even where the environment does not ask for it.
extern "C" const char* __asan_default_options() { return "detect_leaks=1"; }
extern "C" const char* __ubsan_default_options() {
    return "print_stacktrace=1:halt_on_error=1:abort_on_error=1";
}
#endif

namespace {

uint64_t g_seed = 1;
int64_t g_iteration = -1;  // the input being run, -1 outside the loop

// Names the failing input: called when a check aborts, a signal arrives or a
// sanitizer reports.
void name_failing_input() {
    if (g_iteration < 0) return;
    char text[160];
    const int len = std::snprintf(text, sizeof text,
                                  "fuzz_random: failing input: rerun with --seed %" PRIu64
                                  " --replay %" PRId64 "\n",
                                  g_seed, g_iteration);
    if (len > 0) {
        ssize_t ignored = write(STDERR_FILENO, text, static_cast<size_t>(len));
        (void)ignored;
    }
}

void on_fatal_signal(int sig) {
    name_failing_input();
    signal(sig, SIG_DFL);
    raise(sig);
}

void install_handlers() {
#ifdef SW_FUZZ_ASAN
    __sanitizer_set_death_callback(name_failing_input);
    // The sanitizer handles the other fatal signals itself.
    signal(SIGABRT, on_fatal_signal);
#else
    for (int sig : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) signal(sig, on_fatal_signal);
#endif
}

// Input i of a seed: 0 to 191 random bytes.
std::vector<uint8_t> input_for(uint64_t seed, uint64_t i) {
    std::seed_seq seq{static_cast<uint32_t>(seed), static_cast<uint32_t>(seed >> 32),
                      static_cast<uint32_t>(i), static_cast<uint32_t>(i >> 32)};
    std::mt19937_64 rng(seq);
    std::vector<uint8_t> bytes(rng() % 192);
    for (auto& b : bytes) b = static_cast<uint8_t>(rng());
    return bytes;
}

void run_described(const std::vector<uint8_t>& bytes) {
    const swfuzz::DecodedCall call = swfuzz::decode_call(bytes.data(), bytes.size());
    std::printf("%s", swfuzz::describe(call).c_str());
    std::fflush(stdout);
    const swfuzz::RunResult r = swfuzz::run_one(bytes.data(), bytes.size());
    if (r.outcome == swfuzz::Outcome::kSucceeded) {
        std::printf("  outcome: success\n");
    } else {
        std::printf("  outcome: error %s\n", r.identifier.c_str());
    }
}

[[noreturn]] void usage() {
    std::fprintf(stderr,
                 "usage: fuzz_random [--seed S] [--iterations N] [--max-seconds T] [--verbose]\n"
                 "       fuzz_random [--seed S] --replay I\n"
                 "       fuzz_random --input FILE\n");
    std::exit(2);
}

uint64_t number(const char* text) {
    char* end = nullptr;
    const unsigned long long v = std::strtoull(text, &end, 10);
    if (end == text || *end != '\0') usage();
    return v;
}

}  // namespace

int main(int argc, char** argv) {
    uint64_t iterations = 10000;
    double max_seconds = 0.0;  // no limit
    int64_t replay = -1;
    const char* input = nullptr;
    bool verbose = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool has_value = i + 1 < argc;
        if (a == "--seed" && has_value) {
            g_seed = number(argv[++i]);
        } else if (a == "--iterations" && has_value) {
            iterations = number(argv[++i]);
        } else if (a == "--max-seconds" && has_value) {
            max_seconds = static_cast<double>(number(argv[++i]));
        } else if (a == "--replay" && has_value) {
            replay = static_cast<int64_t>(number(argv[++i]));
        } else if (a == "--input" && has_value) {
            input = argv[++i];
        } else if (a == "--verbose") {
            verbose = true;
        } else {
            usage();
        }
    }
    install_handlers();

    if (input != nullptr) {
        std::ifstream f(input, std::ios::binary);
        if (!f) {
            std::fprintf(stderr, "fuzz_random: cannot read %s\n", input);
            return 2;
        }
        const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(f),
                                         std::istreambuf_iterator<char>()};
        run_described(bytes);
        return 0;
    }
    if (replay >= 0) {
        g_iteration = replay;
        run_described(input_for(g_seed, static_cast<uint64_t>(replay)));
        return 0;
    }

    const auto start = std::chrono::steady_clock::now();
    uint64_t done = 0;
    uint64_t succeeded = 0;
    std::map<std::string, uint64_t> errors;
    for (uint64_t i = 0; i < iterations; ++i) {
        if (max_seconds > 0.0 && (i % 16) == 0) {
            const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
            if (spent.count() > max_seconds) break;
        }
        g_iteration = static_cast<int64_t>(i);
        const std::vector<uint8_t> bytes = input_for(g_seed, i);
        const swfuzz::RunResult r = swfuzz::run_one(bytes.data(), bytes.size());
        if (r.outcome == swfuzz::Outcome::kSucceeded) {
            ++succeeded;
        } else {
            ++errors[r.identifier];
        }
        ++done;
    }
    g_iteration = -1;
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
    std::printf("fuzz_random: seed %" PRIu64 ": %" PRIu64 " calls in %.1f s, %" PRIu64
                " succeeded, %" PRIu64 " rejected with %zu distinct identifiers%s\n",
                g_seed, done, spent.count(), succeeded, done - succeeded, errors.size(),
                done < iterations ? " (stopped by the time limit)" : "");
    if (verbose) {
        for (const auto& e : errors) std::printf("  %8" PRIu64 "  %s\n", e.second, e.first.c_str());
    }
    // Leaks are reported after main returns and end the process at once.
    std::fflush(stdout);
    return 0;
}
