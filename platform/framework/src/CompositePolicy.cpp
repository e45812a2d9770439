#include "framework/CompositePolicy.h"

namespace Framework {

CompositePolicy::CompositePolicy(const std::string& name) : Policy(name) {}
CompositePolicy::~CompositePolicy() = default;

void CompositePolicy::Add(Policy* child) {
    if (child != nullptr) children_.emplace_back(child);
}

}  // namespace Framework
