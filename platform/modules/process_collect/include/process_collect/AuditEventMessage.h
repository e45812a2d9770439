#pragma once

#include <memory>
#include <string>

#include "engine/AbstructMessage.h"
#include "process_collect/AuditLogSyscall.h"

namespace Engine {

/// One audit event of a watch rule, sent by "audit_task" to the subscriber of the rule's key.
class AuditEventMessage : public AbstructMessage<AuditEventMessage> {
public:
    AuditEventMessage();
    ~AuditEventMessage() override;

    /// Delivers with the file helpers of the utility library confined to `root` (when set), so
    /// that a link the container swaps in after the event was resolved cannot lead the
    /// receiver to a host file.
    int MessageHandle(void* task) override;

    std::string key;                           ///< the rule's key (e.g. "cid:<id>")
    std::shared_ptr<AuditLogSyscall> syscall;  ///< always present
    std::string root;  ///< the watched root the paths lie in (host path), or empty
};

}  // namespace Engine
