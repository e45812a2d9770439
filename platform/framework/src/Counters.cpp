#include "framework/Counters.h"

namespace Framework {

Counters& Counters::Instance() {
    static Counters* instance = new Counters();  // never destroyed: used until process exit
    return *instance;
}

std::atomic<uint64_t>& Counters::Get(const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    return counters_[name];
}

uint64_t Counters::Value(const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = counters_.find(name);
    return it == counters_.end() ? 0 : it->second.load();
}

std::map<std::string, uint64_t> Counters::Snapshot() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::map<std::string, uint64_t> out;
    for (const auto& entry : counters_) out[entry.first] = entry.second.load();
    return out;
}

}  // namespace Framework
