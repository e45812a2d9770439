#include "sdk/TimeUtils.h"

#include <time.h>

namespace SDK {

namespace {
uint64_t ClockMs(clockid_t clock) {
    struct timespec ts;
    if (clock_gettime(clock, &ts) != 0) return 0;
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}
}  // namespace

int64_t TimeUtils::GetCurrentTimestampS() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec);
}

int64_t TimeUtils::GetCurrentTimestampMs() { return static_cast<int64_t>(ClockMs(CLOCK_REALTIME)); }

uint64_t TimeUtils::GetMonotonicMs() { return ClockMs(CLOCK_MONOTONIC); }

uint64_t TimeUtils::GetCurrentSystemTickUsed() { return ClockMs(CLOCK_THREAD_CPUTIME_ID); }

}  // namespace SDK
