#pragma once

#include <string>

#include "framework/Policy.h"

namespace Framework {

/// A policy hook registered under a policy key with Module::RegisterPolicyCallback.
class AbstractPolicyCallback {
public:
    virtual ~AbstractPolicyCallback() = default;
    /// Builds the new policy from (feature, document); `current` is the policy in force for
    /// the key, or null. Returns the new policy, which the framework takes over.
    virtual Policy* invoke(const std::string& feature, const std::string& document,
                           Policy*& current) const = 0;
};

/// Binds a member function of C as a policy hook.
template <class C>
class PolicyCallback : public AbstractPolicyCallback {
public:
    using Callback = Policy* (C::*)(const std::string&, const std::string&, Policy*&);

    PolicyCallback(C* object, Callback method) : object_(object), method_(method) {}

    Policy* invoke(const std::string& feature, const std::string& document,
                   Policy*& current) const override {
        return (object_->*method_)(feature, document, current);
    }

    bool IsOneShot() const { return oneShot_; }
    void SetOneShot(bool oneShot) { oneShot_ = oneShot; }

private:
    C* object_;
    Callback method_;
    bool oneShot_ = false;  // reserved: a hook to be dropped after its first document
};

}  // namespace Framework
