#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "process_collect/AuditRecord.h"

namespace Engine {

/// The records of one syscall event (same serial), SYSCALL first.
struct JoinedAuditEvent {
    uint64_t serial = 0;
    std::vector<AuditRecord> records;
    bool complete = false;  ///< ended by its EOE record (false: flushed as stale or evicted)
};

/// Joins the records of one syscall event (SYSCALL, CWD, PATH..., PROCTITLE, EOE) into one
/// JoinedAuditEvent. Records of several events may interleave. Only a SYSCALL record opens an
/// event, and only when `want` accepts it, so records of unwanted events cost nothing. Memory is
/// bounded: at most maxPending open events (the oldest is pushed out early) and maxRecords
/// records per event. Plain class without fds or threads; one thread at a time.
class AuditEventJoiner {
public:
    using Filter = std::function<bool(const AuditRecord& syscallRecord)>;

    AuditEventJoiner(std::size_t maxPending, std::size_t maxRecords, uint64_t staleMs,
                     Filter want = Filter());

    /// Takes one record; events it completes (or pushes out) are appended to `out`.
    void Add(AuditRecord record, uint64_t nowMs, std::vector<JoinedAuditEvent>& out);
    /// Hands out events that saw no record for staleMs (their EOE was lost).
    void FlushStale(uint64_t nowMs, std::vector<JoinedAuditEvent>& out);

    std::size_t Pending() const { return pending_.size(); }
    /// Events pushed out before their end because too many were open.
    uint64_t Evicted() const { return evicted_; }
    /// Records dropped because their event already held maxRecords.
    uint64_t DroppedRecords() const { return droppedRecords_; }

private:
    struct OpenEvent {
        JoinedAuditEvent event;
        uint64_t lastMs = 0;
    };

    std::size_t maxPending_;
    std::size_t maxRecords_;
    uint64_t staleMs_;
    Filter want_;
    std::map<uint64_t, OpenEvent>
        pending_;  // serial -> open event; serials grow, so begin() is oldest
    uint64_t evicted_ = 0;
    uint64_t droppedRecords_ = 0;
};

}  // namespace Engine
