#pragma once

#include "container/DockerDocuments.h"
#include "engine/AbstructMessage.h"

namespace Engine {

/// An engine event handed from the event-stream thread to "container_collect_task"'s own
/// queue, so that the stream never waits for an inspect call.
class ContainerEventMessage : public AbstructMessage<ContainerEventMessage> {
public:
    explicit ContainerEventMessage(const ContainerEvent& e);
    ~ContainerEventMessage() override;

    ContainerEvent event;
};

}  // namespace Engine
