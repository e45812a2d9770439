#pragma once

#include <string>

namespace Framework {

/// Base of every policy. A policy is built and parsed once, on the policy delivery thread, then
/// only read; when a newer one arrives the old one is marked outdated and freed by the
/// framework once no task uses it any more.
class Policy {
public:
    explicit Policy(const std::string& name);
    virtual ~Policy();
    /// Fills the policy from its document; the meaning of the result is the policy's own.
    virtual int Parse(const std::string& document);

    const std::string& GetPolicyName() const { return policyName_; }
    void SetPolicyName(const std::string& name) { policyName_ = name; }
    bool IsOutdated() const { return outdated; }

    /// Set by the owner of a newer policy for the same key; never cleared.
    bool outdated = false;

private:
    std::string policyName_;
};

}  // namespace Framework
