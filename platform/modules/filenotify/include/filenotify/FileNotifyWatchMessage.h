#pragma once

#include <string>
#include <vector>

#include "engine/AbstructMessage.h"
#include "filenotify/FileNotifyOpt.h"

namespace Engine {

/// Add or remove request for a watch of "filenotify_task". The sender is the requester: its
/// events come back to it as FileNotifyMessage carrying options.extParm.
class FileNotifyWatchMessage : public AbstructMessage<FileNotifyWatchMessage> {
public:
    /// Add: watch `path` for the OR of `masks` with `options`.
    FileNotifyWatchMessage(Framework::Task* sender, const std::string& path,
                           std::vector<unsigned int> masks, const _FileNotifyOpt& options);
    /// add false: remove the sender's watch on `path` (true is an add with no masks).
    FileNotifyWatchMessage(Framework::Task* sender, const std::string& path, bool add);
    ~FileNotifyWatchMessage() override;

    std::string path;
    /// The sender's task name, taken when the request is built: the sender may be gone by the
    /// time the request is handled, so `sender` must not be followed then.
    std::string requester;
    std::vector<unsigned int> masks;
    _FileNotifyOpt options;
    bool add = true;
};

}  // namespace Engine
