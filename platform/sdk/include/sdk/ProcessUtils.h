#pragma once

#include <string>

namespace SDK {

class ProcessUtils {
public:
    /// The 64-hex container id of process `pid` from /proc/<pid>/cgroup (Docker's cgroup v1
    /// ".../docker/<id>" and v2 ".../docker-<id>.scope", Podman's ".../libpod-<id>[.scope]");
    /// containerId stays empty otherwise.
    /// A process that CaptureProcess saw is answered from that capture once it has exited, or
    /// when its pid now belongs to a process that started after the capture.
    static void GetContainerID(int pid, std::string& containerId);
    /// Remembers now which container process `pid` runs in, for GetContainerID after it exits
    /// (short-lived writers are gone before anyone asks). When the process is already gone,
    /// `fallbackId` (what the caller knows otherwise, may be empty) is remembered instead.
    /// Bounded: the oldest captures are forgotten first. Thread-safe. Returns the id that
    /// GetContainerID will now give for `pid` once it has exited.
    static std::string CaptureProcess(int pid, const std::string& fallbackId = std::string());
    /// The same lookup on the text of a cgroup file (for tests and fuzzers).
    static std::string ParseContainerIdFromCgroup(const std::string& cgroupText);
};

}  // namespace SDK
