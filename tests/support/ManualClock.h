#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>

#include "framework/Clock.h"

namespace TestSupport {

/// A Framework::Clock that stands still until the test moves it. Any thread may read or move
/// it; it never goes backwards.
class ManualClock : public Framework::Clock {
public:
    explicit ManualClock(uint64_t startMs = 1000000) : nowMs_(startMs) {}
    uint64_t NowMs() const override { return nowMs_.load(std::memory_order_acquire); }
    /// Moves the clock on by `ms`; the new time.
    uint64_t Advance(uint64_t ms) { return nowMs_.fetch_add(ms, std::memory_order_acq_rel) + ms; }
    /// Moves the clock to `ms` unless it is already later; the time it shows afterwards.
    uint64_t AdvanceTo(uint64_t ms) {
        uint64_t seen = nowMs_.load(std::memory_order_acquire);
        // Another thread may move it meanwhile; the later of the two times wins.
        while (seen < ms && !nowMs_.compare_exchange_weak(seen, ms, std::memory_order_acq_rel)) {
        }
        return std::max(seen, ms);
    }

private:
    std::atomic<uint64_t> nowMs_;
};

}  // namespace TestSupport
