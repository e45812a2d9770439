#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>

#include "framework/Message.h"

namespace Framework {

/// A message that does nothing but say it was reached: queued behind everything else, it tells
/// whoever waits on it that the task has handled every message queued before it. Tests and
/// shutdown code wait on this instead of on log lines or sleeps.
class IdleBarrier : public Message {
public:
    /// What the barrier and its waiter share: the waiter may give up before the task reaches it.
    class State {
    public:
        void Reach();
        bool WaitFor(int timeoutMs);

    private:
        std::mutex mutex_;  // guards reached_
        std::condition_variable cv_;
        bool reached_ = false;
    };

    IdleBarrier() : state_(std::make_shared<State>()) {}
    std::shared_ptr<State> GetState() const { return state_; }
    int MessageHandle(void*) override;
    ~IdleBarrier() override;

private:
    std::shared_ptr<State> state_;
};

}  // namespace Framework
