#include "process_collect/AuditEventSocket.h"

#include <linux/audit.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Engine {

namespace {
// Larger than the kernel's biggest audit record (MAX_AUDIT_MESSAGE_LENGTH).
constexpr std::size_t kBufferSize = 64 * 1024;
}  // namespace

AuditEventSocket::~AuditEventSocket() { Close(); }

bool AuditEventSocket::Open(int receiveBuffer, std::string& error) {
    if (fd_ >= 0) return true;
    fd_ = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_AUDIT);
    if (fd_ < 0) {
        error = std::string("cannot open audit netlink socket: ") + std::strerror(errno);
        return false;
    }
    // FORCE lifts the rmem_max cap for a privileged reader; fall back to the capped size.
    if (::setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof(receiveBuffer)) != 0) {
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
    }
    sockaddr_nl addr{};
    addr.nl_family = AF_NETLINK;
    addr.nl_groups = 1u << (AUDIT_NLGRP_READLOG - 1);
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        error = std::string("cannot join the audit read-log group: ") + std::strerror(errno);
        Close();
        return false;
    }
    buffer_.resize(kBufferSize);
    return true;
}

void AuditEventSocket::Close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

int AuditEventSocket::ReadAvailable(int maxDatagrams, const RecordFn& onRecord,
                                    uint64_t& overruns) {
    int read = 0;
    while (fd_ >= 0 && read < maxDatagrams) {
        const ssize_t n = ::recv(fd_, buffer_.data(), buffer_.size(), MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno == ENOBUFS) {
                ++overruns;
                continue;
            }
            break;  // EAGAIN: nothing more waiting
        }
        ++read;
        std::size_t left = static_cast<std::size_t>(n);
        const nlmsghdr* header = reinterpret_cast<const nlmsghdr*>(buffer_.data());
        // Multicast records carry one record per message; walk defensively all the same.
        while (left >= sizeof(nlmsghdr)) {
            std::size_t length = header->nlmsg_len;
            if (length < NLMSG_HDRLEN || length > left) length = left;
            const char* payload = reinterpret_cast<const char*>(header) + NLMSG_HDRLEN;
            const std::size_t payloadLen = length - NLMSG_HDRLEN;
            if (header->nlmsg_type >= AUDIT_GET) onRecord(header->nlmsg_type, payload, payloadLen);
            const std::size_t step = NLMSG_ALIGN(length);
            if (step >= left) break;
            left -= step;
            header =
                reinterpret_cast<const nlmsghdr*>(reinterpret_cast<const char*>(header) + step);
        }
    }
    return read;
}

}  // namespace Engine
