#include "process_collect/SyscallClass.h"

#include <fcntl.h>
#include <libaudit.h>

#include <set>

namespace Engine {

namespace {
// The kernel's write class: its directory-write list plus the other writing calls.
const std::set<std::string>& WriteClass() {
    static const std::set<std::string> names = {
        "rename",    "mkdir",       "rmdir",   "creat",    "link",        "unlink",   "symlink",
        "mknod",     "mkdirat",     "mknodat", "unlinkat", "renameat",    "linkat",   "symlinkat",
        "renameat2", "acct",        "swapon",  "quotactl", "quotactl_fd", "truncate", "truncate64",
        "ftruncate", "ftruncate64", "bind",    "fallocate"};
    return names;
}

// The kernel's change-attribute class.
const std::set<std::string>& AttrClass() {
    static const std::set<std::string> names = {
        "chmod",     "fchmod",     "chown",        "lchown",       "fchown",       "setxattr",
        "lsetxattr", "fsetxattr",  "removexattr",  "lremovexattr", "fremovexattr", "fchownat",
        "fchmodat",  "chown32",    "fchown32",     "lchown32",     "link",         "linkat",
        "fchmodat2", "setxattrat", "removexattrat"};
    return names;
}
}  // namespace

std::string SyscallClass::Name(unsigned int arch, int syscall) {
    const int machine = audit_elf_to_machine(arch);
    if (machine < 0) return std::string();
    const char* name = audit_syscall_to_name(syscall, machine);
    return name == nullptr ? std::string() : std::string(name);
}

int SyscallClass::OpenFlagsArgument(const std::string& name) {
    if (name == "open") return 1;
    if (name == "openat") return 2;
    if (name == "openat2") return 0;
    return -1;
}

void SyscallClass::Classify(unsigned int arch, int syscall, long openFlags, bool& write,
                            bool& attr) {
    write = false;
    attr = false;
    const std::string name = Name(arch, syscall);
    if (name.empty()) {
        write = true;
        return;
    }
    if (OpenFlagsArgument(name) >= 0) {
        write = openFlags < 0 || (openFlags & O_ACCMODE) != O_RDONLY;
        return;
    }
    write = WriteClass().count(name) != 0;
    attr = AttrClass().count(name) != 0;
}

}  // namespace Engine
