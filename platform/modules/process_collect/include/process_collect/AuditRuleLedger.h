#pragma once

#include <string>
#include <vector>

#include "process_collect/AuditWatchRule.h"

namespace Engine {

/// The audit rules this agent has put in the kernel, remembered in a file (JSON) so that the
/// next run deletes exactly those if this one ended without cleaning up, and never another
/// tool's rules. Plain class; the file is replaced whole on every save (written aside, then
/// renamed into place), so a crash leaves the old or the new list, never half of one.
class AuditRuleLedger {
public:
    explicit AuditRuleLedger(std::string path) : path_(std::move(path)) {}

    const std::string& Path() const { return path_; }
    /// The rules in the file; true with none when there is no file. False (with `error`) when
    /// the file cannot be read or is not a rule list.
    bool Load(std::vector<AuditWatchRule>& rules, std::string& error) const;
    /// Replaces the file with `rules`, creating its directory when needed.
    bool Save(const std::vector<AuditWatchRule>& rules, std::string& error) const;

    /// The file's text for `rules`, and the rules of a text (false when it is not a list).
    static std::string Format(const std::vector<AuditWatchRule>& rules);
    static bool Parse(const std::string& text, std::vector<AuditWatchRule>& rules,
                      std::string& error);

private:
    std::string path_;
};

}  // namespace Engine
