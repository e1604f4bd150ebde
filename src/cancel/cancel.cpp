#include "cancel/cancel.h"

#include <chrono>
#include <utility>

namespace swcancel {
namespace {

thread_local CancelScope* current = nullptr;

long long now_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

CancelScope::CancelScope(std::function<void()> poll)
    : outer_(current), poll_(std::move(poll)), last_ns_(now_ns()) {
    current = this;
}

CancelScope::~CancelScope() { current = outer_; }

void cancel_point() {
    CancelScope* scope = current;
    if (scope == nullptr || !scope->poll_) return;
    const long long t = now_ns();
    if (t - scope->last_ns_ < 50000000) return;
    scope->last_ns_ = t;
    scope->poll_();
}

}  // namespace swcancel
