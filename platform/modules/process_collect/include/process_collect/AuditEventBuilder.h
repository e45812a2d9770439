#pragma once

#include <string>
#include <vector>

#include "process_collect/AuditEventJoiner.h"
#include "process_collect/AuditLogSyscall.h"

namespace Engine {

/// Turns the joined records of one event into an AuditLogSyscall. Pure functions.
class AuditEventBuilder {
public:
    /// The rule keys of a SYSCALL record: none for key=(null); several when the rule carried
    /// several (the kernel joins them with \x01 and hex-encodes the whole).
    static std::vector<std::string> Keys(const AuditRecord& syscallRecord);

    /// Builds `out` from `event`. `watchedRoots` are the watched paths of the rules with the
    /// event's key: a name that begins with none of them was written from inside a container
    /// and gets the first one as prefix. False (with `error`) when the event has no SYSCALL
    /// record or that record lacks its syscall number.
    static bool Build(const JoinedAuditEvent& event, const std::vector<std::string>& watchedRoots,
                      AuditLogSyscall& out, std::string& error);

    /// `name` as an absolute path: a relative name is joined to `cwd`.
    static std::string JoinCwd(const std::string& cwd, const std::string& name);
    /// True when `path` is `root` or lies below it.
    static bool IsUnder(const std::string& path, const std::string& root);
};

}  // namespace Engine
