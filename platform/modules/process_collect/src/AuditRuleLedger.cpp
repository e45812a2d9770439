#include "process_collect/AuditRuleLedger.h"

#include <json/json.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {
constexpr std::size_t kMaxLedgerBytes = 16 * 1024 * 1024;

}  // namespace

std::string AuditRuleLedger::Format(const std::vector<AuditWatchRule>& rules) {
    Json::Value list(Json::arrayValue);
    for (const auto& rule : rules) {
        Json::Value item;
        item["path"] = rule.path;
        item["perms"] = rule.perms;
        item["key"] = rule.key;
        item["directory"] = rule.directory;
        list.append(item);
    }
    return SDK::JsonUtils::JsonToString(list) + "\n";
}

bool AuditRuleLedger::Parse(const std::string& text, std::vector<AuditWatchRule>& rules,
                            std::string& error) {
    rules.clear();
    Json::Value list;
    if (SDK::JsonUtils::ParseJsonStr(text, list) != 0 || !list.isArray()) {
        error = "not a JSON list of rules";
        return false;
    }
    for (const auto& item : list) {
        if (!item.isObject()) continue;
        AuditWatchRule rule;
        rule.path = SDK::JsonUtils::GetStringValue(item, "path", "");
        rule.perms = SDK::JsonUtils::GetStringValue(item, "perms", "");
        rule.key = SDK::JsonUtils::GetStringValue(item, "key", "");
        rule.directory = SDK::JsonUtils::GetBoolValue(item, "directory", false);
        // Only what this agent could have added: an absolute path and a key.
        if (rule.path.empty() || rule.path.front() != '/' || rule.key.empty()) continue;
        rules.push_back(rule);
    }
    return true;
}

bool AuditRuleLedger::Load(std::vector<AuditWatchRule>& rules, std::string& error) const {
    rules.clear();
    std::ifstream in(path_, std::ios::binary);
    if (!in) {
        if (errno == ENOENT) return true;
        error = path_ + ": " + std::strerror(errno);
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (text.str().size() > kMaxLedgerBytes) {
        error = path_ + ": too large";
        return false;
    }
    if (!Parse(text.str(), rules, error)) {
        error = path_ + ": " + error;
        return false;
    }
    return true;
}

bool AuditRuleLedger::Save(const std::vector<AuditWatchRule>& rules, std::string& error) const {
    if (!SDK::FileUtils::MakeParentDirs(path_)) {
        error = "cannot create the directory of " + path_ + ": " + std::strerror(errno);
        return false;
    }
    const std::string aside = path_ + ".new";
    {
        std::ofstream out(aside, std::ios::binary | std::ios::trunc);
        out << Format(rules);
        out.flush();
        if (!out) {
            error = aside + ": " + std::strerror(errno);
            std::remove(aside.c_str());
            return false;
        }
    }
    if (std::rename(aside.c_str(), path_.c_str()) != 0) {
        error = path_ + ": " + std::strerror(errno);
        std::remove(aside.c_str());
        return false;
    }
    return true;
}

}  // namespace Engine
