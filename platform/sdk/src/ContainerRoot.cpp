#include "sdk/ContainerRoot.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "sdk/PathUtils.h"
#include "sdk/UniqueFd.h"

namespace SDK {

ContainerRoot::ContainerRoot(const std::string& root)
    : path_(SDK::PathUtils::StripTrailingSlashes(root)) {
    if (path_.empty() || path_.front() != '/') return;
    // Not canonicalised on purpose: a root such as /proc/<pid>/root is a link to another mount
    // namespace's root, and opening it is what gets us there.
    fd_ = ::open(path_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
}

ContainerRoot::~ContainerRoot() {
    if (fd_ >= 0) ::close(fd_);
}

int ContainerRoot::Open(const std::string& inner, int flags, bool followLast) const {
    if (fd_ < 0) {
        errno = EBADF;
        return -1;
    }
    if (inner.size() >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::string::size_type start = inner.find_first_not_of('/');
    const std::string relative = start == std::string::npos ? "." : inner.substr(start);
    struct open_how how {};
    how.flags = static_cast<unsigned long long>(flags | O_CLOEXEC | (followLast ? 0 : O_NOFOLLOW));
    // Magic links (/proc/<pid>/fd/...) inside a container could point anywhere: never follow.
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    for (;;) {
        const long fd = ::syscall(SYS_openat2, fd_, relative.c_str(), &how, sizeof(how));
        if (fd >= 0) return static_cast<int>(fd);
        // The kernel asks for a retry when a rename raced with the lookup.
        if (errno != EAGAIN && errno != EINTR) return -1;
    }
}

std::string ContainerRoot::Resolve(const std::string& inner, bool followLast) const {
    UniqueFd fd(Open(inner, O_PATH, followLast));
    if (!fd.Valid()) return std::string();
    struct stat st {};
    // An unlinked file still has a descriptor; its /proc link would read "... (deleted)".
    if (::fstat(fd.Get(), &st) != 0 || st.st_nlink == 0) return std::string();
    std::string host = PathOfFd(fd.Get());
    if (!IsUnder(host, path_)) return std::string();
    return host;
}

bool ContainerRoot::InnerOf(const std::string& hostPath, std::string& inner) const {
    if (!IsUnder(hostPath, path_)) return false;
    if (path_ == "/") {
        inner = hostPath;
    } else {
        inner = hostPath.size() == path_.size() ? "/" : hostPath.substr(path_.size());
    }
    return true;
}

std::string ContainerRoot::PathOfFd(int fd) {
    char buffer[PATH_MAX + 1];
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t n = ::readlink(link.c_str(), buffer, PATH_MAX);
    if (n <= 0) return std::string();
    return std::string(buffer, static_cast<std::size_t>(n));
}

bool ContainerRoot::IsUnder(const std::string& path, const std::string& root) {
    if (root.empty() || path.empty() || path.front() != '/') return false;
    if (root == "/") return true;
    if (path.compare(0, root.size(), root) != 0) return false;
    return path.size() == root.size() || path[root.size()] == '/';
}

}  // namespace SDK
