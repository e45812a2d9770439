#pragma once

#include <json/json.h>
#include <sys/stat.h>

#include <string>

#include "DockerFileTask.h"
#include "container/ContainerInfo.h"
#include "process_collect/AuditEventMessage.h"
#include "process_collect/AuditLogSyscall.h"

namespace Engine {

/// Asks "audit_task" to watch the container's root filesystem (only when executables are
/// forbidden for it).
void AddDockerRootFsMonitor(const DockerFileCacheInfo& info, DockerFileTask* task);
/// Asks "audit_task" to remove that watch (same condition).
void DeleteDockerRootFsMonitor(const DockerFileCacheInfo& info, DockerFileTask* task);

/// An audit event: raises "dockerfile_002" when an owner-executable ELF file was written or had
/// its attributes changed inside a cached container.
void AuditMessageProcess(const AuditEventMessage& msg, DockerFileTask* task);
/// Resolves the event's first path into `resolvedPath` (at least 4,097 bytes), stats it into
/// `st` and applies the file filters; false (logged) when the event is to be dropped.
bool GetFileStatInfo(const AuditEventMessage& msg, struct stat* st, char* resolvedPath);
/// Whether the file starts with the ELF magic; false when it cannot be examined.
bool IsElf(const std::string& path, bool& isElf);

/// The fifteen common alarm keys of "dockerfile_002".
void FillBasicAlarmInfo(const ContainerInfo& container, Json::Value& root);
/// Builds the "dockerfile_002" alarm and sends it to "data_comm_report_task".
void SendRootFSAlarmMessage(const AuditLogSyscall& syscall, const std::string& filePath,
                            const std::string& fileSha256, const struct stat& st, int operation,
                            const ContainerInfo& container, DockerFileTask* task);

}  // namespace Engine
