#pragma once

#include "framework/SingleTaskModule.h"

namespace Report {

/// The alarm sink service: owns "data_comm_report_task" and the SIGHUP hook that reopens the
/// sink for log rotation.
class DataCommModule : public Framework::SingleTaskModule {
public:
    static constexpr const char* kModuleName = "data_comm_module";

    DataCommModule();
    int Init() override;
    void UnInit() override;
};

}  // namespace Report
