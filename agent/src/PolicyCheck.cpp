#include "agent/PolicyCheck.h"

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>
#include <Poco/Path.h>

#include <fstream>
#include <mutex>
#include <sstream>

#include "agent/CheckExit.h"
#include "agent/ModuleLoader.h"
#include "agent/PolicyDirectory.h"
#include "framework/Module.h"
#include "sdk/LogEscapingChannel.h"
#include "sdk/LoggerUtils.h"

namespace Agent {

namespace {
// Document text may hold anything; the report is for a terminal.
std::string Shown(const std::string& text) { return SDK::LogEscapingChannel::Escape(text); }

std::string Quoted(const std::string& text) { return "\"" + Shown(text) + "\""; }

// Keeps what the modules log while one document is parsed.
class LogRecorder : public Poco::Channel {
public:
    void log(const Poco::Message& msg) override {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(PriorityName(msg.getPriority()) + ": " + msg.getText());
    }
    std::vector<std::string> Lines() {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }

private:
    static std::string PriorityName(Poco::Message::Priority prio) {
        return prio <= Poco::Message::PRIO_ERROR ? "error" : "warning";
    }
    std::mutex mutex_;  // guards lines_
    std::vector<std::string> lines_;
};

bool ReadDocument(const std::string& file, std::string& document, std::string& why) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        why = "cannot be read";
        return false;
    }
    in.seekg(0, std::ios::end);
    const auto size = in.tellg();
    if (size < 0) {
        why = "cannot be read";
        return false;
    }
    if (static_cast<size_t>(size) > PolicyDirectory::kMaxDocumentBytes) {
        why = "is larger than 16 MiB; the agent refuses it";
        return false;
    }
    in.seekg(0, std::ios::beg);
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) {
        why = "cannot be read";
        return false;
    }
    document = text.str();
    return true;
}

void ReportRules(const std::string& file, const Framework::PolicyDescription& d,
                 std::ostream& out) {
    size_t number = 0;
    for (const auto& rule : d.rules) {
        out << file << ": rule " << ++number << " by image " << (rule.byId ? "id " : "name ")
            << Quoted(rule.image) << (rule.fuzzy ? " (fuzzy: anywhere in the name)" : "")
            << ": executables " << (rule.elfForbidden ? "forbidden" : "allowed") << ", "
            << rule.files.size()
            << (rule.files.size() == 1 ? " protected file" : " protected files") << "\n";
        for (const auto& f : rule.files) out << "    " << Shown(f) << "\n";
    }
}
}  // namespace

int PolicyCheck::Report(const std::string& file, const Framework::PolicyDescription& d,
                        const std::vector<std::string>& moduleLog, std::ostream& out) {
    const std::string name = Shown(file);
    if (d.valid) {
        out << name << ": policy key " << Shown(d.key) << ", feature " << Quoted(d.feature)
            << ", policy id " << Quoted(d.policyId) << ", hash " << Quoted(d.hash) << ", "
            << (d.enabled ? "enabled" : "disabled") << "\n";
        ReportRules(name, d, out);
    }
    for (const auto& finding : d.findings) {
        out << name << ":" << finding.line << ": " << (d.valid ? "warning: " : "error: ")
            << Shown(finding.where) << " " << Shown(finding.reason) << "\n";
    }
    for (const auto& line : moduleLog) out << name << ": module log: " << line << "\n";
    if (!d.valid) {
        out << name << ": invalid, the module ignores it\n";
        return kCheckInvalid;
    }
    if (!d.protectsNothing.empty()) {
        out << name << ": protects nothing: " << Shown(d.protectsNothing) << "\n";
        if (!d.applied) out << name << ": a running agent keeps the policy it had before\n";
        return kCheckAttention;
    }
    const size_t warnings = d.findings.size() + moduleLog.size();
    if (warnings > 0) {
        out << name << ": valid, with " << warnings << " warnings\n";
        return kCheckAttention;
    }
    out << name << ": valid\n";
    return kCheckValid;
}

int PolicyCheck::Run(const std::string& file, const std::string& moduleDir, std::ostream& out) {
    std::string document;
    std::string why;
    if (!ReadDocument(file, document, why)) {
        out << Shown(file) << ": " << why << "\n";
        return kCheckInvalid;
    }
    Poco::AutoPtr<LogRecorder> recorder(new LogRecorder());
    SDK::LoggerUtils::GetInstance()->Configure(recorder, Poco::Message::PRIO_WARNING);

    ModuleLoader loader;
    for (const auto& library : ModuleLoader::ListModuleFiles(moduleDir)) {
        std::string error;
        if (!loader.LoadOne(library, error)) continue;  // the check needs only one of them
        SDK::LoggerUtils::GetInstance()->GetModuleLogger(loader.Modules().back().module->name(),
                                                         true);
    }
    const std::string key = PolicyDirectory::KeyOf(Poco::Path(file).getFileName());
    Framework::PolicyDescription description;
    if (!loader.DescribePolicy(key, document, false, description)) {
        out << Shown(file) << ": no module in " << Shown(moduleDir) << " takes policy key "
            << Quoted(key) << "\n";
        return kCheckInvalid;
    }
    return Report(file, description, recorder->Lines(), out);
}

std::string PolicyCheck::DeliveryWarning(const std::string& file,
                                         const Framework::PolicyDescription& d) {
    if (d.protectsNothing.empty()) return std::string();
    std::string text =
        "Policy " + file + " under key " + d.key + " protects nothing: " + d.protectsNothing;
    if (!d.applied) text += "; the tasks keep the policy they had";
    return text;
}

}  // namespace Agent
