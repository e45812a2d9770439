#include "report/DataCommReportTask.h"

#include <json/json.h>

#include "framework/Counters.h"
#include "framework/DataMessage.h"
#include "framework/DegradedCounter.h"
#include "report/ReopenSignal.h"
#include "report/ReportLog.h"
#include "sdk/Log.h"

namespace Report {

namespace {
constexpr unsigned int kQueueCapacity = 4096;
constexpr int kWaitMs = 200;  // bounds how late a SIGHUP reopen happens
constexpr int kBulk = 256;
constexpr int kMaxJsonDepth = 64;

Framework::DegradedCounter gInvalid("report.alarms.invalid", 10000);
Framework::DegradedCounter gNoOutput("report.alarms.no_output");
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
      workers_(std::move(workers)) {
    LoopSettings loop;
    loop.waitMs = kWaitMs;
    loop.maxEvents = 16;
    loop.batch = kBulk;
    SetLoopSettings(loop);
}

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

void DataCommReportTask::OnTurn(uint64_t) {
    if (!ReopenSignal::Take()) return;
    for (auto& worker : workers_) worker->RequestReopen();
}

std::string AlarmClass(const Json::Value& document) {
    static const char* const kKnown[] = {"dockerfile_001", "dockerfile_002"};
    const Json::Value& id = document["event_classid"];
    if (!id.isString()) return "other";
    for (const char* known : kKnown) {
        if (id.asString() == known) return known;
    }
    return "other";
}

bool DataCommReportTask::ParseObject(const std::string& text, Json::Value& root) {
    if (!reader_) {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false;
        builder["stackLimit"] = kMaxJsonDepth;
        reader_.reset(builder.newCharReader());
    }
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
    Json::Value root;
    if (!ParseObject(line, root)) {
        TW_DEGRADED(gInvalid, 1, ReportLogger(), PRIO_ERROR,
                    "Alarm dropped: not a JSON object (%z bytes, starts '%s')", line.size(),
                    line.substr(0, 60));
        return 0;
    }
    Framework::Counters::Instance().Add(std::string(kAlarmClassCounter) + "." + AlarmClass(root));
    if (workers_.empty()) gNoOutput.Add();
    for (auto& worker : workers_) worker->Offer(line);
    return 0;
}

}  // namespace Report
