#include "sdk/RootConfinement.h"

namespace SDK {

namespace {
thread_local const std::string* tCurrent = nullptr;
}  // namespace

RootConfinement::RootConfinement(const std::string& root) : previous_(tCurrent), root_(root) {
    if (!root_.empty()) tCurrent = &root_;
}

RootConfinement::~RootConfinement() { tCurrent = previous_; }

const std::string* RootConfinement::Current() { return tCurrent; }

}  // namespace SDK
