#include "agent/AgentApplication.h"

#include <Poco/AutoPtr.h>
#include <Poco/ConsoleChannel.h>
#include <Poco/File.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Path.h>
#include <Poco/Util/HelpFormatter.h>
#include <Poco/Util/Option.h>
#include <Poco/Util/OptionCallback.h>
#include <Poco/Util/OptionSet.h>
#include <Poco/Util/PropertyFileConfiguration.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <iostream>
#include <mutex>
#include <thread>

#include "agent/CheckExit.h"
#include "agent/ConfigCheck.h"
#include "agent/HangupSignal.h"
#include "agent/LogLineFormatter.h"
#include "agent/MetricsServer.h"
#include "agent/ModuleLoader.h"
#include "agent/PolicyCheck.h"
#include "agent/PolicyDirectory.h"
#include "agent/ReopenableFileChannel.h"
#include "agent/ServiceNotifier.h"
#include "framework/Counters.h"
#include "framework/Gauges.h"
#include "framework/Module.h"
#include "framework/StartupGate.h"
#include "framework/StatusBoard.h"
#include "sdk/ConfigUtils.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

namespace Agent {

namespace {
constexpr auto kTrimEvery = std::chrono::seconds(10);
const char* const kDefaultConfig = "/usr/local/tarnwick/etc/agent.properties";

// Settings every module may read, with their defaults.
const std::map<std::string, std::string>& Defaults() {
    static const std::map<std::string, std::string> defaults = {
        {"module.dir", "/usr/local/tarnwick/module"},
        {"policy.dir", "/usr/local/tarnwick/etc/policy.d"},
        {"report.file", "/var/log/tarnwick/alarms.jsonl"},
        {"report.spool.dir", "/var/lib/tarnwick/spool"},
        {"log.file", "/var/log/tarnwick/agent.log"},
        {"log.level", "information"},
        {"docker.socket", "/var/run/docker.sock"},
        {"cpu.limit_percent", "0"},
        {"policy.scan_ms", "1000"},
        {"status.interval_s", "60"},
        {"metrics.enabled", "true"},
        {"metrics.address", "127.0.0.1"},
        {"metrics.port", "9467"},
    };
    return defaults;
}

// Option name -> setting key.
const std::map<std::string, std::string>& OptionKeys() {
    static const std::map<std::string, std::string> keys = {
        {"module-dir", "module.dir"},       {"policy-dir", "policy.dir"},
        {"alarms", "report.file"},          {"log", "log.file"},
        {"log-level", "log.level"},         {"docker-socket", "docker.socket"},
        {"cpu-limit", "cpu.limit_percent"}, {"spool-dir", "report.spool.dir"},
    };
    return keys;
}

Poco::Logger* AgentLogger() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("agent", true);
}

std::string FeatureOf(const std::string& document) {
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(document, root) != 0) return std::string();
    return SDK::JsonUtils::GetStringValue(root, "feature_name", "");
}

// Stops the policy watcher thread promptly at shutdown.
struct StopSignal {
    std::mutex mutex;  // guards stop
    std::condition_variable cv;
    bool stop = false;

    bool WaitFor(std::chrono::milliseconds ms) {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, ms, [this] { return stop; });
    }
    void Raise() {
        std::lock_guard<std::mutex> lock(mutex);
        stop = true;
        cv.notify_all();
    }
};
}  // namespace

AgentApplication::AgentApplication() { setUnixOptions(true); }

void AgentApplication::defineOptions(Poco::Util::OptionSet& options) {
    ServerApplication::defineOptions(options);
    using Poco::Util::Option;
    using Poco::Util::OptionCallback;
    options.addOption(
        Option("help", "h", "Show this help and exit.")
            .required(false)
            .repeatable(false)
            .callback(OptionCallback<AgentApplication>(this, &AgentApplication::HandleHelp)));
    options.addOption(
        Option("check-config", "",
               "Check a settings file (default: the installed one) and exit; starts nothing.")
            .required(false)
            .repeatable(false)
            .argument("FILE", false)
            .callback(OptionCallback<AgentApplication>(this, &AgentApplication::HandleCheck)));
    options.addOption(
        Option("check-policy", "",
               "Check a policy document and show what it protects, then exit; starts "
               "nothing. Its key is the file name without .json; the module that takes the "
               "key is loaded from the module directory (--module-dir) to parse it.")
            .required(false)
            .repeatable(false)
            .argument("FILE")
            .callback(OptionCallback<AgentApplication>(this, &AgentApplication::HandleCheck)));
    options.addOption(
        Option("config", "c",
               "Settings file (default " + std::string(kDefaultConfig) + ", when present).")
            .required(false)
            .repeatable(false)
            .argument("FILE")
            .callback(OptionCallback<AgentApplication>(this, &AgentApplication::HandleSetting)));
    const struct {
        const char* name;
        const char* arg;
        const char* help;
    } settings[] = {
        {"module-dir", "DIR", "Directory of the lib*_module.so modules (module.dir)."},
        {"policy-dir", "DIR", "Directory of <key>.json policy documents (policy.dir)."},
        {"alarms", "FILE",
         "Alarm sink, one JSON document a line; - for standard output (report.file)."},
        {"spool-dir", "DIR", "Spools of the alarm outputs, one directory each (report.spool.dir)."},
        {"log", "FILE", "Log file (rotated at 10 MB); - for standard error (log.file)."},
        {"log-level", "LEVEL", "error, warning, notice, information, debug or trace (log.level)."},
        {"docker-socket", "PATH", "Docker engine API socket (docker.socket)."},
        {"cpu-limit", "PERCENT",
         "CPU share per task thread, 1-99; 0 turns the limiter off (cpu.limit_percent)."},
    };
    for (const auto& s : settings) {
        options.addOption(Option(s.name, "", s.help)
                              .required(false)
                              .repeatable(false)
                              .argument(s.arg)
                              .callback(OptionCallback<AgentApplication>(
                                  this, &AgentApplication::HandleSetting)));
    }
}

void AgentApplication::handleOption(const std::string& name, const std::string& value) {
    ServerApplication::handleOption(name, value);
}

void AgentApplication::HandleHelp(const std::string&, const std::string&) {
    helpRequested_ = true;
    Poco::Util::HelpFormatter help(options());
    help.setCommand(commandName());
    help.setUsage("[options]");
    help.setHeader(
        "Host security agent: loads its modules, hands them the policies of the policy "
        "directory (again whenever a file changes) and runs until SIGINT or SIGTERM. "
        "Settings come from the settings file; options override them.");
    help.setFooter(
        "Exit codes: 0 after a clean shutdown, 2 on bad configuration. With --check-config or "
        "--check-policy: 0 valid; 1 valid, but with problems worth an operator's attention (a "
        "policy that protects nothing, rules or files the module ignores, unknown or unusable "
        "settings); 2 invalid or unreadable.");
    help.format(std::cout);
    stopOptionsProcessing();
}

void AgentApplication::HandleCheck(const std::string& name, const std::string& value) {
    check_ = name;
    checkFile_ = value;
}

void AgentApplication::HandleSetting(const std::string& name, const std::string& value) {
    if (name == "config") {
        configFile_ = value;
        return;
    }
    auto key = OptionKeys().find(name);
    if (key != OptionKeys().end()) optionSettings_[key->second] = value;
}

namespace {
// The settings file in use: the one given, else the installed one when it exists, else none.
std::string SettingsFile(const std::string& given) {
    if (!given.empty()) return given;
    return Poco::File(kDefaultConfig).exists() ? std::string(kDefaultConfig) : std::string();
}
}  // namespace

bool AgentApplication::LoadSettings(std::string& error) {
    std::map<std::string, std::string> settings = Defaults();
    const std::string file = SettingsFile(configFile_);
    if (!file.empty()) {
        try {
            Poco::AutoPtr<Poco::Util::PropertyFileConfiguration> props(
                new Poco::Util::PropertyFileConfiguration(file));
            Poco::Util::AbstractConfiguration::Keys keys;
            std::vector<std::string> pending = {""};
            // Flatten the dotted key tree into "a.b" settings.
            while (!pending.empty()) {
                const std::string prefix = pending.back();
                pending.pop_back();
                props->keys(prefix, keys);
                for (const auto& k : keys) {
                    const std::string full = prefix.empty() ? k : prefix + "." + k;
                    if (props->hasProperty(full)) settings[full] = props->getString(full);
                    pending.push_back(full);
                }
            }
        } catch (const Poco::Exception& e) {
            error = "cannot read settings file " + file + ": " + e.displayText();
            return false;
        }
    }
    for (const auto& o : optionSettings_) settings[o.first] = o.second;
    for (const auto& s : settings) SDK::ConfigUtils::Set(s.first, s.second);

    // The same rules as --check-config, so that a checked file starts.
    for (const char* key :
         {"cpu.limit_percent", "log.level", "module.dir", "policy.dir", "policy.scan_ms",
          "metrics.enabled", "metrics.address", "metrics.port"}) {
        error = ConfigCheck::StartProblem(key, settings[key]);
        if (!error.empty()) return false;
    }
    SDK::InnerCpuCtrlUtils::SetLimitPercent(
        static_cast<int>(SDK::ConfigUtils::GetInt("cpu.limit_percent", 0)));
    return true;
}

bool AgentApplication::SetUpLogging(std::string& error) {
    const std::string file = SDK::ConfigUtils::GetString("log.file", "-");
    Poco::AutoPtr<Poco::Channel> sink;
    if (file == "-") {
        sink = new Poco::ConsoleChannel(std::cerr);
    } else {
        try {
            Poco::File(Poco::Path(file).parent()).createDirectories();
            Poco::AutoPtr<Poco::FileChannel> fileChannel(new Poco::FileChannel(file));
            fileChannel->setProperty("rotation", "10 M");
            fileChannel->setProperty("archive", "number");
            fileChannel->setProperty("purgeCount", "5");
            fileChannel->setProperty("flush", "true");
            fileChannel->open();
            logFile_ = new ReopenableFileChannel(fileChannel);
            sink = logFile_;
        } catch (const Poco::Exception& e) {
            error = "cannot open log file " + file + ": " + e.displayText();
            return false;
        }
    }
    Poco::AutoPtr<LogLineFormatter> lineFormat(new LogLineFormatter());
    Poco::AutoPtr<Poco::FormattingChannel> formatting(
        new Poco::FormattingChannel(lineFormat, sink));
    SDK::LoggerUtils::GetInstance()->Configure(
        formatting, SDK::LoggerUtils::ParseLevel(SDK::ConfigUtils::GetString("log.level", "")));
    return true;
}

void AgentApplication::DeliverPolicies(PolicyDirectory& policies, ModuleLoader& loader) {
    std::vector<PolicyDirectory::Problem> problems;
    for (const auto& change : policies.Scan(problems)) {
        const int taken =
            loader.DeliverPolicy(change.key, FeatureOf(change.document), change.document);
        if (taken == 0) {
            TW_LOG(AgentLogger(), PRIO_WARNING, "Policy %s: no module takes policy key %s",
                   change.path, change.key);
            continue;
        }
        TW_LOG(AgentLogger(), PRIO_INFORMATION, "Policy %s delivered under key %s", change.path,
               change.key);
        // The module takes such a document without a word; the operator must hear of it.
        Framework::PolicyDescription description;
        if (!loader.DescribePolicy(change.key, change.document, true, description)) continue;
        const std::string warning = PolicyCheck::DeliveryWarning(change.path, description);
        if (!warning.empty()) TW_LOG(AgentLogger(), PRIO_WARNING, "%s", warning);
    }
    for (const auto& problem : problems) {
        TW_LOG(AgentLogger(), PRIO_ERROR, "Policy %s skipped: %s", problem.path, problem.reason);
    }
}

namespace {
// Status lines, and the lines that say the agent runs and where its metrics are, are what an
// operator running at warning level still needs to see: they are written at notice priority
// whatever log.level says, through the same channel (and its escaping) as every other record.
void NoticeRecord(const std::string& text) {
    Poco::Logger* logger = AgentLogger();
    try {
        Poco::Channel* channel = logger == nullptr ? nullptr : logger->getChannel();
        if (channel == nullptr) return;
        const char* file = std::strrchr(__FILE__, '/');
        channel->log(Poco::Message(logger->name(), text, Poco::Message::PRIO_NOTICE,
                                   file == nullptr ? __FILE__ : file + 1, __LINE__));
    } catch (const std::exception&) {
        // A status line must never interrupt the agent.
    }
}
}  // namespace

void AgentApplication::LogCounters() {
    std::string text;
    for (const auto& counter : Framework::Counters::Instance().Snapshot()) {
        if (!text.empty()) text += ", ";
        text += counter.first + "=" + std::to_string(counter.second);
    }
    NoticeRecord("Status: " + (text.empty() ? std::string("no losses") : text));
    std::string levels;
    for (const auto& gauge : Framework::Gauges::Instance().Snapshot()) {
        levels += (levels.empty() ? "" : ", ") + gauge.first + "=" + std::to_string(gauge.second);
    }
    if (!levels.empty()) NoticeRecord("Status levels: " + levels);
    for (const auto& line : Framework::StatusBoard::Instance().Snapshot()) {
        NoticeRecord("Status " + line.first + ": " + line.second);
    }
}

std::unique_ptr<MetricsServer> AgentApplication::StartMetrics() {
    if (SDK::ConfigUtils::GetString("metrics.enabled", "true") != "true") {
        TW_LOG(AgentLogger(), PRIO_INFORMATION, "Metrics endpoint off (metrics.enabled)");
        return nullptr;
    }
    const std::string address = SDK::ConfigUtils::GetString("metrics.address", "127.0.0.1");
    const auto port = static_cast<uint16_t>(SDK::ConfigUtils::GetInt("metrics.port", 0));
    std::unique_ptr<MetricsServer> server(new MetricsServer());
    std::string error;
    if (!server->Start(address, port, error)) {
        // The agent protects without it; the operator learns why the scrape fails.
        TW_LOG(AgentLogger(), PRIO_ERROR, "Metrics endpoint not started: %s", error);
        return nullptr;
    }
    NoticeRecord("Metrics endpoint listening on http://" + address + ":" +
                 std::to_string(server->Port()) + "/metrics and /healthz");
    return server;
}

std::string AgentApplication::ModuleDirForCheck() const {
    const auto option = optionSettings_.find("module.dir");
    if (option != optionSettings_.end()) return option->second;
    const std::string file = SettingsFile(configFile_);
    if (!file.empty()) {
        try {
            Poco::AutoPtr<Poco::Util::PropertyFileConfiguration> props(
                new Poco::Util::PropertyFileConfiguration(file));
            if (props->hasProperty("module.dir")) return props->getString("module.dir");
        } catch (const Poco::Exception&) {
            // An unreadable settings file leaves the default; --check-config tells why.
        }
    }
    return Defaults().at("module.dir");
}

int AgentApplication::RunCheck(const std::vector<std::string>& args) {
    std::string file = checkFile_;
    if (file.empty() && !args.empty()) file = args.front();
    if (args.size() > (checkFile_.empty() ? 1u : 0u)) {
        std::cerr << "tarnwick-agent: unexpected argument '" << args.back() << "'" << std::endl;
        return kCheckInvalid;
    }
    if (check_ == "check-policy") return PolicyCheck::Run(file, ModuleDirForCheck(), std::cout);
    if (file.empty()) file = configFile_.empty() ? kDefaultConfig : configFile_;
    return ConfigCheck::Run(file, std::cout);
}

void AgentApplication::ReopenLog() {
    if (logFile_.isNull()) return;
    std::string error;
    if (!logFile_->Reopen(error)) {
        std::cerr << "tarnwick-agent: cannot reopen the log file: " << error << std::endl;
        return;
    }
    TW_LOG(AgentLogger(), PRIO_INFORMATION, "Log file reopened on SIGHUP");
}

void AgentApplication::NotifyServiceManager(const std::string& state) {
    std::string error;
    if (!ServiceNotifier::Notify(state, error)) {
        TW_LOG(AgentLogger(), PRIO_WARNING, "Service manager not told %s: %s", state, error);
    }
}

int AgentApplication::main(const std::vector<std::string>& args) {
    if (helpRequested_) return EXIT_OK;
    if (!check_.empty()) return RunCheck(args);
    // SIGHUP reopens the log file here, and the alarm file too once the sink module chains its
    // hook to this one; it must never end the agent (logrotate sends it).
    if (!HangupSignal::Install()) std::signal(SIGHUP, SIG_IGN);
    // Every thread the modules start inherits this mask, so a stop request arriving during
    // start-up waits for the orderly shutdown below instead of killing the agent mid-way.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGQUIT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    // SIGHUP is taken by the watcher thread below alone (it unblocks it): the kernel prefers the
    // main thread, which sits in sigwait until the stop, and a sanitizer runtime holds a handler
    // back until such a wait returns. Until the watcher runs, a SIGHUP waits pending.
    sigset_t hangup;
    sigemptyset(&hangup);
    sigaddset(&hangup, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &hangup, nullptr);
    std::string error;
    if (!args.empty()) error = "unexpected argument '" + args.front() + "'";
    if (error.empty()) LoadSettings(error);
    if (error.empty()) SetUpLogging(error);
    if (!error.empty()) {
        std::cerr << "tarnwick-agent: " << error << std::endl;
        return kExitConfig;
    }

    ModuleLoader loader;
    const std::string moduleDir = SDK::ConfigUtils::GetString("module.dir", "");
    for (const auto& file : ModuleLoader::ListModuleFiles(moduleDir)) {
        std::string why;
        if (!loader.LoadOne(file, why)) {
            TW_LOG(AgentLogger(), PRIO_ERROR, "Module %s not loaded: %s", file, why);
            continue;
        }
        const std::string name = loader.Modules().back().module->name();
        SDK::LoggerUtils::GetInstance()->GetModuleLogger(name, true);
        TW_LOG(AgentLogger(), PRIO_INFORMATION, "Module %s loaded from %s", name, file);
    }
    if (loader.Modules().empty()) {
        std::cerr << "tarnwick-agent: no module could be loaded from " << moduleDir << std::endl;
        return kExitConfig;
    }
    // Containers that already run are announced only once the modules hold their policies.
    Framework::StartupGate::Close();
    loader.InitAll();
    PolicyDirectory policies(SDK::ConfigUtils::GetString("policy.dir", ""));
    DeliverPolicies(policies, loader);
    Framework::StartupGate::Open();
    // After the modules, so that its first answer already sees them; stopped before them.
    std::unique_ptr<MetricsServer> metrics = StartMetrics();
    NoticeRecord("Agent started with " + std::to_string(loader.Modules().size()) + " modules");
    // Ready: the modules hold their policies, and running containers are being handed to them.
    NotifyServiceManager("READY=1");

    StopSignal stop;
    const auto scanEvery =
        std::chrono::milliseconds(SDK::ConfigUtils::GetInt("policy.scan_ms", 1000));
    const int64_t statusEveryS = SDK::ConfigUtils::GetInt("status.interval_s", 60);
    std::thread watcher([&] {
        pthread_sigmask(SIG_UNBLOCK, &hangup, nullptr);
        auto lastStatus = std::chrono::steady_clock::now();
        auto lastTrim = lastStatus;
        while (!stop.WaitFor(scanEvery)) {
            if (HangupSignal::Take()) ReopenLog();
            DeliverPolicies(policies, loader);
            // What bursts (containers starting, storms) allocated and freed again goes back to
            // the system instead of staying in the allocator's free lists.
            if (std::chrono::steady_clock::now() - lastTrim >= kTrimEvery) {
                malloc_trim(0);
                lastTrim = std::chrono::steady_clock::now();
            }
            if (statusEveryS > 0 && std::chrono::steady_clock::now() - lastStatus >=
                                        std::chrono::seconds(statusEveryS)) {
                LogCounters();
                lastStatus = std::chrono::steady_clock::now();
            }
        }
    });

    waitForTerminationRequest();
    TW_LOG(AgentLogger(), PRIO_INFORMATION, "Agent stopping");
    NotifyServiceManager("STOPPING=1");
    stop.Raise();
    watcher.join();
    metrics.reset();
    loader.UnInitAll();
    LogCounters();
    NoticeRecord("Agent stopped");
    return EXIT_OK;
}

}  // namespace Agent
