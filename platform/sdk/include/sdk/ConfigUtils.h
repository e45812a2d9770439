#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace SDK {

/// Process-wide agent settings ("docker.socket", "report.file", "audit.settle_ms", ...). The
/// agent fills them from agent.properties and its options before it loads any module; modules
/// read them in their Init. Thread-safe.
class ConfigUtils {
public:
    static void Set(const std::string& key, const std::string& value);
    static void Clear();
    static bool Has(const std::string& key);
    static std::string GetString(const std::string& key, const std::string& def);
    /// The setting as a whole decimal number; `def` when absent or not a number.
    static int64_t GetInt(const std::string& key, int64_t def);
    static std::map<std::string, std::string> Snapshot();
};

}  // namespace SDK
