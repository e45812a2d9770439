#include "process_collect/CloseWriteWatcher.h"

#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Engine {

namespace {
constexpr std::size_t kReadBuffer = 64 * 1024;
constexpr int kMaxReadsPerWake = 16;

bool StatDev(const std::string& path, uint64_t& dev) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return false;
    dev = static_cast<uint64_t>(st.st_dev);
    return true;
}
}  // namespace

bool CloseWriteWatcher::Open(std::string& error) {
    // O_NONBLOCK on the event descriptors: the kernel opens the closed file for us, and a FIFO
    // opened for reading would otherwise wait for a writer.
    const int fd = ::fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK,
                                   O_RDONLY | O_LARGEFILE | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        error = std::string("fanotify_init: ") + std::strerror(errno);
        return false;
    }
    fd_.Reset(fd);
    buffer_.resize(kReadBuffer);
    return true;
}

bool CloseWriteWatcher::Mark(const std::string& root, std::string& error) {
    if (!IsOpen()) {
        error = "fanotify is not open";
        return false;
    }
    auto it = marks_.find(root);
    if (it != marks_.end()) {
        ++it->second.users;
        return true;
    }
    uint64_t dev = 0;
    uint64_t parentDev = 0;
    if (!StatDev(root, dev) || !StatDev(root + "/..", parentDev)) {
        error = std::string("stat: ") + std::strerror(errno);
        return false;
    }
    if (dev == parentDev) {
        error = "not the top of a file system of its own";
        return false;
    }
    if (::fanotify_mark(fd_.Get(), FAN_MARK_ADD | FAN_MARK_FILESYSTEM, FAN_CLOSE_WRITE, AT_FDCWD,
                        root.c_str()) != 0) {
        error = std::string("fanotify_mark: ") + std::strerror(errno);
        return false;
    }
    marks_[root] = MarkEntry{dev, 1};
    return true;
}

void CloseWriteWatcher::Unmark(const std::string& root) {
    auto it = marks_.find(root);
    if (it == marks_.end()) return;
    if (--it->second.users > 0) return;
    // The file system may already be gone with its container; the kernel then dropped the mark.
    ::fanotify_mark(fd_.Get(), FAN_MARK_REMOVE | FAN_MARK_FILESYSTEM, FAN_CLOSE_WRITE, AT_FDCWD,
                    root.c_str());
    marks_.erase(it);
}

void CloseWriteWatcher::Read(std::vector<Closed>& out, uint64_t& overflows) {
    if (!IsOpen()) return;
    for (int round = 0; round < kMaxReadsPerWake; ++round) {
        const ssize_t n = ::read(fd_.Get(), buffer_.data(), buffer_.size());
        if (n <= 0) return;  // EAGAIN: drained
        auto* meta = reinterpret_cast<const struct fanotify_event_metadata*>(buffer_.data());
        ssize_t left = n;
        for (; FAN_EVENT_OK(meta, left); meta = FAN_EVENT_NEXT(meta, left)) {
            if (meta->vers != FANOTIFY_METADATA_VERSION) continue;
            if (meta->mask & FAN_Q_OVERFLOW) ++overflows;
            if (meta->fd < 0) continue;
            SDK::UniqueFd file(meta->fd);
            struct stat st {};
            if ((meta->mask & FAN_CLOSE_WRITE) == 0 || ::fstat(file.Get(), &st) != 0) continue;
            Closed closed;
            closed.dev = static_cast<uint64_t>(st.st_dev);
            closed.ino = static_cast<uint64_t>(st.st_ino);
            closed.size = static_cast<int64_t>(st.st_size);
            closed.mtimeNs =
                static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
            closed.pid = meta->pid;
            out.push_back(closed);
        }
    }
}

}  // namespace Engine
