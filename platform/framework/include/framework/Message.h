#pragma once

#include <string>

namespace Framework {

/// Base of every message between tasks. A sender allocates it with new and hands it to
/// Task::SendDirectMsg, which takes ownership; the receiving task's thread calls MessageHandle
/// with the receiving task (a Framework::Task*, passed untyped) to deliver it.
class Message {
public:
    Message();
    virtual ~Message();
    /// Delivers the message to `task`; the result is the receiver's, -1 when it has none.
    virtual int MessageHandle(void* task) = 0;

    /// Readable type name (demangled), for logs about this message.
    std::string TypeName() const;
};

}  // namespace Framework
