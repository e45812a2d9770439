#include "report/DataCommModule.h"

#include <memory>
#include <vector>

#include "report/DataCommReportTask.h"
#include "report/FileSink.h"
#include "report/HttpSink.h"
#include "report/ReopenSignal.h"
#include "report/ReportLog.h"
#include "report/SinkTask.h"
#include "report/Spool.h"
#include "report/SyslogSink.h"
#include "sdk/ConfigUtils.h"
#include "sdk/Log.h"

namespace Report {

namespace {
constexpr const char* kDefaultFile = "/var/log/tarnwick/alarms.jsonl";
constexpr const char* kDefaultSpoolDir = "/var/lib/tarnwick/spool";
constexpr int64_t kDefaultSpoolMiB = 256;
constexpr int64_t kDefaultTimeoutMs = 5000;

SinkTask* MakeOutput(std::unique_ptr<Sink> sink) {
    const std::string dir =
        SDK::ConfigUtils::GetString("report.spool.dir", kDefaultSpoolDir) + "/" + sink->Name();
    int64_t mib = SDK::ConfigUtils::GetInt("report.spool.max_mb", kDefaultSpoolMiB);
    if (mib <= 0) {
        TW_LOG(ReportLogger(), PRIO_ERROR,
               "report.spool.max_mb must be a positive number; using %d",
               static_cast<int>(kDefaultSpoolMiB));
        mib = kDefaultSpoolMiB;
    }
    auto spool = std::make_unique<Spool>(dir, static_cast<uint64_t>(mib) << 20);
    std::string error;
    if (!spool->Open(error)) {
        TW_LOG(ReportLogger(), PRIO_ERROR,
               "Alarm output %s: %s; its alarms are lost and counted until the spool works",
               sink->Name(), error);
    } else if (spool->CutAtOpen() > 0) {
        TW_LOG(ReportLogger(), PRIO_WARNING,
               "Alarm output %s: cut %lu bytes of a partly written alarm from spool %s",
               sink->Name(), static_cast<unsigned long>(spool->CutAtOpen()), dir);
    }
    if (!spool->Empty()) {
        TW_LOG(ReportLogger(), PRIO_NOTICE,
               "Alarm output %s: %lu bytes of alarms from an earlier run are delivered first",
               sink->Name(), static_cast<unsigned long>(spool->PendingBytes()));
    }
    return new SinkTask(std::move(sink), std::move(spool));
}

int TimeoutMs(const std::string& key) {
    const int64_t ms = SDK::ConfigUtils::GetInt(key, kDefaultTimeoutMs);
    return ms > 0 && ms < 600000 ? static_cast<int>(ms) : static_cast<int>(kDefaultTimeoutMs);
}

std::unique_ptr<Sink> MakeSyslogSink(const std::string& target) {
    SyslogSink::Endpoint endpoint;
    std::string error;
    if (!SyslogSink::ParseTarget(target, endpoint, error)) {
        TW_LOG(ReportLogger(), PRIO_ERROR, "Syslog output off: %s", error);
        return nullptr;
    }
    const std::string name = SDK::ConfigUtils::GetString("report.syslog.facility", "auth");
    const int facility = SyslogSink::FacilityCode(name);
    if (facility < 0) {
        TW_LOG(ReportLogger(), PRIO_ERROR, "Syslog output off: unknown facility '%s'", name);
        return nullptr;
    }
    return std::make_unique<SyslogSink>(target, endpoint, facility,
                                        TimeoutMs("report.syslog.timeout_ms"));
}

std::unique_ptr<Sink> MakeHttpSink(const std::string& url) {
    std::string error;
    if (!HttpSink::Validate(url, error)) {
        TW_LOG(ReportLogger(), PRIO_ERROR, "HTTP output off: %s", error);
        return nullptr;
    }
    HttpSink::Settings settings;
    settings.url = url;
    settings.timeoutMs = TimeoutMs("report.http.timeout_ms");
    const int64_t batch = SDK::ConfigUtils::GetInt("report.http.batch", 500);
    settings.batchLines = batch > 0 && batch <= 100000 ? static_cast<std::size_t>(batch) : 500;
    const int64_t backoff = SDK::ConfigUtils::GetInt("report.http.retry_max_ms", 30000);
    settings.maxBackoffMs =
        backoff >= 100 && backoff <= 3600000 ? static_cast<int>(backoff) : 30000;
    settings.caFile = SDK::ConfigUtils::GetString("report.http.ca_file", "");
    settings.verifyPeer = SDK::ConfigUtils::GetString("report.http.verify_peer", "true") != "false";
    return std::make_unique<HttpSink>(settings);
}

/// The configured outputs, each a task not yet registered.
std::vector<SinkTask*> MakeOutputs() {
    std::vector<SinkTask*> outputs;
    const std::string file = SDK::ConfigUtils::GetString("report.file", kDefaultFile);
    if (!file.empty()) outputs.push_back(MakeOutput(std::make_unique<FileSink>(file)));
    const std::string syslog = SDK::ConfigUtils::GetString("report.syslog.target", "");
    if (!syslog.empty()) {
        if (auto sink = MakeSyslogSink(syslog)) outputs.push_back(MakeOutput(std::move(sink)));
    }
    const std::string url = SDK::ConfigUtils::GetString("report.http.url", "");
    if (!url.empty()) {
        if (auto sink = MakeHttpSink(url)) outputs.push_back(MakeOutput(std::move(sink)));
    }
    return outputs;
}
}  // namespace

DataCommModule::DataCommModule()
    : Framework::SingleTaskModule(kModuleName,
                                  [this] { return new DataCommReportTask(outputs_); }) {}

int DataCommModule::Init() {
    if (!TaskName().empty()) return 0;
    if (!ReopenSignal::Install()) {
        TW_LOG(ReportLogger(), PRIO_WARNING,
               "Alarm outputs: SIGHUP not hooked, outputs are not reopened on it");
    }
    // The outputs run first, so that the report task never offers to a stopped one.
    for (SinkTask* output : MakeOutputs()) {
        const std::string name = output->name();
        // RegisterTask owns the task from here on, also when it fails (and logs why).
        if (RegisterTask(output, false) != 0) continue;
        outputNames_.push_back(name);
        outputs_.push_back(output);
    }
    if (Framework::SingleTaskModule::Init() != 0) {
        StopOutputs();
        return -1;
    }
    return 0;
}

void DataCommModule::UnInit() {
    // The report task first: what is still queued for it reaches the outputs' spools. Then each
    // output gets its bounded time to deliver.
    Framework::SingleTaskModule::UnInit();
    StopOutputs();
    ReopenSignal::Uninstall();
}

void DataCommModule::StopOutputs() {
    outputs_.clear();
    for (const auto& name : outputNames_) UnRegisterTask(name);
    outputNames_.clear();
}

}  // namespace Report

extern "C" Framework::Module* CreateModule() { return new Report::DataCommModule(); }
