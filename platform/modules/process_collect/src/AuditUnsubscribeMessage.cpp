#include "process_collect/AuditUnsubscribeMessage.h"

namespace Engine {

AuditUnsubscribeMessage::AuditUnsubscribeMessage(Framework::Task* from)
    : AbstructMessage<AuditUnsubscribeMessage>(from),
      task(from),
      taskName(from != nullptr ? from->name() : std::string()) {}
AuditUnsubscribeMessage::~AuditUnsubscribeMessage() = default;

}  // namespace Engine
