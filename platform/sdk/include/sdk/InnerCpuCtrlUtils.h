#pragma once

#include <cstdint>

namespace SDK {

/// Process-wide CPU limiter for task threads. Off unless the agent sets a limit. A task checks
/// at its limiter points whether it has used more than GetSuggestedRunTick() ms of CPU since
/// its last adjustment and, if so, calls AdjustThreadCpu, which sleeps just long enough to keep
/// the calling thread's CPU share at or under the limit. Thread-safe.
class InnerCpuCtrlUtils {
public:
    /// percent in 1..100 enables the limiter; 0 (or anything outside) disables it.
    static void SetLimitPercent(int percent);
    static int GetLimitPercent();
    static bool IsEnabled();
    /// CPU milliseconds a thread may use between two adjustments.
    static uint64_t GetSuggestedRunTick();
    /// Sleeps the calling thread so that `usedTick` CPU ms since its last adjustment stay within
    /// the limit of the wall time elapsed since then. file/line/taskName label the debug log.
    static void AdjustThreadCpu(const char* file, int line, const char* taskName,
                                unsigned long nowTick, unsigned long usedTick);
    /// How long AdjustThreadCpu would sleep (ms) for usedTick CPU ms over elapsedMs wall ms.
    static uint64_t ComputeSleepMs(uint64_t usedTick, uint64_t elapsedMs, int percent);
};

}  // namespace SDK
