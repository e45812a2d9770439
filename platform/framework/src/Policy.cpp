#include "framework/Policy.h"

namespace Framework {

Policy::Policy(const std::string& name) : policyName_(name) {}
Policy::~Policy() = default;
int Policy::Parse(const std::string&) { return 0; }

}  // namespace Framework
