#include "report/ReopenSignal.h"

#include <signal.h>

#include <atomic>

namespace Report {

namespace {
std::atomic<bool> gRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler needs a lock-free flag");
struct sigaction gPrevious;
bool gInstalled = false;  // control thread only

// The process that loaded this module may hook SIGHUP itself (the agent reopens its log on
// it): its handler keeps getting the signal. Written before the hook is installed.
void (*gChained)(int) = nullptr;

void OnHangup(int signal) {
    gRequested.store(true, std::memory_order_relaxed);
    if (gChained != nullptr) gChained(signal);
}
}  // namespace

bool ReopenSignal::Install() {
    if (gInstalled) return true;
    struct sigaction action {};
    action.sa_handler = OnHangup;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    if (::sigaction(SIGHUP, nullptr, &gPrevious) != 0) return false;
    const bool plainHandler = (gPrevious.sa_flags & SA_SIGINFO) == 0 &&
                              gPrevious.sa_handler != SIG_DFL && gPrevious.sa_handler != SIG_IGN;
    gChained = plainHandler ? gPrevious.sa_handler : nullptr;
    if (::sigaction(SIGHUP, &action, nullptr) != 0) return false;
    gInstalled = true;
    return true;
}

void ReopenSignal::Uninstall() {
    if (!gInstalled) return;
    ::sigaction(SIGHUP, &gPrevious, nullptr);
    gInstalled = false;
}

bool ReopenSignal::Take() { return gRequested.exchange(false, std::memory_order_relaxed); }

void ReopenSignal::Request() { gRequested.store(true, std::memory_order_relaxed); }

}  // namespace Report
