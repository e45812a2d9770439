#include "report/DataCommReportTask.h"

#include <json/json.h>

#include "framework/Counters.h"
#include "framework/DataMessage.h"
#include "framework/RateLimiter.h"
#include "report/ReopenSignal.h"
#include "report/ReportLog.h"
#include "sdk/Log.h"

namespace Report {

namespace {
constexpr unsigned int kQueueCapacity = 4096;
constexpr int kWaitMs = 200;  // bounds how late a SIGHUP reopen happens
constexpr int kBulk = 256;
constexpr int kMaxJsonDepth = 64;

Framework::RateLimiter& InvalidLimiter() {
    static Framework::RateLimiter limiter(10000);
    return limiter;
}
}  // namespace

std::string ToSingleLine(const std::string& document) {
    std::string line = document;
    for (char& c : line) {
        if (c == '\n' || c == '\r') c = ' ';
    }
    return line;
}

DataCommReportTask::DataCommReportTask(std::vector<std::unique_ptr<SinkWorker>> workers)
    : Framework::Task(kTaskName, "data_comm_feature", Framework::TaskCondition::TASK_TYPE_MESSAGE,
                      kQueueCapacity),
      workers_(std::move(workers)) {}

int DataCommReportTask::Init() {
    if (workers_.empty()) {
        TW_LOG(ReportLogger(), PRIO_WARNING, "No alarm output configured: alarms are dropped");
    }
    for (auto& worker : workers_) {
        worker->Start();
        TW_LOG(ReportLogger(), PRIO_INFORMATION, "Alarm output %s: %s, spooled in %s",
               worker->GetSink().Name(), worker->GetSink().Target(), worker->GetSpool().Dir());
    }
    return Framework::Task::Init();
}

void DataCommReportTask::UnInit() {
    workers_.clear();  // each worker drains what it can in a bounded time, then stops
    Framework::Task::UnInit();
}

int DataCommReportTask::Run() {
    while (!isCancelled()) {
        ReopenIfRequested();
        if (GetEventWaiter().WaitAndHandleEvent(kWaitMs, 16) == -1) BulkConsumeMsg(kBulk);
    }
    return 0;
}

void DataCommReportTask::ReopenIfRequested() {
    if (!ReopenSignal::Take()) return;
    for (auto& worker : workers_) worker->RequestReopen();
}

bool DataCommReportTask::IsJsonObject(const std::string& text) {
    if (!reader_) {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false;
        builder["stackLimit"] = kMaxJsonDepth;
        reader_.reset(builder.newCharReader());
    }
    Json::Value root;
    std::string errors;
    try {
        return reader_->parse(text.data(), text.data() + text.size(), &root, &errors) &&
               root.isObject();
    } catch (const std::exception&) {
        return false;  // nested deeper than the stack limit
    }
}

int DataCommReportTask::HandleMsg(const Framework::Message* msg) {
    const auto* data = dynamic_cast<const Framework::DataMessage*>(msg);
    if (data == nullptr) return 0;
    Framework::Counters::Instance().Add("report.alarms.received");
    const std::string line = ToSingleLine(data->GetData());
    if (!IsJsonObject(line)) {
        Framework::Counters::Instance().Add("report.alarms.invalid");
        uint64_t suppressed = 0;
        if (InvalidLimiter().Allow(suppressed)) {
            TW_LOG(ReportLogger(), PRIO_ERROR,
                   "Alarm dropped: not a JSON object (%z bytes, starts '%s'); %lu more suppressed",
                   line.size(), line.substr(0, 60), static_cast<unsigned long>(suppressed));
        }
        return 0;
    }
    if (workers_.empty()) Framework::Counters::Instance().Add("report.alarms.no_output");
    for (auto& worker : workers_) worker->Offer(line);
    return 0;
}

}  // namespace Report
