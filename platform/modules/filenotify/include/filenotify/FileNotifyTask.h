#pragma once

#include <memory>
#include <vector>

#include "engine/AbstructMessage.h"
#include "filenotify/FileNotifyWatchMessage.h"
#include "filenotify/WatchTable.h"
#include "framework/Task.h"

namespace Engine {

/// "filenotify_task": keeps the path watches other tasks request with FileNotifyWatchMessage
/// and sends each requester a FileNotifyMessage per event of its watches.
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
    int Run() override;
    /// Add or remove request; the requester is the sending task's name.
    int Receive(const FileNotifyWatchMessage& msg) override;

private:
    void OnReadable();
    void Send(std::vector<WatchNotification>& notifications);

    std::unique_ptr<WatchTable> table_;
};

}  // namespace Engine
