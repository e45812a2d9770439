#pragma once

#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "process_collect/AuditEventSocket.h"
#include "sdk/UniqueFd.h"

namespace Engine {

/// Reads the kernel's audit records on a thread of its own and keeps them, in order, until the
/// audit task takes them: the socket is drained as fast as the kernel fills it, whatever the
/// joining, path resolution and delivery behind it cost, so the kernel does not drop records
/// because the agent was busy. Only the record types the audit task uses are kept. Bounded: a
/// record beyond `maxRecords` waiting is dropped and counted ("audit.records.dropped"); the
/// kernel's own drops are counted as "audit.socket_overrun".
///
/// Start and Stop on the control thread; WakeFd and Take on the consumer's thread.
class AuditReader {
public:
    struct Record {
        int type = 0;
        std::string text;
    };

    explicit AuditReader(std::size_t maxRecords);
    ~AuditReader();
    AuditReader(const AuditReader&) = delete;
    AuditReader& operator=(const AuditReader&) = delete;

    /// Opens the socket with a receive buffer of `receiveBuffer` bytes and starts reading.
    bool Start(int receiveBuffer, std::string& error);
    /// Stops the thread and closes the socket; records not taken are dropped.
    void Stop();
    bool IsRunning() const { return thread_.joinable(); }

    /// Readable while records wait: for the consumer's event waiter.
    int WakeFd() const { return wake_.Get(); }
    /// Appends up to `max` waiting records, oldest first, to `out`; returns how many.
    std::size_t Take(std::vector<Record>& out, std::size_t max);

    /// The record types the audit task joins into events; the rest is not kept.
    static bool Wanted(int type);

private:
    void Loop();
    void Keep(std::vector<Record>& batch);
    void Signal(int fd);

    std::size_t maxRecords_;
    AuditEventSocket socket_;
    SDK::UniqueFd wake_;  // eventfd: records wait
    SDK::UniqueFd stop_;  // eventfd: the thread is to end
    std::mutex mutex_;    // guards waiting_
    std::deque<Record> waiting_;
    std::thread thread_;
};

}  // namespace Engine
