#include "framework/Clock.h"

#include "sdk/TimeUtils.h"

namespace Framework {

uint64_t Clock::NowMs() const { return SDK::TimeUtils::GetMonotonicMs(); }

const Clock& Clock::System() {
    static const Clock* clock = new Clock();  // outlives every task thread
    return *clock;
}

}  // namespace Framework
