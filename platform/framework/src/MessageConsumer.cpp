#include "framework/MessageConsumer.h"

namespace Framework {

// Many producers (any task), one consumer (the owning task's thread).
MessageConsumer::MessageConsumer(unsigned int capacity) : queue_(capacity, false, true) {}

MessageConsumer::~MessageConsumer() = default;

}  // namespace Framework
