#pragma once

#include <string>

namespace Engine {

/// One file-system watch rule of the audit task: `-w <path> -p <perms> -k <key>`.
struct AuditWatchRule {
    std::string path;   ///< absolute, without trailing slash (except "/")
    std::string perms;  ///< letters of "rwxa"
    std::string key;
    bool directory = false;  ///< watched as a directory tree (the path was a directory)

    /// Parses the control-tool argument "<path> -p <perms>" (the path may hold blanks; without
    /// " -p" every permission is watched). False with `error` when the path is not absolute, a
    /// permission letter is unknown or the key is empty or too long.
    static bool Parse(const std::string& argument, const std::string& key, AuditWatchRule& out,
                      std::string& error);
    /// The kernel's permission mask of `perms`.
    int PermMask() const;
    bool SameRule(const AuditWatchRule& o) const { return path == o.path && key == o.key; }
};

}  // namespace Engine
