#pragma once

#include <string>

#include "framework/Policy.h"

namespace Framework {

/// Child of a feature policy naming a task that the feature policy is to be handed to.
class TaskPolicy : public Policy {
public:
    explicit TaskPolicy(const std::string& taskName);
    ~TaskPolicy() override;

    const std::string& GetTaskName() const { return GetPolicyName(); }
};

}  // namespace Framework
