#include "filenotify/WatchScope.h"

#include <errno.h>
#include <sys/stat.h>

#include "filenotify/FileNotifyLog.h"
#include "framework/ContainerRegistry.h"
#include "framework/DegradedCounter.h"
#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

namespace Engine {

namespace {
constexpr uint64_t kWarnIntervalMs = 10000;
constexpr std::size_t kLabelLength = 12;

Framework::DegradedCounter gFallback("filenotify.scope.fallback", kWarnIntervalMs);

// The process's root must be the container's root filesystem itself: a pid can be reused by
// another process once the container's has exited.
bool IsShortage(int error) { return error == EMFILE || error == ENFILE || error == ENOMEM; }

bool SameDirectory(int fd, const std::string& hostPath) {
    struct stat a {};
    struct stat b {};
    if (fstat(fd, &a) != 0 || stat(hostPath.c_str(), &b) != 0) return false;
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}
}  // namespace

std::shared_ptr<WatchScope> WatchScope::ForPath(const std::string& path, std::string& inner,
                                                Cache& cache) {
    Framework::ContainerRegistry::Entry entry;
    if (!Framework::ContainerRegistry::Instance().Find(path, entry)) {
        inner = path;
        auto host = cache["/"].lock();
        if (!host) host = std::make_shared<WatchScope>(Kind::kHost, "/", "", 0);
        cache["/"] = host;
        return host;
    }
    inner = path.substr(entry.rootPath.size());
    if (inner.empty()) inner = "/";
    auto cached = cache[entry.rootPath].lock();
    if (cached && cached->Pid() == entry.pid && cached->Id() == entry.id) return cached;
    const Kind kind = entry.pid > 0 ? Kind::kContainerProcess : Kind::kContainerRootFs;
    auto scope = std::make_shared<WatchScope>(kind, entry.rootPath, entry.id, entry.pid);
    cache[entry.rootPath] = scope;
    return scope;
}

WatchScope::WatchScope(Kind kind, const std::string& rootPath, const std::string& id, int pid)
    : kind_(kind), rootPath_(rootPath), id_(id), pid_(pid) {}

std::string WatchScope::Label() const {
    return kind_ == Kind::kHost ? std::string("host") : id_.substr(0, kLabelLength);
}

int WatchScope::Open(const std::string& inner, int flags, bool followLast) {
    if (!OpenRoot()) return -1;
    return root_->Open(inner, flags, followLast);
}

bool WatchScope::OpenRoot() {
    if (root_ && root_->IsOpen()) return true;
    if (kind_ == Kind::kContainerProcess) {
        root_.reset(new SDK::ContainerRoot("/proc/" + std::to_string(pid_) + "/root"));
        const int error = errno;
        if (root_->IsOpen() && SameDirectory(root_->Fd(), rootPath_)) return true;
        if (!root_->IsOpen() && IsShortage(error)) {
            errno = error;  // the process may well be there: try again later
            return false;
        }
        kind_ = Kind::kContainerRootFs;
        TW_DEGRADED(gFallback, 1, FileNotifyLogger(), PRIO_WARNING,
                    "File notify: process %d of container %s is gone; its files are looked up in "
                    "its root filesystem only, without its mounts",
                    pid_, Label());
    }
    root_.reset(new SDK::ContainerRoot(kind_ == Kind::kHost ? "/" : rootPath_));
    return root_->IsOpen();
}

}  // namespace Engine
