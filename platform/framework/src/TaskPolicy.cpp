#include "framework/TaskPolicy.h"

namespace Framework {

TaskPolicy::TaskPolicy(const std::string& taskName) : Policy(taskName) {}
TaskPolicy::~TaskPolicy() = default;

}  // namespace Framework
