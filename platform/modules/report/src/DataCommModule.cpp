#include "report/DataCommModule.h"

#include "report/DataCommReportTask.h"
#include "report/ReopenSignal.h"
#include "sdk/ConfigUtils.h"
#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

namespace Report {

namespace {
constexpr const char* kDefaultSink = "/var/log/tarnwick/alarms.jsonl";
}

DataCommModule::DataCommModule() : Framework::Module(kModuleName) {}

int DataCommModule::Init() {
    Poco::Logger* logger =
        SDK::LoggerUtils::GetInstance()->GetModuleLogger(kModuleName, true);
    const std::string path = SDK::ConfigUtils::GetString("report.file", kDefaultSink);
    if (!ReopenSignal::Install()) {
        TW_LOG(logger, PRIO_WARNING, "Alarm sink: SIGHUP not hooked, the sink is not reopened on it");
    }
    if (RegisterTask(new DataCommReportTask(path), false) != 0) {
        TW_LOG(logger, PRIO_ERROR, "Alarm sink: task %s not registered",
               std::string(DataCommReportTask::kTaskName));
        return -1;
    }
    registered_ = true;
    return Framework::Module::Init();
}

void DataCommModule::UnInit() {
    if (registered_) UnRegisterTask(DataCommReportTask::kTaskName);
    registered_ = false;
    ReopenSignal::Uninstall();
    Framework::Module::UnInit();
}

}  // namespace Report

extern "C" Framework::Module* CreateModule() { return new Report::DataCommModule(); }
