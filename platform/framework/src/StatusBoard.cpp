#include "framework/StatusBoard.h"

namespace Framework {

StatusBoard& StatusBoard::Instance() {
    static StatusBoard* instance = new StatusBoard();  // used until process exit
    return *instance;
}

void StatusBoard::Set(const std::string& name, const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_[name] = text;
}

void StatusBoard::Erase(const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.erase(name);
}

std::map<std::string, std::string> StatusBoard::Snapshot() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

}  // namespace Framework
