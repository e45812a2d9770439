#include "report/DataCommReportTask.h"

#include <atomic>
#include <cstdint>

#include "framework/Counters.h"
#include "framework/DataMessage.h"
#include "framework/DegradedCounter.h"
#include "report/AlarmDocument.h"
#include "report/ReopenSignal.h"
#include "report/ReportLog.h"
#include "sdk/Log.h"

namespace Report {

namespace {
constexpr unsigned int kQueueCapacity = 4096;
constexpr int kWaitMs = 200;  // bounds how late a SIGHUP reopen happens
constexpr int kBulk = 256;

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

DataCommReportTask::DataCommReportTask(std::vector<SinkTask*> outputs)
    : Framework::Task(kTaskName, "data_comm_feature", Framework::TaskCondition::TASK_TYPE_MESSAGE,
                      kQueueCapacity),
      outputs_(std::move(outputs)) {
    LoopSettings loop;
    loop.waitMs = kWaitMs;
    loop.maxEvents = 16;
    loop.batch = kBulk;
    loop.gatherMs = 1;  // a storm's alarms are spooled a batch at a time
    SetLoopSettings(loop);
}

int DataCommReportTask::Init() {
    if (outputs_.empty()) {
        TW_LOG(ReportLogger(), PRIO_WARNING, "No alarm output configured: alarms are dropped");
    }
    for (SinkTask* output : outputs_) {
        TW_LOG(ReportLogger(), PRIO_INFORMATION, "Alarm output %s: %s, spooled in %s",
               output->GetSink().Name(), output->GetSink().Target(), output->GetSpool().Dir());
    }
    return Framework::Task::Init();
}

void DataCommReportTask::OnTurn(uint64_t) {
    if (!ReopenSignal::Take()) return;
    for (SinkTask* output : outputs_) output->RequestReopen();
}

namespace {
std::atomic<uint64_t>& ClassCounter(const std::string& alarmClass) {
    static std::atomic<uint64_t>& first = Framework::Counters::Instance().Get(
        std::string(Framework::CounterNames::kAlarmClass) + ".dockerfile_001");
    static std::atomic<uint64_t>& second = Framework::Counters::Instance().Get(
        std::string(Framework::CounterNames::kAlarmClass) + ".dockerfile_002");
    static std::atomic<uint64_t>& other = Framework::Counters::Instance().Get(
        std::string(Framework::CounterNames::kAlarmClass) + ".other");
    if (alarmClass == "dockerfile_001") return first;
    if (alarmClass == "dockerfile_002") return second;
    return other;
}
}  // namespace

int DataCommReportTask::HandleMsg(const Framework::Message* msg) {
    const auto* data = dynamic_cast<const Framework::DataMessage*>(msg);
    if (data == nullptr) return 0;
    static std::atomic<uint64_t>& received =
        Framework::Counters::Instance().Get("report.alarms.received");
    received.fetch_add(1);
    std::string line = ToSingleLine(data->GetData());
    std::string alarmClass;
    if (!ReadAlarmClass(line, alarmClass)) {
        TW_DEGRADED(gInvalid, 1, ReportLogger(), PRIO_ERROR,
                    "Alarm dropped: not a JSON object (%z bytes, starts '%s')", line.size(),
                    line.substr(0, 60));
        return 0;
    }
    ClassCounter(alarmClass).fetch_add(1);
    gathered_.push_back(std::move(line));
    return 0;
}

void DataCommReportTask::OnBatchEnd() {
    if (gathered_.empty()) return;
    if (outputs_.empty()) gNoOutput.Add(gathered_.size());
    for (SinkTask* output : outputs_) output->Offer(gathered_);
    gathered_.clear();
}

}  // namespace Report
