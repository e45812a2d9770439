#pragma once

#include <memory>

#include "framework/Message.h"
#include "sdk/LocklessQueue.h"

namespace Framework {

/// The inbound message queue of one task: many producers (any thread), one consumer (the
/// task's own thread). Destroying it releases every message still queued.
class MessageConsumer {
public:
    using Queue = SDK::LocklessQueue<std::shared_ptr<Message>>;

    explicit MessageConsumer(unsigned int capacity);
    virtual ~MessageConsumer();

    Queue& GetQueue() { return queue_; }
    const Queue& GetQueue() const { return queue_; }

private:
    Queue queue_;
};

}  // namespace Framework
