#pragma once

#include <Poco/Logger.h>

#include "sdk/LoggerUtils.h"

namespace Report {

constexpr const char* kReportLoggerName = "data_comm_module";

/// The report service's logger (a child of the agent's root logger).
inline Poco::Logger* ReportLogger() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger(kReportLoggerName, true);
}

}  // namespace Report
