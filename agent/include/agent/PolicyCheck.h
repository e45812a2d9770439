#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "framework/PolicyDescription.h"

namespace Agent {

/// Checks a policy document without starting anything: the module that owns the document's
/// key parses it with its own parser (its library is loaded, no module is initialised, no
/// thread started) and describes what it would protect; what the parser logs is shown too.
class PolicyCheck {
public:
    /// Prints `description` of `file` (and the module's log lines while parsing it) to `out`;
    /// returns a CheckExit.
    static int Report(const std::string& file, const Framework::PolicyDescription& description,
                      const std::vector<std::string>& moduleLog, std::ostream& out);
    /// Reads `file` (its key is the name without ".json"; any other name is checked against
    /// the modules' own keys), has a module library of `moduleDir` describe it, prints the
    /// report; returns a CheckExit. Configures the process's logging to capture the module.
    static int Run(const std::string& file, const std::string& moduleDir, std::ostream& out);
    /// The warning a running agent logs for a delivered policy, or "" when it protects
    /// something.
    static std::string DeliveryWarning(const std::string& file,
                                       const Framework::PolicyDescription& description);
};

}  // namespace Agent
