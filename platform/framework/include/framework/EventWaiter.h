#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace Framework {

/// One task's wait point: epoll over the file descriptors the task registered (inotify,
/// netlink, sockets) plus an eventfd that signals queued messages.
/// Notify may be called from any thread; AddFd/RemoveFd/WaitAndHandleEvent only from the
/// owning task's thread (AddFd also before the thread starts).
class EventWaiter {
public:
    /// Called on the task's thread with the ready fd and its epoll event bits.
    using Handler = std::function<void(int fd, uint32_t events)>;

    EventWaiter();
    ~EventWaiter();
    EventWaiter(const EventWaiter&) = delete;
    EventWaiter& operator=(const EventWaiter&) = delete;

    bool IsValid() const { return epollFd_ >= 0 && eventFd_ >= 0; }
    /// Watches fd for `events` (EPOLLIN by default); the handler runs when it is ready.
    bool AddFd(int fd, Handler handler, uint32_t events = 0x001 /* EPOLLIN */);
    void RemoveFd(int fd);
    /// Signals that the message queue has work: the current or next wait returns -1 at once.
    /// Call it after the message is queued. Only the first Notify after a wait took the signal
    /// writes the eventfd; the rest find it pending and cost no system call.
    void Notify();

    /// Waits at most timeoutMs for fd events or a Notify, runs the handlers of ready fds (at
    /// most maxEvents per call), and returns -1 when the message queue was signalled, otherwise
    /// the number of fd handlers run (0 on timeout or interruption).
    int WaitAndHandleEvent(int timeoutMs, int maxEvents);

private:
    int epollFd_ = -1;
    int eventFd_ = -1;
    std::map<int, std::shared_ptr<Handler>> handlers_;  // task thread only
    std::vector<struct epoll_event> ready_;             // task thread only
    // True from the Notify that wrote the eventfd until the waiter has read it back.
    std::atomic<bool> signalled_{false};
};

}  // namespace Framework
