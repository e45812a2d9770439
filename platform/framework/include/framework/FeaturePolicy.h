#pragma once

#include <string>
#include <vector>

#include "framework/CompositePolicy.h"

namespace Framework {

/// The policy of one feature, as pushed by the management side: id, hash, enabled flag and,
/// as TaskPolicy children, the tasks it belongs to.
class FeaturePolicy : public CompositePolicy {
public:
    explicit FeaturePolicy(const std::string& name);
    ~FeaturePolicy() override;

    /// Called by the framework for each task this policy is handed to (`taskPolicy` is the
    /// TaskPolicy child naming it); a non-zero result keeps the task's previous policy.
    virtual int Dispatch(Policy* taskPolicy);
    /// Whether a document with this hash and id differs from this policy.
    virtual bool PolicyChanged(const std::string& hash, const std::string& policyId) {
        return hash_ != hash || policyId_ != policyId;
    }

    /// The names of the tasks that this policy's TaskPolicy children name, in order.
    std::vector<std::string> GetTaskNames() const;

    const std::string& GetPolicyId() const { return policyId_; }
    void SetPolicyId(const std::string& id) { policyId_ = id; }
    const std::string& GetHash() const { return hash_; }
    void SetHash(const std::string& hash) { hash_ = hash; }
    bool IsEnabled() const { return enabled_; }
    void SetEnabled(bool enabled) { enabled_ = enabled; }

private:
    std::string policyId_;
    std::string hash_;
    bool enabled_ = true;
};

}  // namespace Framework
