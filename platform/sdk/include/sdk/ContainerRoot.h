#pragma once

#include <string>

namespace SDK {

/// A container's root directory as the host sees it, and lookups that stay inside it: every
/// symbolic link (absolute or relative, in any component) and every ".." is resolved as the
/// container would resolve it, clamped at the root (openat2 RESOLVE_IN_ROOT), so that nothing
/// a container controls can lead a lookup to a host file. Owns an O_PATH descriptor of the
/// root. Const methods may be called from any thread.
class ContainerRoot {
public:
    /// Opens `root` (a host directory). IsOpen() tells whether that worked.
    explicit ContainerRoot(const std::string& root);
    ~ContainerRoot();
    ContainerRoot(const ContainerRoot&) = delete;
    ContainerRoot& operator=(const ContainerRoot&) = delete;

    bool IsOpen() const { return fd_ >= 0; }
    /// The root's canonical host path (no trailing slash, "/" for the host's own root).
    const std::string& Path() const { return path_; }
    /// The descriptor of the root (O_PATH), or -1.
    int Fd() const { return fd_; }

    /// Opens `inner`, a path as the container sees it (absolute, or relative to its root),
    /// with `flags` (O_CLOEXEC is added). With `followLast` false a symbolic link at the last
    /// component is not followed (O_NOFOLLOW). Returns the descriptor or -1 with errno set.
    int Open(const std::string& inner, int flags, bool followLast = true) const;
    /// The host path of what `inner` names inside the root, every link resolved inside it;
    /// empty when it does not exist or cannot be resolved.
    std::string Resolve(const std::string& inner, bool followLast = true) const;
    /// When `hostPath` is the root or lies below it, sets `inner` to the part below it ("/"
    /// for the root itself) and returns true.
    bool InnerOf(const std::string& hostPath, std::string& inner) const;

    /// The host path that descriptor `fd` refers to (readlink of /proc/self/fd), or empty.
    static std::string PathOfFd(int fd);
    /// True when `path` is `root` or lies below it (textually; both absolute).
    static bool IsUnder(const std::string& path, const std::string& root);

private:
    int fd_ = -1;
    std::string path_;
};

}  // namespace SDK
