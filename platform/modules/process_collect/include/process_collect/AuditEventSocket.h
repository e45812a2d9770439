#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Engine {

/// The read-only multicast audit socket (NETLINK_AUDIT, group AUDIT_NLGRP_READLOG). Reading
/// from it needs CAP_AUDIT_READ and leaves the audit daemon's own unicast channel alone.
/// Non-blocking; owns its fd. One thread at a time.
class AuditEventSocket {
public:
    /// Called for every record: its type and its text (not NUL-terminated).
    using RecordFn = std::function<void(int type, const char* text, std::size_t len)>;

    AuditEventSocket() = default;
    ~AuditEventSocket();
    AuditEventSocket(const AuditEventSocket&) = delete;
    AuditEventSocket& operator=(const AuditEventSocket&) = delete;

    /// Opens and joins the group with a receive buffer of `receiveBuffer` bytes.
    bool Open(int receiveBuffer, std::string& error);
    void Close();
    int Fd() const { return fd_; }

    /// Reads up to maxDatagrams waiting datagrams and hands out their records. Returns how many
    /// datagrams were read; `overruns` counts the times the kernel dropped records for us
    /// because the socket buffer was full.
    int ReadAvailable(int maxDatagrams, const RecordFn& onRecord, uint64_t& overruns);

private:
    int fd_ = -1;
    std::vector<char> buffer_;
};

}  // namespace Engine
