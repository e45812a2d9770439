#include "report/SinkWorker.h"

#include <algorithm>
#include <chrono>

#include "framework/Counters.h"
#include "report/ReportLog.h"
#include "sdk/Log.h"

namespace Report {

namespace {
constexpr int kFirstBackoffMs = 100;
constexpr std::size_t kBatchBytes = 1u << 20;
// At shutdown the sink gets this long to take what is spooled; the rest waits for next start.
constexpr auto kDrainTime = std::chrono::seconds(3);
constexpr uint64_t kWarnIntervalMs = 10000;

std::string CounterName(const Sink& sink, const char* what) {
    return "report." + sink.Name() + "." + what;
}
}  // namespace

SinkWorker::SinkWorker(std::unique_ptr<Sink> sink, std::unique_ptr<Spool> spool)
    : sink_(std::move(sink)),
      spool_(std::move(spool)),
      overflow_(CounterName(*sink_, "spool.overflow"), kWarnIntervalMs),
      spoolFailed_(CounterName(*sink_, "spool.failed"), kWarnIntervalMs),
      corrupt_(CounterName(*sink_, "spool.corrupt"), 0),
      rejected_(CounterName(*sink_, "rejected"), 0),
      attemptsFailed_(CounterName(*sink_, "attempts_failed"), kWarnIntervalMs) {}

SinkWorker::~SinkWorker() {
    {
        std::lock_guard<std::mutex> lock(wakeMutex_);
        stop_ = true;
    }
    wakeCv_.notify_all();
    if (thread_.joinable()) thread_.join();
    const uint64_t left = spool_->PendingBytes();
    if (left > 0) {
        TW_LOG(ReportLogger(), PRIO_WARNING,
               "Alarm output %s (%s): %lu bytes of alarms stay spooled in %s for the next start",
               sink_->Name(), sink_->Target(), static_cast<unsigned long>(left), spool_->Dir());
    }
}

void SinkWorker::Start() {
    if (!thread_.joinable()) thread_ = std::thread([this] { Loop(); });
}

std::string SinkWorker::Counter(const char* what) const { return CounterName(*sink_, what); }

bool SinkWorker::Offer(const std::string& line) {
    return Offer(std::vector<std::string>{line}) == 1;
}

std::size_t SinkWorker::Offer(const std::vector<std::string>& lines) {
    const Spool::BatchResult result = spool_->AppendBatch(lines);
    if (result.overflow > 0) {
        TW_DEGRADED(overflow_, result.overflow, ReportLogger(), PRIO_ERROR,
                    "Alarm output %s: %z alarms lost (spool.overflow): spool %s is full",
                    sink_->Name(), result.overflow, spool_->Dir());
    }
    if (result.failed > 0) {
        TW_DEGRADED(spoolFailed_, result.failed, ReportLogger(), PRIO_ERROR,
                    "Alarm output %s: %z alarms lost (spool.failed): %s", sink_->Name(),
                    result.failed, spool_->LastError());
    }
    if (result.kept == 0) return 0;
    {
        std::lock_guard<std::mutex> lock(wakeMutex_);
        wake_ = true;
    }
    wakeCv_.notify_one();
    return result.kept;
}

// What waits for this output, next to the loss counters in the agent's status line.
void SinkWorker::UpdateSpoolGauge() {
    const uint64_t bytes = spool_->PendingBytes();
    if (bytes == lastGauge_) return;
    Framework::Counters::Instance().Get(Counter("spooled_bytes")).store(bytes);
    lastGauge_ = bytes;
}

void SinkWorker::RequestReopen() {
    sink_->RequestReopen();
    {
        std::lock_guard<std::mutex> lock(wakeMutex_);
        wake_ = true;
        reopen_ = true;
    }
    wakeCv_.notify_one();
}

bool SinkWorker::Wait(int ms) {
    std::unique_lock<std::mutex> lock(wakeMutex_);
    const bool woken =
        wakeCv_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return wake_ || stop_; });
    wake_ = false;
    return woken;
}

bool SinkWorker::WaitForStop(int ms) {
    // New alarms do not cut a retry delay short; only a stop or a reopen request does.
    std::unique_lock<std::mutex> lock(wakeMutex_);
    wakeCv_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return stop_ || reopen_; });
    reopen_ = false;
    return stop_;
}

bool SinkWorker::DeliverOnce(std::string& error) {
    uint64_t corrupt = 0;
    const std::vector<std::string> batch = spool_->Peek(sink_->BatchLines(), kBatchBytes, corrupt);
    if (corrupt > 0) {
        TW_DEGRADED(corrupt_, corrupt, ReportLogger(), PRIO_ERROR,
                    "Alarm output %s: %lu damaged lines in spool %s skipped", sink_->Name(),
                    static_cast<unsigned long>(corrupt), spool_->Dir());
    }
    if (batch.empty()) return true;
    const DeliveryResult result = sink_->Deliver(batch);
    const std::size_t done = std::min(batch.size(), result.delivered + result.rejected);
    error = result.error;
    spool_->Commit(done);
    if (result.delivered > 0) {
        Framework::Counters::Instance().Add(sink_->DeliveredCounter(), result.delivered);
    }
    if (result.rejected > 0) {
        TW_DEGRADED(rejected_, result.rejected, ReportLogger(), PRIO_ERROR,
                    "Alarm output %s: %z alarms refused by %s: %s", sink_->Name(), result.rejected,
                    sink_->Target(), result.error);
    }
    return done == batch.size();
}

void SinkWorker::Loop() {
    using Clock = std::chrono::steady_clock;
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(wakeMutex_);
            if (stop_) break;
        }
        sink_->Poll();
        if (backoffMs_ > 0 && WaitForStop(backoffMs_)) break;
        if (spool_->Empty()) {
            UpdateSpoolGauge();
            // The read position is recorded once the output has been idle for a poll, not each
            // time a storm's latest batch has been taken (Commit records it at least every
            // kCursorSaveEvery meanwhile): a rename per batch cost more than the delivery.
            if (!Wait(Sink::kPollMs)) spool_->SaveCursorIfDirty();
            continue;
        }
        std::string error;
        const bool ok = DeliverOnce(error);
        UpdateSpoolGauge();
        if (ok) {
            if (failing_) {
                TW_LOG(ReportLogger(), PRIO_NOTICE,
                       "Alarm output %s (%s) delivers again after %lu failed attempts",
                       sink_->Name(), sink_->Target(), static_cast<unsigned long>(failingSince_));
            }
            failing_ = false;
            failingSince_ = 0;
            backoffMs_ = 0;
            continue;
        }
        failing_ = true;
        ++failingSince_;
        backoffMs_ =
            backoffMs_ == 0 ? kFirstBackoffMs : std::min(backoffMs_ * 2, sink_->MaxBackoffMs());
        TW_DEGRADED(attemptsFailed_, 1, ReportLogger(), PRIO_WARNING,
                    "Alarm output %s (%s) failing: %s; %lu bytes spooled, retry in %d ms",
                    sink_->Name(), sink_->Target(), error,
                    static_cast<unsigned long>(spool_->PendingBytes()), backoffMs_);
    }
    // Shutdown: whatever the sink takes in a bounded time; no retry delays now.
    const auto deadline = Clock::now() + kDrainTime;
    std::string error;
    while (!spool_->Empty() && Clock::now() < deadline && DeliverOnce(error)) {
    }
}

}  // namespace Report
