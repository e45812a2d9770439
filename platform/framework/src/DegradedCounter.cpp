#include "framework/DegradedCounter.h"

#include "framework/Counters.h"

namespace Framework {

DegradedCounter::DegradedCounter(const std::string& name, uint64_t warnIntervalMs,
                                 const Clock& clock)
    : name_(name), value_(Counters::Instance().Get(name)), limiter_(warnIntervalMs, clock) {}

bool DegradedCounter::AddAndAllow(uint64_t n, uint64_t& untold) {
    Add(n);
    return limiter_.Allow(untold);
}

}  // namespace Framework
