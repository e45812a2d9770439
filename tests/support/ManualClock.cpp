#include "support/ManualClock.h"

namespace TestSupport {

uint64_t ManualClock::NowMs() const { return nowMs_.load(std::memory_order_acquire); }

uint64_t ManualClock::Advance(uint64_t ms) {
    return nowMs_.fetch_add(ms, std::memory_order_acq_rel) + ms;
}

uint64_t ManualClock::AdvanceTo(uint64_t ms) {
    uint64_t seen = nowMs_.load(std::memory_order_acquire);
    // Another thread may move it meanwhile; the later of the two times wins.
    while (seen < ms && !nowMs_.compare_exchange_weak(seen, ms, std::memory_order_acq_rel)) {
    }
    return seen < ms ? ms : seen;
}

}  // namespace TestSupport
