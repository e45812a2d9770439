#pragma once

namespace Framework {

/// How a task runs.
class TaskCondition {
public:
    enum TaskType {
        TASK_TYPE_ONCE = 0,      ///< runs its body once
        TASK_TYPE_PERIODIC = 1,  ///< runs its body at an interval
        TASK_TYPE_EVENT = 2,     ///< waits on file descriptors only
        TASK_TYPE_MESSAGE = 3,   ///< message-driven loop over its queue and event waiter
    };
};

}  // namespace Framework
