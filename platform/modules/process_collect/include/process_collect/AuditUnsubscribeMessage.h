#pragma once

#include "engine/AbstructMessage.h"

namespace Engine {

/// Withdraws `task`'s audit subscriptions: "audit_task" deletes every rule it added for it.
class AuditUnsubscribeMessage : public AbstructMessage<AuditUnsubscribeMessage> {
public:
    explicit AuditUnsubscribeMessage(Framework::Task* task);
    ~AuditUnsubscribeMessage() override;

    Framework::Task* task = nullptr;
};

}  // namespace Engine
