#include "process_collect/AuditFileSystemCtrlMessage.h"

namespace Engine {

AuditFileSystemCtrlMessage::AuditFileSystemCtrlMessage(Framework::Task* from)
    : AbstructMessage<AuditFileSystemCtrlMessage>(from) {}
AuditFileSystemCtrlMessage::~AuditFileSystemCtrlMessage() = default;

}  // namespace Engine
