#pragma once

#include <string>
#include <vector>

#include "framework/Module.h"

namespace Report {

/// The alarm sink service: "data_comm_report_task", which checks and spools every alarm, one
/// task per configured output ("report_<output>_task"), which delivers from its spool, and the
/// SIGHUP hook that reopens the outputs for log rotation.
class DataCommModule : public Framework::Module {
public:
    static constexpr const char* kModuleName = "data_comm_module";

    DataCommModule();
    int Init() override;
    void UnInit() override;

private:
    void StopOutputs();

    bool started_ = false;
    std::vector<std::string> outputNames_;  // registered output tasks; control thread
};

}  // namespace Report
