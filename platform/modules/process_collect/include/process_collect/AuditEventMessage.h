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

    std::string key;                          ///< the rule's key (e.g. "cid:<id>")
    std::shared_ptr<AuditLogSyscall> syscall; ///< always present
};

}  // namespace Engine
