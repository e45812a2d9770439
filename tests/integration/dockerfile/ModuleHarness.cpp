#include "ModuleHarness.h"

#include <dlfcn.h>
#include <ftw.h>
#include <openssl/evp.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <sstream>

#include "container/ContainerMessage.h"
#include "filenotify/FileNotifyMessage.h"
#include "framework/TaskCondition.h"
#include "process_collect/AuditEventMessage.h"
#include "sdk/LoggerUtils.h"

namespace DockerFileHarness {

uint64_t NextSequence() {
    static std::atomic<uint64_t> seq{0};
    return ++seq;
}

void LogCapture::log(const Poco::Message& msg) {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back({NextSequence(), msg.getSource(), msg.getText(), msg.getPriority()});
}

std::vector<LogLine> LogCapture::Lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
}

std::vector<LogLine> LogCapture::Exactly(const std::string& text) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<LogLine> out;
    for (const auto& l : lines_) {
        if (l.text == text) out.push_back(l);
    }
    return out;
}

std::vector<LogLine> LogCapture::Containing(const std::string& part) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<LogLine> out;
    for (const auto& l : lines_) {
        if (l.text.find(part) != std::string::npos) out.push_back(l);
    }
    return out;
}

std::string LogCapture::Dump() const {
    std::ostringstream out;
    for (const auto& l : Lines()) {
        out << "  [" << l.priority << "] " << (l.logger.empty() ? "<root>" : l.logger) << ": "
            << l.text << "\n";
    }
    return out.str();
}

LogCapture& Logs() {
    static LogCapture* capture = [] {
        // The loggers share it for the life of the process; this reference is never dropped.
        auto* channel = new LogCapture();
        channel->duplicate();
        SDK::LoggerUtils::GetInstance()->Configure(channel, Poco::Message::PRIO_DEBUG);
        SDK::LoggerUtils::GetInstance()->GetModuleLogger("dockerfile_module", true);
        SDK::LoggerUtils::GetInstance()->GetModuleLogger("framework", true);
        return channel;
    }();
    return *capture;
}

void Journal::Add(const std::string& task, std::shared_ptr<Framework::Message> msg) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back({NextSequence(), task, std::move(msg)});
}

void Journal::Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.clear();
}

std::vector<Recorded> Journal::All() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
}

std::vector<Recorded> Journal::To(const std::string& task) const {
    std::vector<Recorded> out;
    for (const auto& r : All()) {
        if (r.task == task) out.push_back(r);
    }
    return out;
}

Journal& Sent() {
    static Journal* journal = new Journal();  // outlives every task thread
    return *journal;
}

RecordingTask::RecordingTask(const std::string& name)
    : Framework::Task(name, "harness_feature", Framework::TaskCondition::TASK_TYPE_MESSAGE, 16) {}

int RecordingTask::EnqueueMsg(std::shared_ptr<Framework::Message>& msg) {
    Sent().Add(name(), msg);
    return 1;
}

std::string ModuleLibraryPath() {
    return std::string(TARNWICK_LIB_DIR) + "/libdockerfile_module.so";
}

namespace {
const char* const kNeighbourNames[] = {kContainerTask, kFileNotifyTask, kAuditTask, kReportTask};

// The library stays loaded for the life of the process, as in the agent: its code may still run
// on framework threads while a module is being released.
CreateModuleFunc LoadCreateModule(std::string& error) {
    static void* handle = nullptr;
    if (handle == nullptr) {
        handle = dlopen(ModuleLibraryPath().c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
            const char* why = dlerror();
            error = std::string("dlopen failed: ") + (why != nullptr ? why : "unknown");
            return nullptr;
        }
    }
    dlerror();
    auto create = reinterpret_cast<CreateModuleFunc>(dlsym(handle, "CreateModule"));
    if (create == nullptr) error = "no CreateModule symbol";
    return create;
}
}  // namespace

ModuleHarness::~ModuleHarness() { Stop(); }

bool ModuleHarness::Start(std::string& error) {
    Logs();
    neighbours_ = new Framework::Module("harness_neighbours");
    for (const char* name : kNeighbourNames) {
        if (neighbours_->RegisterTask(new RecordingTask(name), false) != 0) {
            error = std::string("cannot register neighbour ") + name;
            return false;
        }
    }
    CreateModuleFunc create = LoadCreateModule(error);
    if (create == nullptr) return false;
    module_ = create();
    if (module_ == nullptr) {
        error = "CreateModule returned null";
        return false;
    }
    module_->Init();
    moduleInitialised_ = true;
    if (ModuleTask() == nullptr) {
        error = "the module registered no task named dockerfile_task";
        return false;
    }
    return true;
}

void ModuleHarness::UnInitModule() {
    if (module_ == nullptr || !moduleInitialised_) return;
    module_->UnInit();
    moduleInitialised_ = false;
}

void ModuleHarness::StopModule() {
    if (module_ == nullptr) return;
    UnInitModule();
    module_->release();
    module_ = nullptr;
}

void ModuleHarness::Stop() {
    StopModule();
    if (neighbours_ == nullptr) return;
    for (const char* name : kNeighbourNames) neighbours_->UnRegisterTask(name);
    neighbours_->release();
    neighbours_ = nullptr;
}

int ModuleHarness::DeliverPolicy(const std::string& document) {
    Framework::Policy* current = nullptr;
    return module_->RefreshPolicy(kPolicyKey, kFeature, document, current);
}

Framework::Task* ModuleHarness::ModuleTask() const {
    return module_ != nullptr ? module_->FindTask(kModuleTask) : nullptr;
}

Framework::Task* ModuleHarness::Neighbour(const std::string& name) const {
    return neighbours_ != nullptr ? neighbours_->FindTask(name) : nullptr;
}

void ModuleHarness::SendContainer(const Engine::ContainerInfo& info) {
    auto* msg = new Engine::ContainerMessage(std::make_shared<Engine::ContainerInfo>(info));
    Neighbour(kContainerTask)->SendDirectMsg(kModuleTask, msg);
}

void ModuleHarness::SendFileEvent(const std::string& path, uint32_t mask, uint64_t extParm) {
    auto* msg = new Engine::FileNotifyMessage(path, mask, extParm);
    Neighbour(kFileNotifyTask)->SendDirectMsg(kModuleTask, msg);
}

void ModuleHarness::SendAuditEvent(const std::string& key, const std::vector<std::string>& paths,
                                   bool write, bool attr, const std::string& pid,
                                   const std::string& ppid, const std::string& processName) {
    auto* msg = new Engine::AuditEventMessage();
    msg->key = key;
    msg->syscall = std::make_shared<Engine::AuditLogSyscall>();
    for (const auto& p : paths) {
        Engine::AuditLogPath item;
        item.name = p;
        item.nametype = "NORMAL";
        msg->syscall->paths.push_back(item);
    }
    msg->syscall->write = write;
    msg->syscall->attr = attr;
    msg->syscall->pid = pid;
    msg->syscall->ppid = ppid;
    msg->syscall->processName = processName;
    Neighbour(kAuditTask)->SendDirectMsg(kModuleTask, msg);
}

bool ModuleHarness::Sync() {
    // The module's task has handled everything sent to it so far; what it sent on is in the
    // journal already (recording tasks take messages on the sender's thread).
    return Framework::Task::WaitIdle(kModuleTask, static_cast<int>(kDeadline.count()));
}

Engine::ContainerInfo MakeContainer(const std::string& id, const std::string& name,
                                    const std::string& imageId, const std::string& imageName,
                                    const std::string& rootPath, bool running) {
    Engine::ContainerInfo info;
    info.running = running;
    info.id = id;
    info.name = name;
    info.cmd = "/bin/sh -c run-" + name;
    info.imageId = imageId;
    info.imageName = imageName;
    info.rootPath = rootPath;
    info.labels["harness"] = "1";
    info.env = {"PATH=/usr/bin"};
    return info;
}

Json::Value IdRule(const std::string& imageId, const std::vector<std::string>& files,
                   bool elfForbidden) {
    Json::Value rule(Json::objectValue);
    rule["image_id"] = imageId;
    rule["elf_forbidden"] = elfForbidden;
    rule["protect_files"] = Json::Value(Json::arrayValue);
    for (const auto& f : files) rule["protect_files"].append(f);
    return rule;
}

Json::Value NameRule(const std::string& imageName, const std::vector<std::string>& files,
                     bool fuzzy, bool elfForbidden) {
    Json::Value rule(Json::objectValue);
    rule["image_name"] = imageName;
    rule["fuzzy_match"] = fuzzy;
    rule["elf_forbidden"] = elfForbidden;
    rule["protect_files"] = Json::Value(Json::arrayValue);
    for (const auto& f : files) rule["protect_files"].append(f);
    return rule;
}

std::string PolicyDocument(const std::vector<Json::Value>& rules, const std::string& hash,
                           const std::string& policyId) {
    Json::Value doc(Json::objectValue);
    doc["feature_name"] = kFeature;
    doc["hash"] = hash;
    doc["policy_id"] = policyId;
    doc["enabled"] = true;
    doc["content"] = Json::Value(Json::objectValue);
    doc["content"]["rules"] = Json::Value(Json::arrayValue);
    for (const auto& r : rules) doc["content"]["rules"].append(r);
    return ToText(doc);
}

std::string ToText(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

bool ParseJson(const std::string& text, Json::Value& out) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    return reader->parse(text.data(), text.data() + text.size(), &out, &errors);
}

std::string Sha256OfFile(const std::string& path) {
    FILE* f = fopen(path.c_str(), "rb");
    if (f == nullptr) return "";
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr);
    unsigned char buf[65536];
    size_t n = 0;
    while ((n = fread(buf, 1, sizeof(buf), f)) > 0) EVP_DigestUpdate(ctx.get(), buf, n);
    fclose(f);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    EVP_DigestFinal_ex(ctx.get(), digest, &len);
    static const char* const kHex = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < len; ++i) {
        out += kHex[digest[i] >> 4];
        out += kHex[digest[i] & 0xF];
    }
    return out;
}

}  // namespace DockerFileHarness
