#pragma once

#include <memory>
#include <string>

#include "framework/Task.h"
#include "report/AlarmSink.h"

namespace Report {

/// "data_comm_report_task": writes every DataMessage it receives as one line to the alarm sink,
/// and reopens the sink when the process receives SIGHUP.
class DataCommReportTask : public Framework::Task {
public:
    static constexpr const char* kTaskName = "data_comm_report_task";

    explicit DataCommReportTask(const std::string& sinkPath);

    int Init() override;
    void UnInit() override;
    int Run() override;
    int HandleMsg(const Framework::Message* msg) override;

private:
    void ReopenIfRequested();

    std::unique_ptr<AlarmSink> sink_;
};

}  // namespace Report
