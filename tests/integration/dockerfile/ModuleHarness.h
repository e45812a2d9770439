#pragma once

#include <Poco/Channel.h>
#include <Poco/Message.h>
#include <json/json.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "container/ContainerInfo.h"
#include "framework/Message.h"
#include "framework/Module.h"
#include "framework/Task.h"
#include "support/TempDir.h"

namespace DockerFileHarness {

constexpr std::chrono::milliseconds kDeadline{5000};

/// One ordering for log lines and sent messages, so a test can tell which came first.
uint64_t NextSequence();

struct LogLine {
    uint64_t seq = 0;
    std::string logger;
    std::string text;
    int priority = 0;
};

/// A Poco channel keeping every record it is given. Installed as the agent's root channel, so
/// every logger of the process (root, "dockerfile_module", "framework") writes here.
class LogCapture : public Poco::Channel {
public:
    void log(const Poco::Message& msg) override;

    std::vector<LogLine> Lines() const;
    void Clear();
    /// Lines whose text equals `text` exactly.
    std::vector<LogLine> Exactly(const std::string& text) const;
    /// Lines whose text contains `part`.
    std::vector<LogLine> Containing(const std::string& part) const;
    /// All lines, one per row, for failure messages.
    std::string Dump() const;

private:
    mutable std::mutex mutex_;  // guards lines_
    std::vector<LogLine> lines_;
};

/// The process-wide log capture (installed on first use, level debug).
LogCapture& Logs();

struct Recorded {
    uint64_t seq = 0;
    std::string task;  ///< the recording task the message was sent to
    std::shared_ptr<Framework::Message> msg;
};

/// Every message sent to a recording task, in the order the senders handed them over.
class Journal {
public:
    void Add(const std::string& task, std::shared_ptr<Framework::Message> msg);
    void Clear();
    std::vector<Recorded> All() const;
    std::vector<Recorded> To(const std::string& task) const;
    /// Messages of type T sent to `task`, in order.
    template <class T>
    std::vector<std::shared_ptr<T>> Of(const std::string& task) const {
        std::vector<std::shared_ptr<T>> out;
        for (const auto& r : To(task)) {
            if (auto typed = std::dynamic_pointer_cast<T>(r.msg)) out.push_back(typed);
        }
        return out;
    }

private:
    mutable std::mutex mutex_;  // guards entries_
    std::vector<Recorded> entries_;
};

Journal& Sent();

/// A framework task registered under a neighbour's name: it takes every message handed to it
/// into the journal on the sender's thread (so the journal keeps the true send order) and
/// never handles any.
class RecordingTask : public Framework::Task {
public:
    explicit RecordingTask(const std::string& name);
    int EnqueueMsg(std::shared_ptr<Framework::Message>& msg) override;
};

constexpr const char* kContainerTask = "container_collect_task";
constexpr const char* kFileNotifyTask = "filenotify_task";
constexpr const char* kAuditTask = "audit_task";
constexpr const char* kReportTask = "data_comm_report_task";
constexpr const char* kModuleTask = "dockerfile_task";
constexpr const char* kPolicyKey = "10001";
constexpr const char* kFeature = "dockerfile_feature";

/// Path of the module library in the build tree.
std::string ModuleLibraryPath();

/// The module under test, loaded with dlopen and CreateModule as the agent does, running on the
/// real framework next to the four recording neighbours.
class ModuleHarness {
public:
    ModuleHarness() = default;
    ~ModuleHarness();
    ModuleHarness(const ModuleHarness&) = delete;
    ModuleHarness& operator=(const ModuleHarness&) = delete;

    /// Registers the neighbours, loads the module and calls its Init. `error` says what failed.
    bool Start(std::string& error);
    /// Calls the module's UnInit once (idempotent); the object stays alive until StopModule.
    void UnInitModule();
    /// UnInitModule, then releases the module (idempotent); the neighbours stay registered.
    void StopModule();
    /// StopModule, then unregisters the neighbours.
    void Stop();

    /// Delivers a policy document under key "10001" as the agent does; the framework's result.
    int DeliverPolicy(const std::string& document);

    /// The module's task, or null when it is not (or no longer) registered.
    Framework::Task* ModuleTask() const;

    /// Sends a start (running true) or exit notification as "container_collect_task" would.
    void SendContainer(const Engine::ContainerInfo& info);
    /// Sends one file-notify event as "filenotify_task" would.
    void SendFileEvent(const std::string& path, uint32_t mask, uint64_t extParm);
    /// Sends one audit event as "audit_task" would.
    void SendAuditEvent(const std::string& key, const std::vector<std::string>& paths, bool write,
                        bool attr, const std::string& pid = "", const std::string& ppid = "",
                        const std::string& processName = "");
    /// Returns once the module's task handled everything sent to it before this call (its idle
    /// barrier); false when that took longer than the deadline.
    bool Sync();

private:
    Framework::Task* Neighbour(const std::string& name) const;

    Framework::Module* neighbours_ = nullptr;
    Framework::Module* module_ = nullptr;
    bool moduleInitialised_ = false;
};

/// A container description with the members the module reads.
Engine::ContainerInfo MakeContainer(const std::string& id, const std::string& name,
                                    const std::string& imageId, const std::string& imageName,
                                    const std::string& rootPath, bool running = true);

/// One rule object of a policy document.
Json::Value IdRule(const std::string& imageId, const std::vector<std::string>& files,
                   bool elfForbidden = false);
Json::Value NameRule(const std::string& imageName, const std::vector<std::string>& files,
                     bool fuzzy = false, bool elfForbidden = false);
/// A whole policy document holding `rules`.
std::string PolicyDocument(const std::vector<Json::Value>& rules, const std::string& hash = "h1",
                           const std::string& policyId = "p1");
/// Compact JSON text of a value.
std::string ToText(const Json::Value& value);
/// Parses JSON text; false when it is not JSON.
bool ParseJson(const std::string& text, Json::Value& out);

/// A private temporary directory removed (with its contents) on destruction.
using TempDir = TestSupport::TempDir;

/// Lower-case hex SHA-256 of a file, computed here independently of the agent's helper.
std::string Sha256OfFile(const std::string& path);

}  // namespace DockerFileHarness
