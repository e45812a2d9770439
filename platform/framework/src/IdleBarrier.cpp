#include "framework/IdleBarrier.h"

#include <chrono>

#include "framework/Task.h"

namespace Framework {

void IdleBarrier::State::Reach() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        reached_ = true;
    }
    cv_.notify_all();
}

bool IdleBarrier::State::WaitFor(int timeoutMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return reached_; });
}

int IdleBarrier::MessageHandle(void* task) {
    // Work the task gathered from the messages before this one is part of what it handled.
    if (task != nullptr) static_cast<Task*>(task)->OnBatchEnd();
    state_->Reach();
    return 0;
}

IdleBarrier::~IdleBarrier() = default;

}  // namespace Framework
