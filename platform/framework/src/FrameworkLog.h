#pragma once

#include <Poco/Logger.h>

#include "sdk/LoggerUtils.h"

namespace Framework {

/// The framework's own logger (a child of the agent's root logger).
inline Poco::Logger* FrameworkLogger() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("framework", true);
}

}  // namespace Framework
