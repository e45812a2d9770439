#pragma once

#include <cstdint>
#include <string>

#include "framework/Message.h"

namespace Engine {

/// One inotify event for a requester of "filenotify_task", delivered to the receiving task's
/// AbstractMessageReceiver::FileNotifyMessageAction.
class FileNotifyMessage : public Framework::Message {
public:
    /// path: the watched path, plus "/" and the child's name when the event names a child.
    FileNotifyMessage(const std::string& path, uint32_t mask, uint64_t extParm);
    ~FileNotifyMessage() override;

    int MessageHandle(void* task) override;

    std::string GetEventFilePath() { return path_; }
    uint32_t GetEventMask() const { return mask_; }
    uint64_t GetExtParm() const { return extParm_; }
    /// The watched path the event came from (without a child name).
    const std::string& GetWatchPath() const { return watchPath_; }
    void SetWatchPath(const std::string& watchPath) { watchPath_ = watchPath; }

private:
    std::string path_;
    uint32_t mask_;
    uint64_t extParm_;
    std::string watchPath_;
};

}  // namespace Engine
