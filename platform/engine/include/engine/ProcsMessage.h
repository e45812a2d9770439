#pragma once

#include <string>

namespace Engine {

/// Process events of the process-collection service (not produced in this agent yet); only
/// the record type is needed by AbstractMessageReceiver.
class ProcsMessage {
public:
    struct procInfo {
        int pid = 0;
        int ppid = 0;
        std::string name;
        std::string cmdline;
    };
};

}  // namespace Engine
