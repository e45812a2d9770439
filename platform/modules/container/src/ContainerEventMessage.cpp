#include "container/ContainerEventMessage.h"

namespace Engine {

ContainerEventMessage::ContainerEventMessage(const ContainerEvent& e) : event(e) {}

ContainerEventMessage::~ContainerEventMessage() = default;

}  // namespace Engine
