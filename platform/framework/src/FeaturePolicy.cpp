#include "framework/FeaturePolicy.h"

#include "framework/TaskPolicy.h"

namespace Framework {

FeaturePolicy::FeaturePolicy(const std::string& name) : CompositePolicy(name) {}
FeaturePolicy::~FeaturePolicy() = default;

int FeaturePolicy::Dispatch(Policy*) { return 0; }

std::vector<std::string> FeaturePolicy::GetTaskNames() const {
    std::vector<std::string> names;
    for (const auto& child : GetChildren()) {
        if (auto* taskPolicy = dynamic_cast<TaskPolicy*>(child.get())) {
            names.push_back(taskPolicy->GetTaskName());
        }
    }
    return names;
}

}  // namespace Framework
