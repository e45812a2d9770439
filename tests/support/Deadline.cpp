#include "support/Deadline.h"

#include <algorithm>
#include <thread>

namespace TestSupport {

Deadline::Deadline(std::chrono::milliseconds timeout, const Framework::Clock& clock)
    : clock_(clock),
      atMs_(clock.NowMs() + static_cast<uint64_t>(std::max<int64_t>(0, timeout.count()))) {}

bool Deadline::Expired() const { return clock_.NowMs() >= atMs_; }

std::chrono::milliseconds Deadline::Remaining() const {
    const uint64_t now = clock_.NowMs();
    return std::chrono::milliseconds(now >= atMs_ ? 0 : atMs_ - now);
}

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout,
               std::chrono::milliseconds interval) {
    // One more millisecond: a wait never gives up before the full timeout passed.
    const Deadline deadline(timeout + std::chrono::milliseconds(1));
    while (!deadline.Expired()) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::min(interval, deadline.Remaining()));
    }
    return condition();
}

}  // namespace TestSupport
