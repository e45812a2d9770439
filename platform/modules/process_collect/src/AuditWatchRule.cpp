#include "process_collect/AuditWatchRule.h"

#include <linux/audit.h>

#include <climits>

namespace Engine {

namespace {
const char kPermFlag[] = " -p ";

std::string Trim(const std::string& text) {
    const std::size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos) return std::string();
    const std::size_t last = text.find_last_not_of(' ');
    return text.substr(first, last - first + 1);
}
}  // namespace

bool AuditWatchRule::Parse(const std::string& argument, const std::string& key, AuditWatchRule& out,
                           std::string& error) {
    AuditWatchRule rule;
    const std::size_t flag = argument.rfind(kPermFlag);
    if (flag == std::string::npos) {
        rule.path = argument;
        rule.perms = "rwxa";
    } else {
        rule.path = argument.substr(0, flag);
        rule.perms = Trim(argument.substr(flag + sizeof(kPermFlag) - 1));
    }
    while (rule.path.size() > 1 && rule.path.back() == '/') rule.path.pop_back();
    if (rule.path.empty() || rule.path.front() != '/') {
        error = "watch path is not absolute";
        return false;
    }
    if (rule.path.size() >= PATH_MAX) {
        error = "watch path too long";
        return false;
    }
    if (rule.perms.empty() || rule.perms.find_first_not_of("rwxa") != std::string::npos) {
        error = "bad permission letters";
        return false;
    }
    if (key.empty() || key.size() > AUDIT_MAX_KEY_LEN) {
        error = "rule key empty or too long";
        return false;
    }
    rule.key = key;
    out = rule;
    return true;
}

int AuditWatchRule::PermMask() const {
    int mask = 0;
    for (char c : perms) {
        if (c == 'r') mask |= AUDIT_PERM_READ;
        if (c == 'w') mask |= AUDIT_PERM_WRITE;
        if (c == 'x') mask |= AUDIT_PERM_EXEC;
        if (c == 'a') mask |= AUDIT_PERM_ATTR;
    }
    return mask;
}

}  // namespace Engine
