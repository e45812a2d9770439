#include "framework/Gauges.h"

namespace Framework {

Gauges& Gauges::Instance() {
    static Gauges* instance = new Gauges();  // outlives every task thread
    return *instance;
}

void Gauges::Set(const std::string& name, int64_t value) {
    std::lock_guard<std::mutex> lock(mutex_);
    values_[name] = value;
}

void Gauges::Erase(const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    values_.erase(name);
    containers_.erase(name);
}

int64_t Gauges::Value(const std::string& name, int64_t fallback) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = values_.find(name);
    return it == values_.end() ? fallback : it->second;
}

std::map<std::string, int64_t> Gauges::Snapshot() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return values_;
}

void Gauges::SetContainers(const std::string& service, const std::set<std::string>& ids) {
    std::set<std::string> prefixes;
    for (const auto& id : ids) prefixes.insert(id.substr(0, kContainerIdPrefix));
    std::lock_guard<std::mutex> lock(mutex_);
    if (prefixes.empty()) {
        containers_.erase(service);
        return;
    }
    containers_[service] = std::move(prefixes);
}

std::size_t Gauges::ProtectedContainers() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::set<std::string> all;
    for (const auto& service : containers_)
        all.insert(service.second.begin(), service.second.end());
    return all.size();
}

}  // namespace Framework
