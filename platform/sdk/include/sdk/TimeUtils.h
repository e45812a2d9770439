#pragma once

#include <cstdint>

namespace SDK {

class TimeUtils {
public:
    /// Seconds since the Unix epoch.
    static int64_t GetCurrentTimestampS();
    /// Milliseconds since the Unix epoch.
    static int64_t GetCurrentTimestampMs();
    /// Monotonic milliseconds (for deadlines and rate limits).
    static uint64_t GetMonotonicMs();
    /// CPU time used by the calling thread, in milliseconds (the CPU limiter's tick).
    static uint64_t GetCurrentSystemTickUsed();
};

}  // namespace SDK
