#include "container/ContainerMessage.h"

namespace Engine {

ContainerMessage::ContainerMessage(std::shared_ptr<ContainerInfo> info)
    : containerInfo(std::move(info)) {}

ContainerMessage::~ContainerMessage() = default;

}  // namespace Engine
