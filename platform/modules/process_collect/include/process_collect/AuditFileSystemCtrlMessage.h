#pragma once

#include <cstdint>
#include <string>

#include "engine/AbstructMessage.h"
#include "filenotify/FileNotifyOpt.h"

namespace Engine {

/// Adds ("-w") or deletes ("-W") a file-system watch rule of "audit_task", in the audit control
/// tool's syntax: ruleArgument is "<path> -p <perms>", ruleKey the rule's key. The sender
/// becomes the subscriber of the key's events. The member order is part of the interface.
class AuditFileSystemCtrlMessage : public AbstructMessage<AuditFileSystemCtrlMessage> {
public:
    explicit AuditFileSystemCtrlMessage(Framework::Task* sender);
    ~AuditFileSystemCtrlMessage() override;

    std::string ruleKey;
    std::string ruleOption;    ///< "-w" add, "-W" delete
    std::string ruleArgument;  ///< "<path> -p <perms>"
    bool flag = false;         ///< reserved
    std::string text;          ///< reserved
    _FileNotifyOpt notifyOpt;  ///< reserved
    int32_t number = 0;        ///< reserved
    /// The sender's task name, taken when the request is built: a sender that stops right
    /// after sending (a shutdown's "-W") may be gone by the time the request is handled.
    std::string requester;
};

}  // namespace Engine
