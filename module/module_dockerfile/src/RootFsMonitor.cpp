#include "RootFsMonitor.h"

#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cstdint>

#include "DockerFileModule.h"
#include "UserFileMonitor.h"
#include "framework/DataMessage.h"
#include "process_collect/AuditFileSystemCtrlMessage.h"
#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/Log.h"
#include "sdk/PathUtils.h"
#include "sdk/ProcessUtils.h"
#include "sdk/TimeUtils.h"
#include "sdk/UniqueFd.h"

namespace Engine {

namespace {
const char* const kAuditTask = "audit_task";
const char* const kReportTask = "data_comm_report_task";
constexpr std::size_t kMaxPathLength = 4096;
constexpr long kMaxHashedSize = 10485760;  // 10 MiB: larger files are not read
constexpr std::size_t kElfProbeBytes = 6;

Poco::Logger* Log() { return DockerFileModule::GetLoggerPtr(); }

void SendAuditRuleRequest(const DockerFileCacheInfo& info, DockerFileTask* task,
                          const char* option) {
    const ContainerInfo& container = info.containerInfo;
    const std::string argument = container.rootPath + " -p wa";
    std::string key;
    key.reserve(container.id.size() + 4);
    key.append("cid:").append(container.id);
    auto* request = new AuditFileSystemCtrlMessage(task);
    request->ruleKey = key;
    request->ruleOption = option;
    request->ruleArgument = argument;
    task->SendDirectMsg(kAuditTask, request);
}

int32_t ToPid(const std::string& text) {
    return static_cast<int32_t>(strtol(text.c_str(), nullptr, 10));
}

// The container of the acting process; through its parent when the process already exited.
std::string ActingContainerId(int32_t pid, int32_t ppid) {
    std::string containerId;
    if (pid <= 0) return containerId;
    SDK::ProcessUtils::GetContainerID(pid, containerId);
    if (containerId.empty() && ppid > 0) SDK::ProcessUtils::GetContainerID(ppid, containerId);
    return containerId;
}
}  // namespace

void AddDockerRootFsMonitor(const DockerFileCacheInfo& info, DockerFileTask* task) {
    if (!info.elfForbidden) return;
    TW_LOG(Log(), PRIO_DEBUG, "Docker file rootFs monitor add audit rule, container(%s), image(%s)",
           info.containerInfo.name, info.containerInfo.imageName);
    SendAuditRuleRequest(info, task, "-w");
}

void DeleteDockerRootFsMonitor(const DockerFileCacheInfo& info, DockerFileTask* task) {
    if (!info.elfForbidden) return;
    TW_LOG(Log(), PRIO_DEBUG,
           "Docker file rootFs monitor delete audit rule, container(%s), image(%s)",
           info.containerInfo.name, info.containerInfo.imageName);
    SendAuditRuleRequest(info, task, "-W");
}

bool IsElf(const std::string& path, bool& isElf) {
    const std::string canonical = SDK::PathUtils::GetExistedCanonicalizePath(path);
    if (canonical.empty()) {
        TW_LOG(Log(), PRIO_WARNING, "Docker file path invalid: %s.", path);
        return false;
    }
    // Looked at through an O_PATH handle first: a FIFO or device (or a link swapped in after
    // resolving) is examined without being opened for reading, so it neither blocks the task
    // nor gets read.
    SDK::UniqueFd handle(SDK::FileUtils::OpenPathNoFollow(canonical));
    struct stat st;
    if (!handle.Valid() || fstat(handle.Get(), &st) != 0) {
        TW_LOG(Log(), PRIO_WARNING, "Docker file open %s failed to check elf.", canonical);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        isElf = false;
        return true;
    }
    const int fd = SDK::FileUtils::ReopenForRead(handle.Get());
    FILE* file = fd >= 0 ? fdopen(fd, "r") : nullptr;
    if (file == nullptr) {
        if (fd >= 0) close(fd);
        TW_LOG(Log(), PRIO_WARNING, "Docker file open %s failed to check elf.", canonical);
        return false;
    }
    unsigned char head[kElfProbeBytes] = {0};
    const std::size_t got = fread(head, 1, kElfProbeBytes, file);
    isElf = got >= kElfProbeBytes && head[0] == 0x7F && head[1] == 'E' && head[2] == 'L' &&
            head[3] == 'F';
    fclose(file);
    return true;
}

bool GetFileStatInfo(const AuditEventMessage& msg, struct stat* st, char* resolvedPath) {
    const AuditLogSyscall& syscall = *msg.syscall;
    const std::string name = syscall.paths.front().name;
    if (name.size() > kMaxPathLength || realpath(name.c_str(), resolvedPath) == nullptr) {
        TW_LOG(Log(), PRIO_WARNING, "Docker file audit receive invalid file path: %s", name);
        return false;
    }
    const std::string resolved = resolvedPath;
    TW_LOG(Log(), PRIO_DEBUG,
           "Docker file rootFs receive audit message. write(%b), attr(%b), file(%s)", syscall.write,
           syscall.attr, name);
    if (stat(resolvedPath, st) != 0) {
        TW_LOG(Log(), PRIO_WARNING, "Docker file lstat failed: %s", resolved);
        return false;
    }
    // A regular file with the owner-execute bit; group and other bits do not count.
    if ((st->st_mode & 0xF040) != 0x8040) {
        TW_LOG(Log(), PRIO_DEBUG, "Docker file audit not file or not executable: %s ", resolved);
        return false;
    }
    bool elf = false;
    if (!IsElf(resolved, elf) || !elf) {
        TW_LOG(Log(), PRIO_DEBUG, "Docker file audit file is not elf %s.", resolved);
        return false;
    }
    return true;
}

void AuditMessageProcess(const AuditEventMessage& msg, DockerFileTask* task) {
    if (!msg.syscall || msg.syscall->paths.empty()) {
        TW_LOG(Log(), PRIO_WARNING, "Docker file receive invalid audit message.");
        return;
    }
    struct stat st;
    memset(&st, 0, sizeof(st));
    char resolvedPath[kMaxPathLength + 1];
    memset(resolvedPath, 0, sizeof(resolvedPath));
    if (!GetFileStatInfo(msg, &st, resolvedPath)) return;
    const std::string resolved = resolvedPath;

    const AuditLogSyscall& syscall = *msg.syscall;
    int operation = 0;
    if (syscall.write) {
        operation = 2;  // a write wins over an attribute change
    } else if (syscall.attr) {
        operation = 1;
    } else {
        TW_LOG(Log(), PRIO_WARNING, "Docker file audit receive invalid event. %s", resolved);
        return;
    }
    if (msg.key.find("cid:") != 0) {
        TW_LOG(Log(), PRIO_WARNING, "Docker file audit get invalid module info: %s", msg.key);
        return;
    }
    const std::string containerId = msg.key.substr(4);
    DockerFileCacheInfo info;
    if (!task->GetDockerInfoFromCache(containerId, info)) {
        TW_LOG(Log(), PRIO_WARNING, "Docker file audit get container info failed, cid:%s",
               containerId);
        return;
    }
    std::string hash;
    if (st.st_size > kMaxHashedSize) {
        hash = "Oversize:" + std::to_string(static_cast<long long>(st.st_size));
    } else {
        SDK::FileUtils::GetFileSha256(resolved, hash, kMaxHashedSize);
    }
    // Cut by length only. A resolved path shorter than the root throws std::out_of_range,
    // which the framework's message loop catches, logs and counts.
    const std::string relativePath = resolved.substr(info.containerInfo.rootPath.size());
    SendRootFSAlarmMessage(syscall, relativePath, hash, st, operation, info.containerInfo, task);
}

void FillBasicAlarmInfo(const ContainerInfo& container, Json::Value& root) {
    FillAlarmEnvelope(container, "Container rootFs exception", "dockerfile_002",
                      "container_root_fs_modification", root);
}

void SendRootFSAlarmMessage(const AuditLogSyscall& syscall, const std::string& filePath,
                            const std::string& fileSha256, const struct stat& st, int operation,
                            const ContainerInfo& container, DockerFileTask* task) {
    Json::Value root;
    FillBasicAlarmInfo(container, root);

    root["resource_info"] = ResourceInfo(container);

    Json::Value file;
    file["file_path"] = filePath;
    file["file_sha256"] = fileSha256;
    file["file_type"] = "elf";
    file["file_attr"] = Json::UInt(st.st_mode);
    file["file_operation"] = operation;
    Json::Value files;
    files.append(file);
    root["file_info"] = files;

    const int32_t pid = ToPid(syscall.pid);
    const int32_t ppid = ToPid(syscall.ppid);
    Json::Value process;
    process["process_name"] = syscall.processName;
    process["process_pid"] = pid;
    process["parent_process_pid"] = ppid;
    process["process_container_id"] = ActingContainerId(pid, ppid);
    Json::Value processes;
    processes.append(process);
    root["process_info"] = processes;

    const std::string text = SDK::JsonUtils::JsonToString(root);
    TW_LOG(Log(), PRIO_INFORMATION,
           "Docker file send rootFs monitor alarm, container(%s), image(%s), file(%s), event(%d)",
           container.name, container.imageName, filePath, operation);
    task->SendDirectMsg(kReportTask, new Framework::DataMessage("2", text));
}

}  // namespace Engine
