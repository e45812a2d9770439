#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "process_collect/AuditWatchRule.h"

namespace Engine {

/// The audit control socket (libaudit, NETLINK_AUDIT unicast): status, enable, backlog and
/// watch rules. Owns its socket. Each call waits for the kernel's answer, a bounded time.
/// One thread at a time.
class AuditRuleClient {
public:
    struct Status {
        uint32_t enabled = 0;  ///< 0 off, 1 on, 2 locked
        uint32_t backlogLimit = 0;
        uint32_t lost = 0;
        uint32_t backlog = 0;
        uint32_t pid = 0;  ///< the registered audit daemon, 0 when none
    };

    AuditRuleClient() = default;
    ~AuditRuleClient();
    AuditRuleClient(const AuditRuleClient&) = delete;
    AuditRuleClient& operator=(const AuditRuleClient&) = delete;

    bool Open(std::string& error);
    void Close();
    bool IsOpen() const { return fd_ >= 0; }

    bool GetStatus(Status& status, std::string& error);
    bool SetEnabled(uint32_t enabled, std::string& error);
    bool SetBacklogLimit(uint32_t limit, std::string& error);

    /// Adds the watch rule (as a directory watch when `rule.directory`); 0 or -errno.
    int AddWatch(const AuditWatchRule& rule);
    /// Deletes the watch rule as it was added; 0 or -errno (-ENOENT when the kernel has none).
    int DeleteWatch(const AuditWatchRule& rule);
    /// Deletes every watch rule whose key begins with `keyPrefix`; the number deleted, or -1
    /// when the rules could not be listed.
    int DeleteWatchesWithKeyPrefix(const std::string& keyPrefix, std::string& error);
    /// The watch rules in the kernel whose key begins with `keyPrefix`.
    bool ListWatches(const std::string& keyPrefix, std::vector<AuditWatchRule>& rules,
                     std::string& error);

private:
    void Drain();
    // Sends one request after draining stale replies; false with `error` when it failed.
    bool SendRequest(int (*request)(int), const char* what, std::string& error);
    int SendRule(const AuditWatchRule& rule, bool add);
    bool ListRaw(std::vector<std::string>& rules, std::string& error);

    int fd_ = -1;
};

}  // namespace Engine
