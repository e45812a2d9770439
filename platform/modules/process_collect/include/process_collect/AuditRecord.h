#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Engine {

/// Audit record types the audit task reads (values of the kernel's record types).
namespace AuditRecordType {
constexpr int kSyscall = 1300;
constexpr int kPath = 1302;
constexpr int kCwd = 1307;
constexpr int kEoe = 1320;
constexpr int kProctitle = 1327;
constexpr int kOpenat2 = 1337;
}  // namespace AuditRecordType

/// One kernel audit record split into its header and its name=value fields. Values are kept as
/// they appear in the text (quotes included), because only the caller knows which fields are
/// untrusted strings that may be hex-encoded.
struct AuditRecord {
    int type = 0;
    std::string timestamp;  ///< "seconds.millis"
    uint64_t serial = 0;
    std::vector<std::pair<std::string, std::string>> fields;

    /// The raw value of the first field called `name`, or null.
    const std::string* Find(const std::string& name) const;
    /// The raw value of `name`, or empty.
    std::string Raw(const std::string& name) const;
};

}  // namespace Engine
