#include "sdk/ConfigUtils.h"

#include <Poco/NumberParser.h>

#include <mutex>

namespace SDK {

namespace {
std::mutex gConfigMutex;  // guards the settings map
std::map<std::string, std::string>& Settings() {
    static std::map<std::string, std::string>* settings = new std::map<std::string, std::string>();
    return *settings;
}
}  // namespace

void ConfigUtils::Set(const std::string& key, const std::string& value) {
    std::lock_guard<std::mutex> lock(gConfigMutex);
    Settings()[key] = value;
}

void ConfigUtils::Clear() {
    std::lock_guard<std::mutex> lock(gConfigMutex);
    Settings().clear();
}

bool ConfigUtils::Has(const std::string& key) {
    std::lock_guard<std::mutex> lock(gConfigMutex);
    return Settings().count(key) != 0;
}

std::string ConfigUtils::GetString(const std::string& key, const std::string& def) {
    std::lock_guard<std::mutex> lock(gConfigMutex);
    auto it = Settings().find(key);
    return it == Settings().end() ? def : it->second;
}

int64_t ConfigUtils::GetInt(const std::string& key, int64_t def) {
    const std::string text = GetString(key, std::string());
    Poco::Int64 value = 0;
    if (text.empty() || !Poco::NumberParser::tryParse64(text, value)) return def;
    return value;
}

std::map<std::string, std::string> ConfigUtils::Snapshot() {
    std::lock_guard<std::mutex> lock(gConfigMutex);
    return Settings();
}

}  // namespace SDK
