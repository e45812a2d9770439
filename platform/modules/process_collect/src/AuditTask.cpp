#include "process_collect/AuditTask.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>

#include "framework/ContainerRegistry.h"
#include "framework/DegradedCounter.h"
#include "framework/Gauges.h"
#include "framework/TaskCondition.h"
#include "process_collect/AuditEventBuilder.h"
#include "process_collect/AuditPathResolver.h"
#include "process_collect/AuditRecordParser.h"
#include "sdk/ConfigUtils.h"
#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

namespace {
constexpr unsigned int kQueueCapacity = 4096;
constexpr int kBatch = 128;
constexpr int kIdleWaitMs = 200;
constexpr int kSettlePollMs = 20;
constexpr int kReceiveBuffer = 8 * 1024 * 1024;
// Records read but not yet joined (a few hundred bytes each), and how many a turn takes.
constexpr std::size_t kMaxWaitingRecords = 65536;
constexpr std::size_t kRecordsPerTurn = 1024;
constexpr std::size_t kMaxPendingEvents = 1024;
constexpr std::size_t kMaxRecordsPerEvent = 64;
constexpr uint64_t kStaleEventMs = 2000;
constexpr std::size_t kMaxHeldWrites = 4096;
constexpr std::size_t kMaxWaitingEvents = 16384;
constexpr int kOutboxRetryMs = 2;
constexpr uint64_t kLogIntervalMs = 5000;
constexpr int64_t kDefaultSettleMs = 300;
constexpr int64_t kDefaultMaxDelayMs = 5000;
constexpr int64_t kDefaultBacklog = 8192;
constexpr int64_t kDefaultLostPollMs = 1000;
constexpr int64_t kDefaultRuleCheckMs = 1000;
constexpr const char* kDefaultLedger = "/var/lib/tarnwick/audit-rules.json";

Framework::DegradedCounter gLost("audit.lost", kLogIntervalMs);
Framework::DegradedCounter gMalformed("audit.records.malformed", kLogIntervalMs);
Framework::DegradedCounter gEvicted("audit.events.evicted");
Framework::DegradedCounter gPathless("audit.events.pathless");
Framework::DegradedCounter gSettleOverflow("audit.settle.overflow");
Framework::DegradedCounter gRejected("audit.rules.rejected", 0);
// Every restored rule is told: it means someone removes the agent's rules.
Framework::DegradedCounter gRestored("audit.rules.restored", 0);
Framework::DegradedCounter gRuleTrouble("audit.rules.failed", kLogIntervalMs);
Framework::DegradedCounter gUnresolved("audit.events.unresolved");
Framework::DegradedCounter gVanished("audit.settle.vanished");
Framework::DegradedCounter gCloseOverflow("audit.close_events.overflow", kLogIntervalMs);
Framework::DegradedCounter gUndelivered("audit.deliver.dropped", 0);

int64_t Setting(const std::string& key, int64_t def, int64_t minimum) {
    const int64_t value = SDK::ConfigUtils::GetInt(key, def);
    return value < minimum ? def : value;
}

bool IsDirectory(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string RuleText(const AuditWatchRule& rule) {
    return "-w " + rule.path + " -p " + rule.perms + " -k " + rule.key;
}
}  // namespace

AuditTask::AuditTask()
    : Framework::Task(kTaskName, "process_collect", Framework::TaskCondition::TASK_TYPE_MESSAGE,
                      kQueueCapacity),
      reader_(kMaxWaitingRecords) {
    LoopSettings loop;
    loop.waitMs = kIdleWaitMs;
    loop.batch = kBatch;
    SetLoopSettings(loop);
}

AuditTask::~AuditTask() = default;

int AuditTask::Init() {
    logger_ = SDK::LoggerUtils::GetInstance()->GetModuleLogger("process_collect_module", true);
    const uint64_t settleMs =
        static_cast<uint64_t>(Setting("audit.settle_ms", kDefaultSettleMs, 0));
    const uint64_t maxDelayMs =
        static_cast<uint64_t>(Setting("audit.max_delay_ms", kDefaultMaxDelayMs, 0));
    lostPollMs_ = static_cast<uint64_t>(Setting("audit.lost_poll_ms", kDefaultLostPollMs, 10));
    ruleCheckMs_ = static_cast<uint64_t>(Setting("audit.rule_check_ms", kDefaultRuleCheckMs, 100));
    ledger_.reset(
        new AuditRuleLedger(SDK::ConfigUtils::GetString("audit.state_file", kDefaultLedger)));
    settler_.reset(new EventSettler(settleMs, maxDelayMs, kMaxHeldWrites, EventSettler::StatFn()));
    outbox_.reset(new Framework::Outbox(*this, kMaxWaitingEvents, "audit.deliver"));
    joiner_.reset(new AuditEventJoiner(kMaxPendingEvents, kMaxRecordsPerEvent, kStaleEventMs,
                                       [this](const AuditRecord& record) {
                                           for (const auto& key : AuditEventBuilder::Keys(record)) {
                                               if (IsOwnedKey(key)) return true;
                                           }
                                           return false;
                                       }));
    SetUpAudit();
    std::string error;
    if (!reader_.Start(kReceiveBuffer, error)) {
        TW_LOG(logger_, PRIO_ERROR, "Audit task cannot read audit events: %s", error);
    } else {
        GetEventWaiter().AddFd(reader_.WakeFd(), [this](int, uint32_t) { OnRecordsWaiting(); });
    }
    if (!closes_.Open(error)) {
        TW_LOG(logger_, PRIO_WARNING,
               "Audit task cannot see writers close files (%s); writes are delivered after a "
               "quiet period instead",
               error);
    } else {
        GetEventWaiter().AddFd(closes_.Fd(), [this](int, uint32_t) { OnClosesReadable(); });
    }
    TW_LOG(logger_, PRIO_INFORMATION, "Audit task started (settle %lu ms, max delay %lu ms)",
           static_cast<unsigned long>(settleMs), static_cast<unsigned long>(maxDelayMs));
    return Framework::Task::Init();
}

void AuditTask::SetUpAudit() {
    std::string error;
    if (!client_.Open(error)) {
        TW_LOG(logger_, PRIO_ERROR, "Audit task cannot control audit, rules will fail: %s", error);
        return;
    }
    AuditRuleClient::Status status;
    if (!client_.GetStatus(status, error)) {
        TW_LOG(logger_, PRIO_ERROR, "Audit task cannot read the audit status: %s", error);
        return;
    }
    if (status.enabled == 0) {
        if (client_.SetEnabled(1, error)) {
            // The kernel gives a process its audit context when it forks: one forked while
            // audit had never been on since boot is not audited, ever.
            TW_LOG(logger_, PRIO_WARNING,
                   "Audit was disabled in the kernel; audit task enabled it. Processes started "
                   "while it was off (containers too) may not be audited until they restart: "
                   "boot with audit=1 to close that gap");
        } else {
            TW_LOG(logger_, PRIO_ERROR, "Audit is disabled and could not be enabled: %s", error);
        }
    } else if (status.enabled == 2) {
        TW_LOG(logger_, PRIO_WARNING, "Audit configuration is locked; rules cannot be changed");
    }
    const int64_t backlog = Setting("audit.backlog", kDefaultBacklog, 1);
    if (static_cast<int64_t>(status.backlogLimit) < backlog) {
        if (client_.SetBacklogLimit(static_cast<uint32_t>(backlog), error)) {
            TW_LOG(logger_, PRIO_INFORMATION, "Audit backlog limit raised from %u to %u",
                   static_cast<unsigned int>(status.backlogLimit),
                   static_cast<unsigned int>(backlog));
        } else {
            TW_LOG(logger_, PRIO_WARNING, "Audit backlog limit stays %u: %s",
                   static_cast<unsigned int>(status.backlogLimit), error);
        }
    }
    lastLost_ = status.lost;
    lostKnown_ = true;
    DeleteLeftoverRules();
}

void AuditTask::DeleteLeftoverRules() {
    std::vector<AuditWatchRule> leftovers;
    std::string error;
    if (!ledger_->Load(leftovers, error)) {
        TW_LOG(logger_, PRIO_WARNING, "Audit task cannot read the rules of an earlier run: %s",
               error);
        return;
    }
    int deleted = 0;
    for (const auto& rule : leftovers) {
        if (client_.DeleteWatch(rule) == 0) ++deleted;
    }
    if (!leftovers.empty()) {
        TW_LOG(logger_, PRIO_INFORMATION,
               "Audit task deleted %d of the %z watch rules an earlier run left in %s", deleted,
               leftovers.size(), ledger_->Path());
    }
    SaveLedger();
}

void AuditTask::SaveLedger() {
    if (!ledger_) return;
    std::vector<AuditWatchRule> rules;
    for (const auto& entry : rules_) rules.push_back(entry.rule);
    std::string error;
    if (!ledger_->Save(rules, error)) {
        TW_DEGRADED(gRuleTrouble, 1, logger_, PRIO_WARNING,
                    "Audit task cannot remember its rules (a restart would leave them): %s", error);
    }
}

void AuditTask::UnInit() {
    std::vector<EventSettler::EventPtr> held;
    if (settler_) settler_->ReleaseAll(held);
    DeliverAll(held);
    if (outbox_ && outbox_->Flush() > 0) {
        TW_DEGRADED(gUndelivered, outbox_->Held(), logger_, PRIO_WARNING,
                    "Audit task stops with %z events its subscribers never took", outbox_->Held());
    }
    for (const auto& entry : rules_) DeleteEntry(entry);
    rules_.clear();
    SaveLedger();
    if (closes_.IsOpen()) GetEventWaiter().RemoveFd(closes_.Fd());
    if (reader_.IsRunning()) GetEventWaiter().RemoveFd(reader_.WakeFd());
    reader_.Stop();
    client_.Close();
    Framework::Gauges::Instance().Erase(Framework::GaugeNames::kAuditAvailable);
    Framework::Gauges::Instance().Erase(Framework::GaugeNames::kAuditRules);
    Framework::Gauges::Instance().SetContainers(kTaskName, {});
    TW_LOG(logger_, PRIO_INFORMATION, "Audit task stopped");
    Framework::Task::UnInit();
}

int AuditTask::NextWaitMs() {
    // Events held for busy subscribers are offered again soon; held writes settle by time.
    if (outbox_->Flush() > 0) return kOutboxRetryMs;
    return settler_->Held() > 0 ? kSettlePollMs : kIdleWaitMs;
}

void AuditTask::OnTurn(uint64_t nowMs) {
    std::vector<EventSettler::EventPtr> ready;
    const uint64_t vanishedBefore = settler_->Vanished();
    settler_->Poll(nowMs, ready);
    gVanished.Add(settler_->Vanished() - vanishedBefore);
    DeliverAll(ready);
    if (nowMs - lastFlushMs_ >= kStaleEventMs / 2) {
        lastFlushMs_ = nowMs;
        std::vector<JoinedAuditEvent> stale;
        joiner_->FlushStale(nowMs, stale);
        HandleJoined(stale);
    }
    if (nowMs - lastLostPollMs_ >= lostPollMs_) {
        lastLostPollMs_ = nowMs;
        PollLostCounter();
        PublishGauges();
    }
    if (nowMs - lastRuleCheckMs_ >= ruleCheckMs_) {
        lastRuleCheckMs_ = nowMs;
        VerifyRules();
    }
}

void AuditTask::VerifyRules() {
    if (rules_.empty() || !client_.IsOpen()) return;
    std::vector<AuditWatchRule> present;
    std::string error;
    if (!client_.ListWatches("", present, error)) return;
    for (const auto& entry : rules_) {
        bool found = false;
        for (const auto& rule : present) found = found || rule.SameRule(entry.rule);
        if (found) continue;
        // A root that is gone belongs to a container on its way out: its exit will follow.
        struct stat st {};
        if (::stat(entry.rule.path.c_str(), &st) != 0) continue;
        const int rc = client_.AddWatch(entry.rule);
        if (rc != 0 && rc != -EEXIST) {
            TW_DEGRADED(gRuleTrouble, 1, logger_, PRIO_WARNING,
                        "Audit rule %s is gone and cannot be added again: %s", RuleText(entry.rule),
                        std::string(std::strerror(-rc)));
            continue;
        }
        TW_DEGRADED(gRestored, 1, logger_, PRIO_WARNING,
                    "Audit rule %s was removed behind the agent's back; added again",
                    RuleText(entry.rule));
    }
}

void AuditTask::PollLostCounter() {
    statusAnswered_ = false;
    if (!client_.IsOpen()) return;
    AuditRuleClient::Status status;
    std::string error;
    if (!client_.GetStatus(status, error)) return;
    statusAnswered_ = true;
    if (lostKnown_ && status.lost > lastLost_) {
        const uint32_t lost = status.lost - lastLost_;
        TW_DEGRADED(gLost, lost, logger_, PRIO_WARNING,
                    "Audit kernel lost %u records (lost counter now %u)",
                    static_cast<unsigned int>(lost), static_cast<unsigned int>(status.lost));
    }
    lastLost_ = status.lost;
    lostKnown_ = true;
}

void AuditTask::PublishGauges() const {
    std::set<std::string> containers;
    for (const auto& entry : rules_) {
        Framework::ContainerRegistry::Entry container;
        if (Framework::ContainerRegistry::Instance().Find(entry.rule.path, container)) {
            containers.insert(container.id);
        }
    }
    auto& gauges = Framework::Gauges::Instance();
    gauges.Set(Framework::GaugeNames::kAuditAvailable,
               reader_.IsRunning() && statusAnswered_ ? 1 : 0);
    gauges.Set(Framework::GaugeNames::kAuditRules, static_cast<int64_t>(rules_.size()));
    gauges.SetContainers(kTaskName, containers);
}

void AuditTask::OnRecordsWaiting() {
    std::vector<AuditReader::Record> records;
    reader_.Take(records, kRecordsPerTurn);
    for (const auto& record : records)
        OnRecord(record.type, record.text.data(), record.text.size());
}

void AuditTask::OnClosesReadable() {
    std::vector<CloseWriteWatcher::Closed> closed;
    uint64_t overflows = 0;
    closes_.Read(closed, overflows);
    if (overflows > 0) {
        TW_DEGRADED(gCloseOverflow, overflows, logger_, PRIO_WARNING,
                    "Close-write queue overflowed: held writes wait for their quiet period");
    }
    const uint64_t now = NowMs();
    std::vector<EventSettler::EventPtr> ready;
    for (const auto& file : closed) {
        EventSettler::FileState state;
        state.exists = true;
        state.size = file.size;
        state.mtimeNs = file.mtimeNs;
        state.dev = file.dev;
        state.ino = file.ino;
        const std::size_t before = ready.size();
        settler_->Closed(state, now, ready);
        // The writer is still known to the kernel while it closes: remember its container.
        if (ready.size() != before) SDK::ProcessUtils::CaptureProcess(file.pid);
    }
    DeliverAll(ready);
}

void AuditTask::OnRecord(int type, const char* text, std::size_t len) {
    if (rules_.empty()) return;  // nobody subscribed: nothing to join
    AuditRecord record;
    std::string error;
    if (!AuditRecordParser::Parse(type, text, len, record, error)) {
        TW_DEGRADED(gMalformed, 1, logger_, PRIO_WARNING, "Audit record of type %d dropped: %s",
                    type, error);
        return;
    }
    std::vector<JoinedAuditEvent> done;
    const uint64_t evictedBefore = joiner_->Evicted();
    joiner_->Add(std::move(record), NowMs(), done);
    gEvicted.Add(joiner_->Evicted() - evictedBefore);
    HandleJoined(done);
}

void AuditTask::HandleJoined(std::vector<JoinedAuditEvent>& events) {
    const uint64_t now = NowMs();
    for (auto& joined : events) {
        if (joined.records.empty()) continue;
        for (const auto& key : AuditEventBuilder::Keys(joined.records.front())) {
            if (!IsOwnedKey(key)) continue;
            std::unique_ptr<AuditEventMessage> event(new AuditEventMessage());
            event->sender = this;
            event->key = key;
            std::string error;
            if (!AuditEventBuilder::Build(joined, RootsOf(key), *event->syscall, error)) {
                TW_DEGRADED(gMalformed, 1, logger_, PRIO_WARNING, "Audit event %lu dropped: %s",
                            static_cast<unsigned long>(joined.serial), error);
                continue;
            }
            if (event->syscall->paths.empty()) {
                gPathless.Add();
                TW_LOG(logger_, PRIO_DEBUG, "Audit event %lu of key %s names no path",
                       static_cast<unsigned long>(joined.serial), key);
                continue;
            }
            CaptureWriters(*event->syscall, key);
            const RuleEntry* entry = EntryOf(key);
            if (entry != nullptr && entry->root && entry->root->IsOpen()) {
                if (!AuditPathResolver::Resolve(*entry->root, *event->syscall)) {
                    gUnresolved.Add();
                    TW_LOG(logger_, PRIO_DEBUG,
                           "Audit event %lu of key %s names nothing that exists in its root",
                           static_cast<unsigned long>(joined.serial), key);
                    continue;
                }
                event->root = entry->root->Path();
            }
            if (!event->syscall->write) {
                Deliver(std::move(event));
                continue;
            }
            std::vector<EventSettler::EventPtr> early;
            const uint64_t overflowsBefore = settler_->Overflows();
            settler_->Hold(std::move(event), now, early);
            gSettleOverflow.Add(settler_->Overflows() - overflowsBefore);
            DeliverAll(early);
        }
    }
}

void AuditTask::DeliverAll(std::vector<EventSettler::EventPtr>& events) {
    for (auto& event : events) Deliver(std::move(event));
    events.clear();
}

void AuditTask::Deliver(std::unique_ptr<AuditEventMessage> event) {
    if (!event) return;
    std::vector<std::string> subscribers;
    for (const auto& entry : rules_) {
        if (entry.rule.key != event->key) continue;
        if (std::find(subscribers.begin(), subscribers.end(), entry.subscriber) ==
            subscribers.end()) {
            subscribers.push_back(entry.subscriber);
        }
    }
    for (std::size_t i = 0; i < subscribers.size(); ++i) {
        if (i + 1 == subscribers.size()) {
            outbox_->Send(subscribers[i], event.release());
            break;
        }
        auto* copy = new AuditEventMessage();
        copy->sender = this;
        copy->key = event->key;
        copy->root = event->root;
        copy->syscall = std::make_shared<AuditLogSyscall>(*event->syscall);
        outbox_->Send(subscribers[i], copy);
    }
}

void AuditTask::CaptureWriters(const AuditLogSyscall& syscall, const std::string& key) const {
    // A name spelt from the container's root means the writer saw that root as "/": when it has
    // already exited, that container is the best that can be said of it.
    std::string guess;
    if (syscall.containerView && key.compare(0, 4, kContainerKeyPrefix) == 0) {
        guess = key.substr(4);
    }
    const std::string id = SDK::ProcessUtils::CaptureProcess(std::atoi(syscall.pid.c_str()), guess);
    SDK::ProcessUtils::CaptureProcess(std::atoi(syscall.ppid.c_str()));
    TW_LOG(logger_, PRIO_DEBUG, "Audit event %s: writer %s (%s) in container '%s'", syscall.serial,
           syscall.pid, syscall.processName, id);
}

const AuditTask::RuleEntry* AuditTask::EntryOf(const std::string& key) const {
    for (const auto& entry : rules_) {
        if (entry.rule.key == key) return &entry;
    }
    return nullptr;
}

bool AuditTask::IsOwnedKey(const std::string& key) const {
    for (const auto& entry : rules_) {
        if (entry.rule.key == key) return true;
    }
    return false;
}

std::vector<std::string> AuditTask::RootsOf(const std::string& key) const {
    std::vector<std::string> roots;
    for (const auto& entry : rules_) {
        if (entry.rule.key == key) roots.push_back(entry.rule.path);
    }
    return roots;
}

int AuditTask::Receive(const AuditFileSystemCtrlMessage& msg) {
    if (msg.ruleOption == "-w") {
        AddRule(msg);
    } else if (msg.ruleOption == "-W") {
        DeleteRule(msg);
    } else {
        TW_DEGRADED(gRejected, 1, logger_, PRIO_WARNING,
                    "Audit rule request with unknown option '%s' dropped", msg.ruleOption);
    }
    return 0;
}

void AuditTask::AddRule(const AuditFileSystemCtrlMessage& msg) {
    AuditWatchRule rule;
    std::string error;
    if (!AuditWatchRule::Parse(msg.ruleArgument, msg.ruleKey, rule, error)) {
        TW_DEGRADED(gRejected, 1, logger_, PRIO_WARNING, "Audit rule '%s' key '%s' dropped: %s",
                    msg.ruleArgument, msg.ruleKey, error);
        return;
    }
    // The name taken when the request was built: its sender may already be gone.
    const std::string subscriber = msg.requester;
    if (subscriber.empty()) {
        TW_DEGRADED(gRejected, 1, logger_, PRIO_WARNING,
                    "Audit rule %s dropped: request without sender", RuleText(rule));
        return;
    }
    for (auto& entry : rules_) {
        if (!entry.rule.SameRule(rule)) continue;
        entry.subscriber = subscriber;
        TW_LOG(logger_, PRIO_DEBUG, "Audit rule %s already in place", RuleText(rule));
        return;
    }
    rule.directory = IsDirectory(rule.path);
    const int rc = client_.AddWatch(rule);
    if (rc != 0 && rc != -EEXIST) {
        TW_DEGRADED(gRejected, 1, logger_, PRIO_WARNING, "Audit rule %s refused: %s",
                    RuleText(rule), std::string(std::strerror(-rc)));
        return;
    }
    RuleEntry entry{rule, subscriber, nullptr, false};
    if (rule.directory) {
        entry.root = std::make_shared<SDK::ContainerRoot>(rule.path);
        if (closes_.IsOpen()) {
            entry.closeMarked = closes_.Mark(rule.path, error);
            if (!entry.closeMarked) {
                TW_LOG(logger_, PRIO_INFORMATION,
                       "Audit rule %s: writers' closes not visible (%s); writes wait for a quiet "
                       "period",
                       RuleText(rule), error);
            }
        }
    }
    rules_.push_back(entry);
    SaveLedger();
    TW_LOG(logger_, PRIO_INFORMATION, "Audit rule %s added for %s", RuleText(rule), subscriber);
}

void AuditTask::DeleteRule(const AuditFileSystemCtrlMessage& msg) {
    AuditWatchRule rule;
    std::string error;
    if (!AuditWatchRule::Parse(msg.ruleArgument, msg.ruleKey, rule, error)) {
        TW_DEGRADED(gRejected, 1, logger_, PRIO_WARNING,
                    "Audit rule deletion '%s' key '%s' dropped: %s", msg.ruleArgument, msg.ruleKey,
                    error);
        return;
    }
    for (auto it = rules_.begin(); it != rules_.end(); ++it) {
        if (!it->rule.SameRule(rule)) continue;
        const RuleEntry entry = *it;
        rules_.erase(it);
        DeleteEntry(entry);
        SaveLedger();
        return;
    }
    // Not one of ours (or already gone): try both kinds so that nothing lingers.
    rule.directory = true;
    int rc = client_.DeleteWatch(rule);
    if (rc != 0) {
        rule.directory = false;
        rc = client_.DeleteWatch(rule);
    }
    TW_LOG(logger_, PRIO_INFORMATION, "Audit rule %s was not added by this task; deletion %s",
           RuleText(rule), std::string(rc == 0 ? "done" : std::strerror(-rc)));
}

void AuditTask::DeleteEntry(const RuleEntry& entry) {
    if (entry.closeMarked) closes_.Unmark(entry.rule.path);
    const int rc = client_.DeleteWatch(entry.rule);
    if (rc == 0) {
        TW_LOG(logger_, PRIO_INFORMATION, "Audit rule %s deleted", RuleText(entry.rule));
    } else if (rc == -ENOENT) {
        // The kernel drops a directory rule itself when the directory goes away.
        TW_LOG(logger_, PRIO_INFORMATION, "Audit rule %s was already gone", RuleText(entry.rule));
    } else {
        TW_LOG(logger_, PRIO_WARNING, "Audit rule %s could not be deleted: %s",
               RuleText(entry.rule), std::string(std::strerror(-rc)));
    }
}

int AuditTask::Receive(const AuditUnsubscribeMessage& msg) {
    // The name taken when the message was built: the task is released right after sending it.
    const std::string subscriber = msg.taskName;
    if (subscriber.empty()) {
        TW_LOG(logger_, PRIO_WARNING, "Audit unsubscribe without a task dropped");
        return 0;
    }
    std::vector<RuleEntry> removed;
    for (auto it = rules_.begin(); it != rules_.end();) {
        if (it->subscriber != subscriber) {
            ++it;
            continue;
        }
        removed.push_back(*it);
        it = rules_.erase(it);
    }
    for (const auto& entry : removed) DeleteEntry(entry);
    if (!removed.empty()) SaveLedger();
    TW_LOG(logger_, PRIO_INFORMATION, "Audit subscriber %s removed with %z rules", subscriber,
           removed.size());
    return 0;
}

}  // namespace Engine
