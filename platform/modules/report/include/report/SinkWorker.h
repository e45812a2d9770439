#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "framework/DegradedCounter.h"
#include "report/Sink.h"
#include "report/Spool.h"

namespace Report {

/// Feeds one sink from its spool on a thread of its own, so that a slow or failing sink never
/// holds up the report task or another sink. Lines are delivered in spool order; a failed
/// attempt is retried with a delay that doubles up to the sink's maximum; what the sink took is
/// committed in the spool. Counters: report.<sink>.spool.overflow / spool.failed (alarms
/// lost), report.<sink>.spool.corrupt (lines found damaged), report.<sink>.rejected (refused
/// by the receiver for good), report.<sink>.attempts_failed (retried, not lost), the sink's
/// delivered counter, and the gauge report.<sink>.spooled_bytes. The thread runs from Start
/// until the destructor, which gives the sink a bounded time to take what is spooled; the rest
/// stays in the spool for the next start.
class SinkWorker {
public:
    SinkWorker(std::unique_ptr<Sink> sink, std::unique_ptr<Spool> spool);
    ~SinkWorker();
    SinkWorker(const SinkWorker&) = delete;
    SinkWorker& operator=(const SinkWorker&) = delete;

    void Start();
    /// Spools one alarm (report task's thread); never waits on the sink. false if it was lost.
    bool Offer(const std::string& line);
    /// Spools alarms in order with one write and one wake-up of the worker; how many were kept.
    std::size_t Offer(const std::vector<std::string>& lines);
    /// Forwards a reopen request (SIGHUP) to the sink.
    void RequestReopen();

    Sink& GetSink() { return *sink_; }
    Spool& GetSpool() { return *spool_; }

private:
    void Loop();
    bool DeliverOnce(std::string& error);  // false when the sink failed
    bool Wait(int ms);                     // true when woken before the time was up
    bool WaitForStop(int ms);              // true when stopping
    void UpdateSpoolGauge();
    std::string Counter(const char* what) const;

    std::unique_ptr<Sink> sink_;
    std::unique_ptr<Spool> spool_;
    std::mutex wakeMutex_;  // guards wake_, reopen_ and stop_ for the condition variable
    std::condition_variable wakeCv_;
    bool wake_ = false;
    bool reopen_ = false;
    bool stop_ = false;
    int backoffMs_ = 0;
    bool failing_ = false;
    uint64_t failingSince_ = 0;  // attempts failed in the current outage
    uint64_t lastGauge_ = 0;
    Framework::DegradedCounter overflow_;
    Framework::DegradedCounter spoolFailed_;
    Framework::DegradedCounter corrupt_;
    Framework::DegradedCounter rejected_;
    Framework::DegradedCounter attemptsFailed_;
    std::thread thread_;
};

}  // namespace Report
