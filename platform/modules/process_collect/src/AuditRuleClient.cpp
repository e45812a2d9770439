#include "process_collect/AuditRuleClient.h"

#include <libaudit.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "sdk/TimeUtils.h"

namespace Engine {

namespace {
constexpr int kReplyTimeoutMs = 2000;

std::string ErrorText(int rc) { return std::strerror(rc < 0 ? -rc : rc); }

// Waits for one reply with a deadline; false on timeout or socket error.
bool NextReply(int fd, audit_reply& rep, uint64_t deadlineMs) {
    for (;;) {
        const int rc = audit_get_reply(fd, &rep, GET_REPLY_NONBLOCKING, 0);
        if (rc > 0) return true;
        if (rc != -EAGAIN && rc != 0) return false;
        const uint64_t now = SDK::TimeUtils::GetMonotonicMs();
        if (now >= deadlineMs) return false;
        pollfd pfd{fd, POLLIN, 0};
        ::poll(&pfd, 1, static_cast<int>(deadlineMs - now));
    }
}

// The string fields of a listed rule take their bytes from buf in field order.
bool IsStringField(uint32_t field) {
    switch (field) {
        case AUDIT_WATCH:
        case AUDIT_DIR:
        case AUDIT_FILTERKEY:
        case AUDIT_SUBJ_USER:
        case AUDIT_SUBJ_ROLE:
        case AUDIT_SUBJ_TYPE:
        case AUDIT_SUBJ_SEN:
        case AUDIT_SUBJ_CLR:
        case AUDIT_OBJ_USER:
        case AUDIT_OBJ_ROLE:
        case AUDIT_OBJ_TYPE:
        case AUDIT_OBJ_LEV_LOW:
        case AUDIT_OBJ_LEV_HIGH:
        case AUDIT_EXE:
            return true;
        default:
            return false;
    }
}

// Reads path, key and type of a listed watch rule; false for any other rule.
bool DescribeWatch(const std::string& raw, AuditWatchRule& rule) {
    if (raw.size() < sizeof(audit_rule_data)) return false;
    const auto* data = reinterpret_cast<const audit_rule_data*>(raw.data());
    if (data->field_count > AUDIT_MAX_FIELDS) return false;
    if (sizeof(audit_rule_data) + data->buflen > raw.size()) return false;
    std::size_t offset = 0;
    bool isWatch = false;
    for (uint32_t i = 0; i < data->field_count; ++i) {
        const uint32_t field = data->fields[i];
        if (!IsStringField(field)) {
            if (field == AUDIT_PERM) {
                rule.perms.clear();
                if (data->values[i] & AUDIT_PERM_READ) rule.perms += 'r';
                if (data->values[i] & AUDIT_PERM_WRITE) rule.perms += 'w';
                if (data->values[i] & AUDIT_PERM_EXEC) rule.perms += 'x';
                if (data->values[i] & AUDIT_PERM_ATTR) rule.perms += 'a';
            }
            continue;
        }
        const std::size_t len = data->values[i];
        if (offset + len > data->buflen) return false;
        const std::string text(data->buf + offset, len);
        offset += len;
        if (field == AUDIT_WATCH || field == AUDIT_DIR) {
            rule.path = text;
            rule.directory = field == AUDIT_DIR;
            isWatch = true;
        } else if (field == AUDIT_FILTERKEY) {
            rule.key = text;
        }
    }
    return isWatch;
}
}  // namespace

AuditRuleClient::~AuditRuleClient() { Close(); }

bool AuditRuleClient::Open(std::string& error) {
    if (fd_ >= 0) return true;
    set_aumessage_mode(MSG_QUIET, DBG_NO);
    fd_ = audit_open();
    if (fd_ < 0) {
        error = std::string("cannot open the audit control socket: ") + std::strerror(errno);
        return false;
    }
    return true;
}

void AuditRuleClient::Close() {
    if (fd_ >= 0) audit_close(fd_);
    fd_ = -1;
}

void AuditRuleClient::Drain() {
    audit_reply rep;
    while (audit_get_reply(fd_, &rep, GET_REPLY_NONBLOCKING, 0) > 0) {
    }
}

bool AuditRuleClient::SendRequest(int (*request)(int), const char* what, std::string& error) {
    if (fd_ < 0) {
        error = "audit control socket not open";
        return false;
    }
    Drain();  // replies to an earlier request that timed out must not be taken for this one's
    const int rc = request(fd_);
    if (rc <= 0) {
        error = std::string(what) + " request failed: " + ErrorText(rc);
        return false;
    }
    return true;
}

bool AuditRuleClient::GetStatus(Status& status, std::string& error) {
    if (!SendRequest(audit_request_status, "status", error)) return false;
    const uint64_t deadline = SDK::TimeUtils::GetMonotonicMs() + kReplyTimeoutMs;
    audit_reply rep;
    while (NextReply(fd_, rep, deadline)) {
        if (rep.type == NLMSG_ERROR && rep.error->error != 0) {
            error = "status request refused: " + ErrorText(rep.error->error);
            return false;
        }
        if (rep.type != AUDIT_GET) continue;
        status.enabled = rep.status->enabled;
        status.backlogLimit = rep.status->backlog_limit;
        status.lost = rep.status->lost;
        status.backlog = rep.status->backlog;
        status.pid = rep.status->pid;
        Drain();
        return true;
    }
    error = "no status reply";
    return false;
}

bool AuditRuleClient::SetEnabled(uint32_t enabled, std::string& error) {
    if (fd_ < 0) return false;
    Drain();
    const int rc = audit_set_enabled(fd_, enabled);
    if (rc > 0) return true;
    error = ErrorText(rc);
    return false;
}

bool AuditRuleClient::SetBacklogLimit(uint32_t limit, std::string& error) {
    if (fd_ < 0) return false;
    Drain();
    const int rc = audit_set_backlog_limit(fd_, limit);
    if (rc > 0) return true;
    error = ErrorText(rc);
    return false;
}

int AuditRuleClient::SendRule(const AuditWatchRule& rule, bool add) {
    if (fd_ < 0) return -EBADF;
    audit_rule_data* data = audit_rule_create_data();
    if (data == nullptr) return -ENOMEM;
    int rc =
        audit_add_watch_dir(rule.directory ? AUDIT_DIR : AUDIT_WATCH, &data, rule.path.c_str());
    if (rc == 0) rc = audit_update_watch_perms(data, rule.PermMask());
    if (rc == 0) {
        const std::string pair = "key=" + rule.key;
        rc = audit_rule_fieldpair_data(&data, pair.c_str(), AUDIT_FILTER_EXIT);
    }
    if (rc != 0) {
        audit_rule_free_data(data);
        return -EINVAL;
    }
    Drain();
    rc = add ? audit_add_rule_data(fd_, data, AUDIT_FILTER_EXIT, AUDIT_ALWAYS)
             : audit_delete_rule_data(fd_, data, AUDIT_FILTER_EXIT, AUDIT_ALWAYS);
    audit_rule_free_data(data);
    return rc > 0 ? 0 : (rc == 0 ? -EIO : rc);
}

int AuditRuleClient::AddWatch(const AuditWatchRule& rule) { return SendRule(rule, true); }

int AuditRuleClient::DeleteWatch(const AuditWatchRule& rule) { return SendRule(rule, false); }

bool AuditRuleClient::ListRaw(std::vector<std::string>& rules, std::string& error) {
    if (!SendRequest(audit_request_rules_list_data, "rule list", error)) return false;
    const uint64_t deadline = SDK::TimeUtils::GetMonotonicMs() + kReplyTimeoutMs;
    audit_reply rep;
    while (NextReply(fd_, rep, deadline)) {
        if (rep.type == NLMSG_DONE) return true;
        if (rep.type == NLMSG_ERROR) {
            if (rep.error->error == 0) continue;  // the request's acknowledgement
            error = "rule list refused: " + ErrorText(rep.error->error);
            return false;
        }
        if (rep.type != AUDIT_LIST_RULES) continue;
        if (rep.len < static_cast<int>(sizeof(audit_rule_data))) continue;
        const std::size_t need = sizeof(audit_rule_data) + rep.ruledata->buflen;
        if (need > sizeof(rep.msg)) continue;
        rules.emplace_back(reinterpret_cast<const char*>(rep.ruledata), need);
    }
    error = "rule list incomplete";
    return false;
}

bool AuditRuleClient::ListWatches(const std::string& keyPrefix, std::vector<AuditWatchRule>& rules,
                                  std::string& error) {
    std::vector<std::string> raw;
    if (!ListRaw(raw, error)) return false;
    for (const auto& item : raw) {
        AuditWatchRule rule;
        if (!DescribeWatch(item, rule)) continue;
        if (rule.key.compare(0, keyPrefix.size(), keyPrefix) != 0) continue;
        rules.push_back(rule);
    }
    return true;
}

int AuditRuleClient::DeleteWatchesWithKeyPrefix(const std::string& keyPrefix, std::string& error) {
    std::vector<std::string> raw;
    if (!ListRaw(raw, error)) return -1;
    int deleted = 0;
    for (auto& item : raw) {
        AuditWatchRule rule;
        if (!DescribeWatch(item, rule)) continue;
        if (rule.key.compare(0, keyPrefix.size(), keyPrefix) != 0) continue;
        // The listed rule is sent back as it came, so it matches whatever fields it has.
        auto* data = reinterpret_cast<audit_rule_data*>(&item[0]);
        Drain();
        if (audit_delete_rule_data(fd_, data, data->flags, data->action) > 0) ++deleted;
    }
    return deleted;
}

}  // namespace Engine
