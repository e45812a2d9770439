#include "process_collect/AuditEventJoiner.h"

#include <utility>

namespace Engine {

namespace {
bool IsEventRecord(int type) {
    return type == AuditRecordType::kPath || type == AuditRecordType::kCwd ||
           type == AuditRecordType::kProctitle || type == AuditRecordType::kOpenat2;
}
}  // namespace

AuditEventJoiner::AuditEventJoiner(std::size_t maxPending, std::size_t maxRecords, uint64_t staleMs,
                                   Filter want)
    : maxPending_(maxPending == 0 ? 1 : maxPending),
      maxRecords_(maxRecords == 0 ? 1 : maxRecords),
      staleMs_(staleMs),
      want_(std::move(want)) {}

void AuditEventJoiner::Add(AuditRecord record, uint64_t nowMs, std::vector<JoinedAuditEvent>& out) {
    if (record.type == AuditRecordType::kSyscall) {
        if (want_ && !want_(record)) return;
        if (pending_.count(record.serial) != 0) return;  // a second SYSCALL for a serial is bogus
        if (pending_.size() >= maxPending_) {
            auto oldest = pending_.begin();
            out.push_back(std::move(oldest->second.event));
            pending_.erase(oldest);
            ++evicted_;
        }
        OpenEvent& slot = pending_[record.serial];
        slot.event.serial = record.serial;
        slot.lastMs = nowMs;
        slot.event.records.push_back(std::move(record));
        return;
    }
    auto it = pending_.find(record.serial);
    if (it == pending_.end()) return;  // not an event we follow
    if (record.type == AuditRecordType::kEoe) {
        it->second.event.complete = true;
        out.push_back(std::move(it->second.event));
        pending_.erase(it);
        return;
    }
    if (!IsEventRecord(record.type)) return;
    it->second.lastMs = nowMs;
    if (it->second.event.records.size() >= maxRecords_) {
        ++droppedRecords_;
        return;
    }
    it->second.event.records.push_back(std::move(record));
}

void AuditEventJoiner::FlushStale(uint64_t nowMs, std::vector<JoinedAuditEvent>& out) {
    for (auto it = pending_.begin(); it != pending_.end();) {
        if (nowMs - it->second.lastMs < staleMs_) {
            ++it;
            continue;
        }
        out.push_back(std::move(it->second.event));
        it = pending_.erase(it);
    }
}

}  // namespace Engine
