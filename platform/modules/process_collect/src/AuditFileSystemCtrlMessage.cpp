#include "process_collect/AuditFileSystemCtrlMessage.h"

namespace Engine {

AuditFileSystemCtrlMessage::AuditFileSystemCtrlMessage(Framework::Task* from)
    : AbstructMessage<AuditFileSystemCtrlMessage>(from),
      requester(from != nullptr ? from->name() : std::string()) {}
AuditFileSystemCtrlMessage::~AuditFileSystemCtrlMessage() = default;

}  // namespace Engine
