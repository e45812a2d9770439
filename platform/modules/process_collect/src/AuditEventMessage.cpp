#include "process_collect/AuditEventMessage.h"

namespace Engine {

AuditEventMessage::AuditEventMessage() : syscall(std::make_shared<AuditLogSyscall>()) {}
AuditEventMessage::~AuditEventMessage() = default;

}  // namespace Engine
