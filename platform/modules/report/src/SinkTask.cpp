#include "report/SinkTask.h"

#include <algorithm>
#include <chrono>

#include "framework/Counters.h"
#include "framework/DataMessage.h"
#include "report/ReportLog.h"
#include "sdk/Log.h"

namespace Report {

namespace {
constexpr int kFirstBackoffMs = 100;
constexpr std::size_t kBatchBytes = 1u << 20;
constexpr unsigned int kQueueCapacity = 16;  // wake-ups (one at a time) and idle barriers
// At shutdown the sink gets this long to take what is spooled; the rest waits for next start.
constexpr auto kDrainTime = std::chrono::seconds(3);
constexpr uint64_t kWarnIntervalMs = 10000;

std::string CounterName(const Sink& sink, const char* what) {
    return "report." + sink.Name() + "." + what;
}

Framework::Task::LoopSettings Loop() {
    Framework::Task::LoopSettings loop;
    loop.waitMs = Sink::kPollMs;
    loop.batch = static_cast<int>(kQueueCapacity);
    loop.maxEvents = 4;
    return loop;
}
}  // namespace

SinkTask::SinkTask(std::unique_ptr<Sink> sink, std::unique_ptr<Spool> spool)
    : Framework::Task("report_" + sink->Name() + "_task", "data_comm_feature",
                      Framework::TaskCondition::TASK_TYPE_MESSAGE, kQueueCapacity),
      sink_(std::move(sink)),
      spool_(std::move(spool)),
      overflow_(CounterName(*sink_, "spool.overflow"), kWarnIntervalMs),
      spoolFailed_(CounterName(*sink_, "spool.failed"), kWarnIntervalMs),
      corrupt_(CounterName(*sink_, "spool.corrupt"), 0),
      rejected_(CounterName(*sink_, "rejected"), 0),
      attemptsFailed_(CounterName(*sink_, "attempts_failed"), kWarnIntervalMs) {
    SetLoopSettings(Loop());
}

SinkTask::~SinkTask() = default;

void SinkTask::UnInit() {
    // Whatever the sink takes in a bounded time; no retry delays now.
    const auto deadline = std::chrono::steady_clock::now() + kDrainTime;
    std::string error;
    while (!spool_->Empty() && std::chrono::steady_clock::now() < deadline && DeliverOnce(error)) {
    }
    UpdateSpoolGauge();
    const uint64_t left = spool_->PendingBytes();
    if (left > 0) {
        TW_LOG(ReportLogger(), PRIO_WARNING,
               "Alarm output %s (%s): %lu bytes of alarms stay spooled in %s for the next start",
               sink_->Name(), sink_->Target(), static_cast<unsigned long>(left), spool_->Dir());
    }
    Framework::Task::UnInit();
}

std::string SinkTask::Counter(const char* what) const { return CounterName(*sink_, what); }

bool SinkTask::Offer(const std::string& line) { return Offer(std::vector<std::string>{line}) == 1; }

std::size_t SinkTask::Offer(const std::vector<std::string>& lines) {
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
    if (result.kept > 0) Wake();
    return result.kept;
}

void SinkTask::RequestReopen() {
    sink_->RequestReopen();
    reopen_.store(true);
    Wake();
}

// One wake-up in the queue at a time, however many batches are offered meanwhile. A wake-up
// that finds the queue full is not needed: the task then has turns to take anyway, and polls.
void SinkTask::Wake() {
    if (wakeQueued_.exchange(true)) return;
    std::shared_ptr<Framework::Message> wake = std::make_shared<Framework::DataMessage>("wake", "");
    if (EnqueueMsg(wake) == 0) wakeQueued_.store(false);
}

int SinkTask::HandleMsg(const Framework::Message*) {
    wakeQueued_.store(false);
    return 0;
}

// What waits for this output, next to the loss counters in the agent's status line.
void SinkTask::UpdateSpoolGauge() {
    const uint64_t bytes = spool_->PendingBytes();
    if (bytes == lastGauge_) return;
    Framework::Counters::Instance().Get(Counter("spooled_bytes")).store(bytes);
    lastGauge_ = bytes;
}

int SinkTask::NextWaitMs() {
    const uint64_t now = NowMs();
    // The sink is polled at its interval during a retry delay too.
    if (retryAtMs_ > now) {
        return static_cast<int>(std::min<uint64_t>(retryAtMs_ - now, Sink::kPollMs));
    }
    return spool_->Empty() ? Sink::kPollMs : 0;
}

void SinkTask::OnTurn(uint64_t nowMs) {
    sink_->Poll();
    if (reopen_.exchange(false)) retryAtMs_ = 0;  // a reopened output is tried at once
    if (nowMs < retryAtMs_) return;               // new alarms do not cut a retry delay short
    if (spool_->Empty()) {
        UpdateSpoolGauge();
        // The read position is recorded once the output has been idle for a poll, not each
        // time a storm's latest batch has been taken (Commit records it at least every
        // kCursorSaveEvery meanwhile): a rename per batch cost more than the delivery.
        if (nowMs - lastWorkMs_ >= static_cast<uint64_t>(Sink::kPollMs)) {
            spool_->SaveCursorIfDirty();
        }
        return;
    }
    lastWorkMs_ = nowMs;
    std::string error;
    const bool ok = DeliverOnce(error);
    UpdateSpoolGauge();
    AfterAttempt(ok, error, nowMs);
}

bool SinkTask::DeliverOnce(std::string& error) {
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

void SinkTask::AfterAttempt(bool ok, const std::string& error, uint64_t nowMs) {
    if (ok) {
        if (failingSince_ > 0) {
            TW_LOG(ReportLogger(), PRIO_NOTICE,
                   "Alarm output %s (%s) delivers again after %lu failed attempts", sink_->Name(),
                   sink_->Target(), static_cast<unsigned long>(failingSince_));
        }
        failingSince_ = 0;
        backoffMs_ = 0;
        retryAtMs_ = 0;
        return;
    }
    ++failingSince_;
    backoffMs_ =
        backoffMs_ == 0 ? kFirstBackoffMs : std::min(backoffMs_ * 2, sink_->MaxBackoffMs());
    retryAtMs_ = nowMs + static_cast<uint64_t>(backoffMs_);
    TW_DEGRADED(attemptsFailed_, 1, ReportLogger(), PRIO_WARNING,
                "Alarm output %s (%s) failing: %s; %lu bytes spooled, retry in %d ms",
                sink_->Name(), sink_->Target(), error,
                static_cast<unsigned long>(spool_->PendingBytes()), backoffMs_);
}

}  // namespace Report
