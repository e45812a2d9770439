#pragma once

#include <string>

namespace Engine {

/// Tells whether a syscall of an audit event wrote or changed attributes, mirroring how the
/// kernel matches the permissions of a watch rule: the kernel's write class (directory writes,
/// truncate, ...), its change-attribute class (chmod, chown, xattrs, link), and the open family
/// by the access mode of its flags. Names come from libaudit's syscall tables for the record's
/// arch, so one list serves x86_64, aarch64 and 32-bit compat calls.
class SyscallClass {
public:
    /// The syscall's name for the audit arch (e.g. 0xc000003e), or empty when unknown.
    static std::string Name(unsigned int arch, int syscall);

    /// Classifies one syscall. `openFlags` are the open flags when known (a1 of open, a2 of
    /// openat, oflag of openat2), -1 otherwise. A syscall that libaudit does not know counts as
    /// a write: a write-or-attribute watch reported it, and a write is the safer guess.
    static void Classify(unsigned int arch, int syscall, long openFlags, bool& write, bool& attr);

    /// Which argument holds the open flags for `name`: 1 (open), 2 (openat), 0 for openat2
    /// (flags come in its own record), -1 for any other syscall.
    static int OpenFlagsArgument(const std::string& name);
};

}  // namespace Engine
