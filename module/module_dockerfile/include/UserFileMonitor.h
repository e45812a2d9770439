#pragma once

#include <json/json.h>

#include <string>

#include "DockerFileTask.h"
#include "container/ContainerInfo.h"
#include "filenotify/FileNotifyMessage.h"

namespace Engine {

/// One add-watch request to "filenotify_task" per protected file, carrying the cache index.
void AddDockerUserFileMonitor(const DockerFileCacheInfo& info, DockerFileTask* task);
/// One remove-watch request per protected file.
void DeleteDockerUserFileMonitor(const DockerFileCacheInfo& info, DockerFileTask* task);
/// A file-notify event: finds its container, classifies it and raises "dockerfile_001".
void UserFileNotifyMessageProcess(FileNotifyMessage* msg, DockerFileTask* task);
/// The fifteen members that open both alarms, with the alarm's own name, class and type
/// (texts that live as long as the process, such as literals: the document points at them).
void FillAlarmEnvelope(const ContainerInfo& container, const char* eventName, const char* classId,
                       const char* type, Json::Value& root);
/// The alarms' "resource_info": the container's id and image id.
Json::Value ResourceInfo(const ContainerInfo& container);
/// Builds the "dockerfile_001" alarm and sends it to "data_comm_report_task".
void SendFileModificationMessage(const std::string& filePath, int operation,
                                 const ContainerInfo& container, DockerFileTask* task);

}  // namespace Engine
