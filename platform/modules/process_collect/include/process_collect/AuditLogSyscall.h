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
    /// Items with a name, as host paths inside the watched root, resolved there as the container
    /// sees them (links and ".." never leave it). The name a call created (rename, link,
    /// symlink, open with O_CREAT) comes first, then the other names, PARENT items last.
    std::vector<AuditLogPath> paths;
    bool write = false;  ///< the syscall is of the kernel's write class
    bool attr = false;   ///< the syscall is of the kernel's attribute-change class
    /// The syscall opened the file (open family): the writer holds a descriptor it will close.
    bool opened = false;
    /// The names were relative to the watched root: the process saw that root as its "/".
    bool containerView = false;
};

}  // namespace Engine
