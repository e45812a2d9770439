#include "framework/RateLimiter.h"

namespace Framework {

bool RateLimiter::Allow(uint64_t& suppressed) {
    const uint64_t now = clock_.NowMs();
    uint64_t last = lastMs_.load(std::memory_order_relaxed);
    if (last != 0 && now - last < intervalMs_) {
        held_.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    if (!lastMs_.compare_exchange_strong(last, now == 0 ? 1 : now)) {
        held_.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    suppressed = held_.exchange(0);
    return true;
}

}  // namespace Framework
