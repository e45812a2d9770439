#pragma once

#include <string>

namespace SDK {

class ProcessUtils {
public:
    /// The 64-hex Docker container id of process `pid` from /proc/<pid>/cgroup (cgroup v1
    /// ".../docker/<id>" and v2 ".../docker-<id>.scope"); containerId stays empty otherwise.
    static void GetContainerID(int pid, std::string& containerId);
    /// The same lookup on the text of a cgroup file (for tests and fuzzers).
    static std::string ParseContainerIdFromCgroup(const std::string& cgroupText);
};

}  // namespace SDK
