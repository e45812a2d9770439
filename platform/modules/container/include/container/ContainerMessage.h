#pragma once

#include <memory>

#include "container/ContainerInfo.h"
#include "engine/AbstructMessage.h"

namespace Engine {

/// A container start (info->running true) or exit (false) notification from
/// "container_collect_task" to a subscriber.
class ContainerMessage : public AbstructMessage<ContainerMessage> {
public:
    explicit ContainerMessage(std::shared_ptr<ContainerInfo> info);
    ~ContainerMessage() override;

    std::shared_ptr<ContainerInfo> containerInfo;
};

}  // namespace Engine
