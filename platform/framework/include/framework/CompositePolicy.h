#pragma once

#include <memory>
#include <string>
#include <vector>

#include "framework/Policy.h"

namespace Framework {

/// A policy with child policies, which it owns.
class CompositePolicy : public Policy {
public:
    explicit CompositePolicy(const std::string& name);
    ~CompositePolicy() override;

    /// Adds a child and takes ownership of it (null is ignored).
    void Add(Policy* child);
    const std::vector<std::unique_ptr<Policy>>& GetChildren() const { return children_; }

private:
    std::vector<std::unique_ptr<Policy>> children_;
};

}  // namespace Framework
