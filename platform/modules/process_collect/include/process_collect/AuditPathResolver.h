#pragma once

#include "process_collect/AuditLogSyscall.h"
#include "sdk/ContainerRoot.h"

namespace Engine {

/// Turns the path items of an event, host paths spelled below a watched root (possibly with
/// ".." or through links the container planted), into the host paths of what the container
/// sees at those names: resolved inside the root, never on the host. Reads the file system;
/// no state.
class AuditPathResolver {
public:
    /// Resolves every item of `syscall` inside `root`. An item that names nothing inside the
    /// root (gone, or leading out of it) is dropped. False when no item but the directories
    /// of the names is left.
    static bool Resolve(const SDK::ContainerRoot& root, AuditLogSyscall& syscall);
};

}  // namespace Engine
