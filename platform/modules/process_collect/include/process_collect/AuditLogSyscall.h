#pragma once

#include <string>
#include <vector>

#include "process_collect/AuditLogPath.h"

namespace Engine {

/// The SYSCALL record of one audit event with its CWD and PATH items joined in.
struct AuditLogSyscall {
    std::string serial;       ///< audit event serial (decimal)
    std::string timestamp;    ///< "seconds.millis" of the event
    int syscall = -1;         ///< syscall number
    std::string success;      ///< "yes" / "no"
    std::string exitCode;     ///< exit= value
    std::string pid;          ///< decimal pid of the acting process
    std::string ppid;         ///< decimal pid of its parent
    std::string uid;          ///< decimal uid
    std::string processName;  ///< comm of the acting process
    std::string exe;          ///< executable of the acting process
    std::string cwd;          ///< working directory of the acting process
    /// Items with a name, as host paths (relative names joined to cwd, container-relative names
    /// prefixed with the watched root); PARENT items after the others, so the first is the file.
    std::vector<AuditLogPath> paths;
    bool write = false;  ///< the syscall is of the kernel's write class
    bool attr = false;   ///< the syscall is of the kernel's attribute-change class
};

}  // namespace Engine
