#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "engine/AbstructMessage.h"
#include "framework/Outbox.h"
#include "framework/Task.h"
#include "process_collect/AuditEventJoiner.h"
#include "process_collect/AuditFileSystemCtrlMessage.h"
#include "process_collect/AuditReader.h"
#include "process_collect/AuditRuleClient.h"
#include "process_collect/AuditRuleLedger.h"
#include "process_collect/AuditUnsubscribeMessage.h"
#include "process_collect/CloseWriteWatcher.h"
#include "process_collect/EventSettler.h"
#include "sdk/ContainerRoot.h"

namespace Poco {
class Logger;
}

namespace Engine {

/// "audit_task": kernel audit watch rules on behalf of other tasks, and their events.
///
/// An AuditFileSystemCtrlMessage "-w" adds a watch rule and makes its sender the subscriber of
/// the rule's key, "-W" deletes it; AuditUnsubscribeMessage deletes every rule of a subscriber.
/// Events are read from the read-only multicast audit group by an AuditReader on a thread of
/// its own (so the kernel never waits on what follows), then, on the task thread, joined per
/// serial, turned into AuditEventMessages with host paths and sent to the key's subscriber; writes
/// are held until the writer closed the file (fanotify) or, failing that, the file has settled.
/// Paths are resolved inside the watched root as the container sees them. Rules removed behind the
/// agent's back are added again. Init (control thread) sets audit up and deletes the rules an
/// earlier run left (remembered in a ledger file, so no other tool's rules are touched); UnInit
/// (control thread, after the task thread ended) deletes every rule the task added. Everything
/// else runs on the task thread.
class AuditTask : public Framework::Task,
                  public AbstructMessage<AuditFileSystemCtrlMessage>::Receiver,
                  public AbstructMessage<AuditUnsubscribeMessage>::Receiver {
public:
    static constexpr const char* kTaskName = "audit_task";
    /// Key prefix of the container rules: what follows is the container's id.
    static constexpr const char* kContainerKeyPrefix = "cid:";

    AuditTask();

    int Init() override;
    void UnInit() override;

    int Receive(const AuditFileSystemCtrlMessage& msg) override;
    int Receive(const AuditUnsubscribeMessage& msg) override;

protected:
    ~AuditTask() override;
    /// Soon while events wait for busy subscribers or writes wait to settle.
    int NextWaitMs() override;
    /// Settles held writes, flushes stale joins, polls the kernel's lost counter and checks
    /// that the rules are still in place.
    void OnTurn(uint64_t nowMs) override;

private:
    struct RuleEntry {
        AuditWatchRule rule;
        std::string subscriber;  // task name: the task may go away, its name stays safe to use
        std::shared_ptr<SDK::ContainerRoot> root;  // the watched directory, for path lookups
        bool closeMarked = false;                  // its file system is under the close-write watch
    };

    void SetUpAudit();
    void DeleteLeftoverRules();
    void SaveLedger();
    void VerifyRules();
    void OnRecordsWaiting();
    void OnClosesReadable();
    void CaptureWriters(const AuditLogSyscall& syscall, const std::string& key) const;
    const RuleEntry* EntryOf(const std::string& key) const;
    void OnRecord(int type, const char* text, std::size_t len);
    void HandleJoined(std::vector<JoinedAuditEvent>& events);
    void PollLostCounter();
    // Publishes whether audit works (events read, control answering), the rules in place and
    // the containers they cover, as gauges.
    void PublishGauges() const;
    void Deliver(std::unique_ptr<AuditEventMessage> event);
    void DeliverAll(std::vector<EventSettler::EventPtr>& events);
    void AddRule(const AuditFileSystemCtrlMessage& msg);
    void DeleteRule(const AuditFileSystemCtrlMessage& msg);
    void DeleteEntry(const RuleEntry& entry);
    bool IsOwnedKey(const std::string& key) const;
    std::vector<std::string> RootsOf(const std::string& key) const;

    Poco::Logger* logger_ = nullptr;
    AuditRuleClient client_;
    AuditReader reader_;
    CloseWriteWatcher closes_;
    // Events for subscribers whose queues are full wait here: the task keeps reading the
    // kernel meanwhile, so records are never lost because a consumer is slow.
    std::unique_ptr<Framework::Outbox> outbox_;
    std::unique_ptr<AuditRuleLedger> ledger_;
    std::unique_ptr<AuditEventJoiner> joiner_;
    std::unique_ptr<EventSettler> settler_;
    std::vector<RuleEntry> rules_;  // task thread, or control thread once the task thread ended
    uint32_t lastLost_ = 0;
    bool lostKnown_ = false;
    bool statusAnswered_ = false;  // the last status request got an answer
    uint64_t lastLostPollMs_ = 0;
    uint64_t lastFlushMs_ = 0;
    uint64_t lostPollMs_ = 1000;
    uint64_t lastRuleCheckMs_ = 0;
    uint64_t ruleCheckMs_ = 1000;
};

}  // namespace Engine
