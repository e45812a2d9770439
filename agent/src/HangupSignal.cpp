#include "agent/HangupSignal.h"

#include <signal.h>

#include <atomic>

namespace Agent {

namespace {
std::atomic<bool> gRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler needs a lock-free flag");

void OnHangup(int) { gRequested.store(true, std::memory_order_relaxed); }
}  // namespace

bool HangupSignal::Install() {
    struct sigaction action {};
    action.sa_handler = OnHangup;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    return ::sigaction(SIGHUP, &action, nullptr) == 0;
}

bool HangupSignal::Take() { return gRequested.exchange(false, std::memory_order_relaxed); }

}  // namespace Agent
