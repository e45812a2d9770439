#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "framework/DegradedCounter.h"
#include "framework/Task.h"
#include "report/Sink.h"
#include "report/Spool.h"

namespace Report {

/// "report_<output>_task": feeds one sink from its spool on a task of its own, so that a slow
/// or failing sink never holds up the report task or another sink. Lines are delivered in spool
/// order; a failed attempt is retried with a delay that doubles up to the sink's maximum; what
/// the sink took is committed in the spool. Counters: report.<sink>.spool.overflow /
/// spool.failed (alarms lost), report.<sink>.spool.corrupt (lines found damaged),
/// report.<sink>.rejected (refused by the receiver for good), report.<sink>.attempts_failed
/// (retried, not lost), the sink's delivered counter, and the gauge report.<sink>.spooled_bytes.
/// At UnInit the sink gets a bounded time to take what is spooled; the rest stays in the spool
/// for the next start.
class SinkTask : public Framework::Task {
public:
    SinkTask(std::unique_ptr<Sink> sink, std::unique_ptr<Spool> spool);

    /// Spools one alarm (report task's thread); never waits on the sink. false if it was lost.
    bool Offer(const std::string& line);
    /// Spools alarms in order with one write and one wake-up of this task; how many were kept.
    std::size_t Offer(const std::vector<std::string>& lines);
    /// Forwards a reopen request (SIGHUP) to the sink; cuts a retry delay short. Any thread.
    void RequestReopen();

    Sink& GetSink() { return *sink_; }
    Spool& GetSpool() { return *spool_; }

    void UnInit() override;
    /// Wake-ups only: the work is done in OnTurn.
    int HandleMsg(const Framework::Message* msg) override;

protected:
    ~SinkTask() override;
    /// 0 while lines wait and no retry is due, the rest of a retry delay, else the poll interval.
    int NextWaitMs() override;
    /// Polls the sink and makes one delivery attempt when lines wait and no retry delay runs.
    void OnTurn(uint64_t nowMs) override;

private:
    void Wake();
    bool DeliverOnce(std::string& error);  // false when the sink failed
    void AfterAttempt(bool ok, const std::string& error, uint64_t nowMs);
    void UpdateSpoolGauge();
    std::string Counter(const char* what) const;

    std::unique_ptr<Sink> sink_;
    std::unique_ptr<Spool> spool_;
    std::atomic<bool> wakeQueued_{false};  // a wake-up is in the queue; Offer adds no other
    std::atomic<bool> reopen_{false};
    // Task thread only from here on.
    int backoffMs_ = 0;
    uint64_t retryAtMs_ = 0;
    uint64_t lastWorkMs_ = 0;
    uint64_t failingSince_ = 0;  // attempts failed in the current outage
    uint64_t lastGauge_ = 0;
    Framework::DegradedCounter overflow_;
    Framework::DegradedCounter spoolFailed_;
    Framework::DegradedCounter corrupt_;
    Framework::DegradedCounter rejected_;
    Framework::DegradedCounter attemptsFailed_;
};

}  // namespace Report
