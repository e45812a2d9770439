#include "report/DataCommReportTask.h"

#include "framework/Counters.h"
#include "framework/DataMessage.h"
#include "framework/RateLimiter.h"
#include "report/ReopenSignal.h"
#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

namespace Report {

namespace {
constexpr unsigned int kQueueCapacity = 4096;
constexpr std::size_t kBacklogLimit = 8u << 20;  // bytes waiting for a slow sink
constexpr int kWaitMs = 200;                      // bounds how late a SIGHUP reopen happens
constexpr int kBulk = 256;

Poco::Logger* Logger() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("data_comm_module", true);
}

Framework::RateLimiter& FailureLimiter() {
    static Framework::RateLimiter limiter(10000);
    return limiter;
}
}  // namespace

DataCommReportTask::DataCommReportTask(const std::string& sinkPath)
    : Framework::Task(kTaskName, "data_comm_feature", Framework::TaskCondition::TASK_TYPE_MESSAGE,
                      kQueueCapacity),
      sink_(new AlarmSink(sinkPath, kBacklogLimit)) {}

int DataCommReportTask::Init() {
    if (sink_->IsOpen()) {
        TW_LOG(Logger(), PRIO_INFORMATION, "Alarm sink %s open", sink_->Path());
    } else {
        TW_LOG(Logger(), PRIO_ERROR, "Alarm sink: %s; alarms wait until it can be opened",
               sink_->LastError());
    }
    return Framework::Task::Init();
}

void DataCommReportTask::UnInit() {
    sink_->Flush();
    if (sink_->Pending() > 0) {
        Framework::Counters::Instance().Add("report.sink.dropped");
        TW_LOG(Logger(), PRIO_ERROR, "Alarm sink %s: %z bytes of alarms not written at shutdown",
               sink_->Path(), sink_->Pending());
    }
    Framework::Task::UnInit();
}

int DataCommReportTask::Run() {
    while (!isCancelled()) {
        ReopenIfRequested();
        if (GetEventWaiter().WaitAndHandleEvent(kWaitMs, 16) == -1) BulkConsumeMsg(kBulk);
        sink_->Flush();
    }
    return 0;
}

void DataCommReportTask::ReopenIfRequested() {
    if (!ReopenSignal::Take()) return;
    if (sink_->Reopen()) {
        TW_LOG(Logger(), PRIO_INFORMATION, "Alarm sink %s reopened", sink_->Path());
    } else {
        TW_LOG(Logger(), PRIO_ERROR, "Alarm sink: %s", sink_->LastError());
    }
}

int DataCommReportTask::HandleMsg(const Framework::Message* msg) {
    const auto* data = dynamic_cast<const Framework::DataMessage*>(msg);
    if (data == nullptr) return 0;
    const bool kept = sink_->WriteLine(ToSingleLine(data->GetData()));
    if (kept && sink_->LastError().empty()) {
        Framework::Counters::Instance().Add("report.alarms.written");
        return 0;
    }
    uint64_t suppressed = 0;
    if (FailureLimiter().Allow(suppressed)) {
        TW_LOG(Logger(), PRIO_WARNING,
               "Alarm sink %s is failing or slow (%s); %z bytes waiting, %lu warnings suppressed",
               sink_->Path(), sink_->LastError(), sink_->Pending(),
               static_cast<unsigned long>(suppressed));
    }
    return 0;
}

}  // namespace Report
