#include "report/ReopenSignal.h"

#include <signal.h>

#include <atomic>

namespace Report {

namespace {
std::atomic<bool> gRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler needs a lock-free flag");
struct sigaction gPrevious;
bool gInstalled = false;  // control thread only

void OnHangup(int) { gRequested.store(true, std::memory_order_relaxed); }
}  // namespace

bool ReopenSignal::Install() {
    if (gInstalled) return true;
    struct sigaction action {};
    action.sa_handler = OnHangup;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    if (::sigaction(SIGHUP, &action, &gPrevious) != 0) return false;
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
