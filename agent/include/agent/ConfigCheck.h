#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace Agent {

/// Checks an agent settings file (agent.properties) without starting anything: every line the
/// agent would misread or ignore, every value it would refuse or replace, with its line. The
/// parsing and checking functions are pure; Run reads the file and prints.
class ConfigCheck {
public:
    struct Entry {
        std::string key;
        std::string value;
        int line = 0;  ///< where the entry starts (1-based)
    };
    struct Finding {
        int line = 0;          ///< 0: the file as a whole
        bool invalid = false;  ///< true: the agent refuses to start with it
        std::string reason;
    };

    /// Reads properties text ("key = value" or "key: value", # and ! comments, a trailing
    /// backslash continues a line) into entries; lines without a separator are findings.
    static std::vector<Entry> Parse(const std::string& text, std::vector<Finding>& findings);
    /// Checks entries against the settings the agent and its modules read.
    static void CheckEntries(const std::vector<Entry>& entries, std::vector<Finding>& findings);
    /// Why the agent refuses `value` for `key` at start, or "" when it takes it. Shared with the
    /// agent's own start so that both say the same.
    static std::string StartProblem(const std::string& key, const std::string& value);

    /// Checks `file`, prints "file:line: reason" lines and a verdict to `out`; a CheckExit.
    static int Run(const std::string& file, std::ostream& out);
};

}  // namespace Agent
