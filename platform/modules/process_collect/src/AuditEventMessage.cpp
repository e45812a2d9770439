#include "process_collect/AuditEventMessage.h"

#include "sdk/RootConfinement.h"

namespace Engine {

AuditEventMessage::AuditEventMessage() : syscall(std::make_shared<AuditLogSyscall>()) {}
AuditEventMessage::~AuditEventMessage() = default;

int AuditEventMessage::MessageHandle(void* task) {
    const SDK::RootConfinement confinement(root);
    return AbstructMessage<AuditEventMessage>::MessageHandle(task);
}

}  // namespace Engine
