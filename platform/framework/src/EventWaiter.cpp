#include "framework/EventWaiter.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <vector>

namespace Framework {

EventWaiter::EventWaiter() {
    epollFd_ = epoll_create1(EPOLL_CLOEXEC);
    eventFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (epollFd_ >= 0 && eventFd_ >= 0) {
        struct epoll_event ev {};
        ev.events = EPOLLIN;
        ev.data.fd = eventFd_;
        epoll_ctl(epollFd_, EPOLL_CTL_ADD, eventFd_, &ev);
    }
}

EventWaiter::~EventWaiter() {
    if (eventFd_ >= 0) close(eventFd_);
    if (epollFd_ >= 0) close(epollFd_);
}

bool EventWaiter::AddFd(int fd, Handler handler, uint32_t events) {
    if (!IsValid() || fd < 0 || fd == eventFd_) return false;
    struct epoll_event ev {};
    ev.events = events;
    ev.data.fd = fd;
    const int op = handlers_.count(fd) ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
    if (epoll_ctl(epollFd_, op, fd, &ev) != 0) return false;
    handlers_[fd] = std::make_shared<Handler>(std::move(handler));
    return true;
}

void EventWaiter::RemoveFd(int fd) {
    if (handlers_.erase(fd) == 0) return;
    epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr);
}

void EventWaiter::Notify() {
    if (eventFd_ < 0) return;
    // Orders the caller's enqueue before the flag is read; pairs with the fence in
    // WaitAndHandleEvent, so either this call writes the eventfd or the drain that follows the
    // waiter's reset sees the message.
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (signalled_.exchange(true)) return;
    const uint64_t one = 1;
    // EAGAIN means the counter is saturated, which still reads as "signalled".
    ssize_t rc;
    do {
        rc = write(eventFd_, &one, sizeof(one));
    } while (rc < 0 && errno == EINTR);
}

int EventWaiter::WaitAndHandleEvent(int timeoutMs, int maxEvents) {
    if (!IsValid()) return 0;
    if (maxEvents <= 0) maxEvents = 1;
    if (ready_.size() < static_cast<size_t>(maxEvents))
        ready_.resize(static_cast<size_t>(maxEvents));
    std::vector<struct epoll_event>& events = ready_;
    const int n = epoll_wait(epollFd_, events.data(), maxEvents, timeoutMs);
    if (n <= 0) return 0;
    bool messages = false;
    int handled = 0;
    for (int i = 0; i < n; ++i) {
        const int fd = events[i].data.fd;
        if (fd == eventFd_) {
            // Reset before the queue is drained, so a message queued after this read signals
            // again and is not left waiting for the timeout.
            uint64_t value = 0;
            while (read(eventFd_, &value, sizeof(value)) < 0 && errno == EINTR) {
            }
            signalled_.store(false);
            std::atomic_thread_fence(std::memory_order_seq_cst);
            messages = true;
            continue;
        }
        auto it = handlers_.find(fd);
        if (it == handlers_.end()) continue;
        // Keep the handler alive even if it removes its own fd.
        std::shared_ptr<Handler> handler = it->second;
        (*handler)(fd, events[i].events);
        ++handled;
    }
    return messages ? -1 : handled;
}

}  // namespace Framework
