#pragma once

#include <string>

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
    /// `task`'s name, taken at construction: an unsubscribing task is released right after it
    /// sends this, so the receiver must not reach through the pointer.
    std::string taskName;
};

}  // namespace Engine
