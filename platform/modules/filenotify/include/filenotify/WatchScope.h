#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>

#include "sdk/ContainerRoot.h"

namespace Engine {

/// Where the watched paths of one container (or of the host) are looked up. A path below a
/// container's root is resolved as that container resolves it: through its first process's
/// root, so that its mounts (Docker's hosts/resolv.conf/hostname files, binds, volumes) are
/// followed, and with every link and ".." kept inside it. When that process is unknown or
/// gone, the container's root filesystem alone is used, still confined. A path in no known
/// container is a host path.
///
/// Built and used on the file-notify task's thread only.
class WatchScope {
public:
    enum class Kind { kHost, kContainerProcess, kContainerRootFs };
    /// Scopes in use, by root path: paths of one container share one.
    using Cache = std::map<std::string, std::weak_ptr<WatchScope>>;

    /// The scope for `path`, from what the container service recorded (reused from `cache`
    /// while the container's process is the same); sets `inner` to the path as seen inside it.
    static std::shared_ptr<WatchScope> ForPath(const std::string& path, std::string& inner,
                                               Cache& cache);

    /// A scope of `kind` for the container at `rootPath` (id, recorded process); its root is
    /// opened at the first lookup.
    WatchScope(Kind kind, const std::string& rootPath, const std::string& id, int pid);
    WatchScope(const WatchScope&) = delete;
    WatchScope& operator=(const WatchScope&) = delete;

    /// kContainerProcess turns into kContainerRootFs once the process is found gone.
    Kind GetKind() const { return kind_; }
    /// Host path of the container's root filesystem ("/" for the host).
    const std::string& RootPath() const { return rootPath_; }
    /// The process the container service recorded (also kept when it was found gone).
    int Pid() const { return pid_; }
    const std::string& Id() const { return id_; }
    /// Short name for logs and status: the container id's first 12 digits, or "host".
    std::string Label() const;

    /// Opens `inner` as seen inside the scope (ContainerRoot::Open); -1 with errno set. The
    /// root itself is opened again first if that failed before (e.g. no descriptor left), so
    /// a later retry can succeed.
    int Open(const std::string& inner, int flags, bool followLast);

    /// Watched paths of this scope, and how many of them the kernel refused a watch for.
    std::size_t requested = 0;
    std::size_t refused = 0;

private:
    // Opens the root for lookups; false with errno set.
    bool OpenRoot();

    Kind kind_;
    std::string rootPath_;
    std::string id_;
    int pid_;
    std::unique_ptr<SDK::ContainerRoot> root_;
};

}  // namespace Engine
