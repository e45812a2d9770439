#pragma once

#include <atomic>
#include <cstdint>

#include "framework/Clock.h"

namespace Framework {

/// Lets one event through per interval and counts the ones it held back, so that floods
/// (full queues, overflows, lost records) are logged at a bounded rate. Thread-safe.
class RateLimiter {
public:
    explicit RateLimiter(uint64_t intervalMs, const Clock& clock = Clock::System())
        : intervalMs_(intervalMs), clock_(clock) {}

    /// true when the caller may log now; `suppressed` is set to how many were held back since
    /// the last time it returned true.
    bool Allow(uint64_t& suppressed);

private:
    uint64_t intervalMs_;
    const Clock& clock_;
    std::atomic<uint64_t> lastMs_{0};
    std::atomic<uint64_t> held_{0};
};

}  // namespace Framework
