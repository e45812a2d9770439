#pragma once

#include "framework/Message.h"
#include "framework/Task.h"

namespace Engine {

/// Typed message template: a concrete message M derives from AbstructMessage<M> and adds its
/// fields; a task that wants M implements AbstructMessage<M>::Receiver. (The spelling of the
/// class name is the system's own.)
template <typename T>
class AbstructMessage : public Framework::Message {
public:
    class Receiver {
    public:
        virtual int Receive(const T& msg) = 0;
        virtual ~Receiver() = default;
    };

    AbstructMessage() = default;
    explicit AbstructMessage(Framework::Task* from) : sender(from) {}
    ~AbstructMessage() override = default;

    /// Delivers to the receiving task's Receiver for T; -1 when there is no task or the task
    /// does not implement that receiver.
    int MessageHandle(void* task) override {
        if (task == nullptr) return -1;
        auto* receiver = dynamic_cast<Receiver*>(static_cast<Framework::Task*>(task));
        if (receiver == nullptr) return -1;
        return receiver->Receive(static_cast<const T&>(*this));
    }

    /// The task that sent the message (may be null).
    Framework::Task* sender = nullptr;
};

}  // namespace Engine
