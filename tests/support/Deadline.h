#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <thread>

#include "framework/Clock.h"

namespace TestSupport {

/// How long every wait of a test may take unless it says otherwise: long enough for a loaded
/// machine, short enough that a hung test fails instead of reaching ctest's timeout.
constexpr std::chrono::milliseconds kDefaultWait{10000};

/// A point in time a wait must not pass, on a Framework::Clock (the system's unless given).
/// It expires once the clock shows `timeout` more than at construction; the system clock counts
/// whole milliseconds, so that may be up to 1 ms less real time.
class Deadline {
public:
    explicit Deadline(std::chrono::milliseconds timeout,
                      const Framework::Clock& clock = Framework::Clock::System())
        : clock_(clock),
          atMs_(clock.NowMs() + static_cast<uint64_t>(std::max<int64_t>(0, timeout.count()))) {}
    /// True from the deadline on (at it exactly, too).
    bool Expired() const { return clock_.NowMs() >= atMs_; }
    /// What is left, zero once expired.
    std::chrono::milliseconds Remaining() const {
        return std::chrono::milliseconds(atMs_ - std::min(atMs_, clock_.NowMs()));
    }

private:
    const Framework::Clock& clock_;
    uint64_t atMs_;
};

/// Evaluates `condition` every `interval` until it holds (true) or the deadline passes (false,
/// after one last look). Never waits past the deadline by more than the last evaluation.
inline bool WaitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds timeout = kDefaultWait,
                      std::chrono::milliseconds interval = std::chrono::milliseconds(5)) {
    // One more millisecond: a wait never gives up before the full timeout passed.
    const Deadline deadline(timeout + std::chrono::milliseconds(1));
    while (!deadline.Expired()) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::min(interval, deadline.Remaining()));
    }
    return condition();
}

}  // namespace TestSupport
