#pragma once

#include <cstdint>

namespace Framework {

/// Monotonic milliseconds as a task sees them. Tasks take the time from their clock rather
/// than from the system, so that a test can hand one a clock it moves by hand and check
/// retries, settle periods and rate limits without waiting for them.
class Clock {
public:
    virtual ~Clock() = default;
    virtual uint64_t NowMs() const;

    /// The steady system clock every task uses unless it was given another.
    static const Clock& System();
};

}  // namespace Framework
