#pragma once

#include <Poco/Logger.h>

#include "sdk/LoggerUtils.h"

namespace Engine {

/// The file-notify service's logger (a child of the agent's root logger).
inline Poco::Logger* FileNotifyLogger() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("filenotify_module", true);
}

}  // namespace Engine
