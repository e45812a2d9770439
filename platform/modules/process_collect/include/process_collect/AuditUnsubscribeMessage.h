#pragma once

#include <string>

#include "engine/AbstructMessage.h"

namespace Engine {

/// Withdraws `task`'s audit subscriptions: "audit_task" deletes every rule it added for it.
class AuditUnsubscribeMessage : public AbstructMessage<AuditUnsubscribeMessage> {
public:
    explicit AuditUnsubscribeMessage(Framework::Task* task);
    ~AuditUnsubscribeMessage() override;

    Framework::Task* task = nullptr;
    /// `task`'s name, taken at construction: the task is released right after it sends this
    /// from its UnInit, so the receiver must not reach through the pointer.
    std::string taskName;
};

}  // namespace Engine
