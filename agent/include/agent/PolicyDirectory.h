#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Agent {

/// Watches a policy directory for "<key>.json" files. Scan reports every file that is new or
/// whose content changed since the previous scan. Not thread-safe: one caller.
class PolicyDirectory {
public:
    /// A policy document larger than this is refused.
    static constexpr size_t kMaxDocumentBytes = 16 * 1024 * 1024;

    struct Change {
        std::string key;       ///< file name without ".json"
        std::string path;      ///< full path
        std::string document;  ///< whole file text
    };
    struct Problem {
        std::string path;
        std::string reason;
    };

    explicit PolicyDirectory(const std::string& dir) : dir_(dir) {}

    /// New or changed documents since the last call, in key order; unreadable or oversized
    /// files are reported once per change as problems and skipped.
    std::vector<Change> Scan(std::vector<Problem>& problems);
    /// The key of a policy file name, or empty when the name is not "<key>.json".
    static std::string KeyOf(const std::string& fileName);

private:
    struct Seen {
        int64_t mtimeNs = 0;
        int64_t size = -1;
        std::string document;
        bool delivered = false;
    };
    std::string dir_;
    std::map<std::string, Seen> seen_;
};

}  // namespace Agent
