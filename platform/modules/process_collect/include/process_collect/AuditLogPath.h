#pragma once

#include <string>

namespace Engine {

/// One PATH item of an audit event.
struct AuditLogPath {
    std::string name;      ///< host path of the item (see AuditLogSyscall::paths)
    std::string nametype;  ///< NORMAL, CREATE, DELETE, PARENT, UNKNOWN
    std::string inode;     ///< decimal inode number
    std::string mode;      ///< octal mode text as the kernel reports it
};

}  // namespace Engine
