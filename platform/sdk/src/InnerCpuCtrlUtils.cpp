#include "sdk/InnerCpuCtrlUtils.h"

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"
#include "sdk/TimeUtils.h"

namespace SDK {

namespace {
std::atomic<int> gLimitPercent{0};
constexpr uint64_t kSuggestedRunTickMs = 50;
// One adjustment never parks a thread longer than this, so cancellation stays responsive.
constexpr uint64_t kMaxSleepMs = 1000;
thread_local uint64_t tLastAdjustWallMs = 0;
}  // namespace

void InnerCpuCtrlUtils::SetLimitPercent(int percent) {
    gLimitPercent.store(percent >= 1 && percent <= 100 ? percent : 0);
}

int InnerCpuCtrlUtils::GetLimitPercent() { return gLimitPercent.load(); }

bool InnerCpuCtrlUtils::IsEnabled() {
    const int p = gLimitPercent.load(std::memory_order_relaxed);
    return p > 0 && p < 100;
}

uint64_t InnerCpuCtrlUtils::GetSuggestedRunTick() { return kSuggestedRunTickMs; }

uint64_t InnerCpuCtrlUtils::ComputeSleepMs(uint64_t usedTick, uint64_t elapsedMs, int percent) {
    if (percent <= 0 || percent >= 100) return 0;
    // usedTick of CPU must be spread over at least usedTick * 100 / percent of wall time.
    const uint64_t needed = usedTick * 100u / static_cast<uint64_t>(percent);
    if (needed <= elapsedMs) return 0;
    const uint64_t sleepMs = needed - elapsedMs;
    return sleepMs < kMaxSleepMs ? sleepMs : kMaxSleepMs;
}

void InnerCpuCtrlUtils::AdjustThreadCpu(const char* file, int line, const char* taskName,
                                        unsigned long nowTick, unsigned long usedTick) {
    const uint64_t nowWall = TimeUtils::GetMonotonicMs();
    const uint64_t elapsed = tLastAdjustWallMs == 0 ? usedTick : nowWall - tLastAdjustWallMs;
    const uint64_t sleepMs = ComputeSleepMs(usedTick, elapsed, gLimitPercent.load());
    if (sleepMs > 0) {
        SDK::LogRecord(LoggerUtils::GetInstance()->GetRootLogger(), Poco::Message::PRIO_TRACE, file,
                       line, "CPU limiter: task %s used %lu ms, sleeps %lu ms",
                       std::string(taskName ? taskName : ""), usedTick,
                       static_cast<unsigned long>(sleepMs));
        std::this_thread::sleep_for(std::chrono::milliseconds(sleepMs));
    }
    (void)nowTick;
    tLastAdjustWallMs = TimeUtils::GetMonotonicMs();
}

}  // namespace SDK
