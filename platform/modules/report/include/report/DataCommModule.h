#pragma once

#include <string>
#include <vector>

#include "framework/SingleTaskModule.h"

namespace Report {

class SinkTask;

/// The alarm sink service: "data_comm_report_task", which checks and spools every alarm, one
/// task per configured output ("report_<output>_task"), which delivers from its spool, and the
/// SIGHUP hook that reopens the outputs for log rotation.
class DataCommModule : public Framework::SingleTaskModule {
public:
    static constexpr const char* kModuleName = "data_comm_module";

    DataCommModule();
    int Init() override;
    void UnInit() override;

private:
    void StopOutputs();

    // The registered output tasks and their names; control thread.
    std::vector<SinkTask*> outputs_;
    std::vector<std::string> outputNames_;
};

}  // namespace Report
