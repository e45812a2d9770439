#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "engine/AbstructMessage.h"
#include "filenotify/FairQueue.h"
#include "filenotify/FileNotifyWatchMessage.h"
#include "filenotify/WatchTable.h"
#include "framework/Task.h"

namespace Engine {

/// "filenotify_task": keeps the path watches other tasks request with FileNotifyWatchMessage
/// and sends each requester a FileNotifyMessage per event of its watches.
///
/// Events wait in a fair queue, one line per (requester, extra parameter), that is per
/// container, and go out round-robin while the requester has fewer than kHighWater messages
/// waiting and no task's queue is more than half full (the requester's alarms go on to the
/// reporting task, whose queue must not overflow either): a container writing its protected file as
/// fast as it can neither fills the requester's queue nor puts another container's events behind
/// its own. When the fair queue is full the task stops reading inotify, so further events wait in
/// the kernel (an overflow there is resynchronised and counted); a container beyond its share loses
/// events, counted. Reads that come back to back (a storm) pause reading for a millisecond, so
/// that the events gather in the kernel and one wake-up carries many of them.
///
/// Unlike the audit service, reading stays on the task thread on purpose: what follows a read is a
/// table lookup, the per-container share can only be applied once an event is decoded, and
/// leaving excess events in the kernel (overflow resynchronised) is the back-pressure; a reader
/// thread in front would have to drop a storm's events without regard to whose they are.
///
/// Init (control thread) opens the inotify instance and adds it to the task's event waiter;
/// everything else runs on the task thread. UnInit closes the instance, which drops every
/// kernel watch.
class FileNotifyTask : public Framework::Task,
                       public AbstructMessage<FileNotifyWatchMessage>::Receiver {
public:
    static constexpr const char* kTaskName = "filenotify_task";

    FileNotifyTask();

    int Init() override;
    void UnInit() override;
    /// Add or remove request; the requester is the sending task's name.
    int Receive(const FileNotifyWatchMessage& msg) override;

    /// Messages of this task a requester may have waiting before it holds back.
    static constexpr long kHighWater = 32;

protected:
    /// At once while events wait, otherwise the idle wait.
    int NextWaitMs() override;
    /// Retries due watches, offers waiting events, publishes coverage.
    void OnTurn(uint64_t nowMs) override;

private:
    // Publishes the watch counts and the containers they cover as gauges.
    static void PublishCoverage(const WatchTable::Coverage& coverage);
    using Source = std::pair<std::string, uint64_t>;  // (requester, extra parameter)

    void OnReadable();
    void Queue(std::vector<WatchNotification>& notifications);
    void Dispatch();
    bool Offer(WatchNotification& notification);
    // Reads inotify unless the fair queue is full or a storm's events are gathering.
    void UpdateReading();

    std::unique_ptr<WatchTable> table_;
    FairQueue<Source, WatchNotification> pending_;
    bool reading_ = true;  // the inotify descriptor is in the event waiter
    bool backlogFull_ = false;
    bool gathering_ = false;
    uint64_t lastReadMs_ = 0;
    uint64_t resumeReadingAtMs_ = 0;
    uint64_t publishedAtMs_ = 0;
};

}  // namespace Engine
