#pragma once

#include "engine/AbstructMessage.h"

namespace Engine {

/// Subscribes `task` to container notifications of "container_collect_task" (subscribe true;
/// a start notification is replayed for every container already running) or withdraws it.
class ContainerRegisterMessage : public AbstructMessage<ContainerRegisterMessage> {
public:
    ContainerRegisterMessage(Framework::Task* task, bool subscribe, bool option);
    ~ContainerRegisterMessage() override;

    Framework::Task* task = nullptr;  ///< the subscriber
    bool subscribe = false;           ///< true subscribes, false withdraws
    bool option = false;              ///< true: no replay of running containers on subscribe
};

}  // namespace Engine
