#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Util/ServerApplication.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include "agent/ReopenableFileChannel.h"

namespace Agent {

/// tarnwick-agent: loads the modules, feeds them policies and runs until SIGINT/SIGTERM.
///
/// Settings come from agent.properties (--config) and are overridden by options; all of them
/// are published through SDK::ConfigUtils before any module is loaded.
class AgentApplication : public Poco::Util::ServerApplication {
public:
    /// Exit code for bad configuration (unknown option, unreadable file, missing directory).
    static constexpr int kExitConfig = 2;

    AgentApplication();

protected:
    void defineOptions(Poco::Util::OptionSet& options) override;
    void handleOption(const std::string& name, const std::string& value) override;
    int main(const std::vector<std::string>& args) override;

private:
    void HandleHelp(const std::string& name, const std::string& value);
    void HandleSetting(const std::string& name, const std::string& value);
    void HandleCheck(const std::string& name, const std::string& value);
    /// --check-config / --check-policy: checks and prints, starts nothing; a CheckExit.
    int RunCheck(const std::vector<std::string>& args);
    /// The module directory a policy check loads from: option, settings file, default.
    std::string ModuleDirForCheck() const;

    /// Merges agent.properties and options into SDK::ConfigUtils; false with `error` set on
    /// bad configuration.
    bool LoadSettings(std::string& error);
    bool SetUpLogging(std::string& error);
    void DeliverPolicies(class PolicyDirectory& policies, class ModuleLoader& loader);
    /// Writes the status lines (counters, gauges, service states), whatever the log level.
    void LogCounters();
    /// The metrics endpoint as configured, or null when it is off or could not start (logged).
    std::unique_ptr<class MetricsServer> StartMetrics();
    /// SIGHUP: opens the log file anew at its path (logrotate moved it away).
    void ReopenLog();
    /// Tells the service manager (Type=notify) about the agent's state, logging a failure.
    void NotifyServiceManager(const std::string& state);

    bool helpRequested_ = false;
    std::string configFile_;
    std::string check_;                                  // "check-config", "check-policy" or empty
    std::string checkFile_;                              // the file given to the check option
    std::map<std::string, std::string> optionSettings_;  // setting key -> value from options
    Poco::AutoPtr<ReopenableFileChannel> logFile_;       // null when logging to standard error
};

}  // namespace Agent
