#include "process_collect/AuditUnsubscribeMessage.h"

namespace Engine {

AuditUnsubscribeMessage::AuditUnsubscribeMessage(Framework::Task* from)
    : AbstructMessage<AuditUnsubscribeMessage>(from), task(from) {}
AuditUnsubscribeMessage::~AuditUnsubscribeMessage() = default;

}  // namespace Engine
