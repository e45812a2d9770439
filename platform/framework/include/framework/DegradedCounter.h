#pragma once

#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "framework/Clock.h"
#include "framework/RateLimiter.h"
#include "sdk/Log.h"

namespace Framework {

/// One way the agent degrades (a queue full, records lost, a watch refused): a process-wide
/// counter, shown by the status output with every other counter, and its own limit on how
/// often the event is told in the log, so that a flood of one kind neither fills the log nor
/// hides another kind's warning. Define one per kind, once (a static or a member), and report
/// through TW_DEGRADED. Thread-safe.
class DegradedCounter {
public:
    static constexpr uint64_t kDefaultWarnIntervalMs = 1000;

    explicit DegradedCounter(const std::string& name,
                             uint64_t warnIntervalMs = kDefaultWarnIntervalMs,
                             const Clock& clock = Clock::System());
    DegradedCounter(const DegradedCounter&) = delete;
    DegradedCounter& operator=(const DegradedCounter&) = delete;

    const std::string& Name() const { return name_; }
    uint64_t Value() const { return value_.load(std::memory_order_relaxed); }
    /// Counts n events without telling them.
    void Add(uint64_t n = 1) { value_.fetch_add(n, std::memory_order_relaxed); }
    /// Counts n events; true when they may be told now, with `untold` set to how many reports
    /// were held back since the last one told.
    bool AddAndAllow(uint64_t n, uint64_t& untold);

private:
    std::string name_;
    std::atomic<uint64_t>& value_;  // lives in Counters for the whole process
    RateLimiter limiter_;
};

/// Counts and, at most once per interval, logs; when reports were held back since the last one,
/// the text gets " (N more not logged)".
template <typename... Args>
void CountDegraded(DegradedCounter& counter, uint64_t n, Poco::Logger* logger,
                   Poco::Message::Priority prio, const char* file, int line, const char* fmt,
                   const Args&... args) {
    uint64_t untold = 0;
    if (!counter.AddAndAllow(n, untold)) return;
    if (logger == nullptr || !logger->is(prio)) return;
    if (untold == 0) {
        SDK::LogRecord(logger, prio, file, line, fmt, args...);
        return;
    }
    const std::string text = std::string(fmt) + " (%lu more not logged)";
    SDK::LogRecord(logger, prio, file, line, text.c_str(), args...,
                   static_cast<unsigned long>(untold));
}

}  // namespace Framework

/// TW_DEGRADED(counter, n, logger, PRIO_xxx, "fmt", args...): counts n degraded events of one
/// kind and logs the text at a bounded rate. The one way a degraded event is counted.
#define TW_DEGRADED(counter, n, logger, prio, ...)                                        \
    ::Framework::CountDegraded((counter), (n), (logger), ::Poco::Message::prio, __FILE__, \
                               __LINE__, __VA_ARGS__)
