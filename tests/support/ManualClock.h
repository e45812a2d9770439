#pragma once

#include <atomic>
#include <cstdint>

#include "framework/Clock.h"

namespace TestSupport {

/// A Framework::Clock that stands still until the test moves it. Any thread may read or move
/// it; it never goes backwards.
class ManualClock : public Framework::Clock {
public:
    explicit ManualClock(uint64_t startMs = 1000000) : nowMs_(startMs) {}
    uint64_t NowMs() const override;
    /// Moves the clock on by `ms`; the new time.
    uint64_t Advance(uint64_t ms);
    /// Moves the clock to `ms` unless it is already later; the time it shows afterwards.
    uint64_t AdvanceTo(uint64_t ms);

private:
    std::atomic<uint64_t> nowMs_;
};

}  // namespace TestSupport
