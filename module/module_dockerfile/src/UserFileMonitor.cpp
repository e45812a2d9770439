#include "UserFileMonitor.h"

#include <json/json.h>

#include <cstdint>
#include <vector>

#include "DockerFileModule.h"
#include "filenotify/FileNotifyOpt.h"
#include "filenotify/FileNotifyWatchMessage.h"
#include "framework/DataMessage.h"
#include "sdk/CryptoCodeUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/Log.h"
#include "sdk/TimeUtils.h"

namespace Engine {

namespace {
const char* const kFileNotifyTask = "filenotify_task";
const char* const kReportTask = "data_comm_report_task";

// IN_CREATE, IN_MODIFY, IN_DELETE, IN_MOVE, IN_ATTRIB, IN_DELETE_SELF, IN_MOVE_SELF: one
// element each, in this order.
const std::vector<unsigned int> kWatchMasks = {0x100, 0x2, 0x200, 0xC0, 0x4, 0x400, 0x800};

enum FileOperation { kCreated = 0, kAttributes = 1, kModified = 2, kDeleted = 3, kMoved = 4 };

Poco::Logger* Log() { return DockerFileModule::GetLoggerPtr(); }

// The operation of an event: the first matching test decides, in this fixed order.
int ClassifyEvent(const std::string& path, uint32_t mask) {
    if (mask & 0x100) {
        TW_LOG(Log(), PRIO_DEBUG,
               "Docker file module receive create message, FilePath=%s, eventMask=%u", path, mask);
        return kCreated;
    }
    if (mask & 0x2) {
        TW_LOG(Log(), PRIO_DEBUG,
               "Docker file module receive modify message, FilePath=%s, eventMask=%u", path, mask);
        return kModified;
    }
    if (mask & 0xC0) {
        TW_LOG(Log(), PRIO_DEBUG,
               "Docker file module receive move message, FilePath=%s, eventMask=%u", path, mask);
        return kMoved;
    }
    if (mask & 0x600) {
        TW_LOG(Log(), PRIO_DEBUG,
               "Docker file module receive delete message, FilePath=%s, eventMask=%u", path, mask);
        return kDeleted;
    }
    if (mask & 0x4) {
        TW_LOG(Log(), PRIO_DEBUG,
               "Docker file module receive change status message, FilePath=%s, eventMask=%u", path,
               mask);
        return kAttributes;
    }
    TW_LOG(Log(), PRIO_DEBUG, "Docker file module receive other message, FilePath=%s, eventMask=%u",
           path, mask);
    return kModified;
}
}  // namespace

void AddDockerUserFileMonitor(const DockerFileCacheInfo& info, DockerFileTask* task) {
    const std::vector<unsigned int> masks = kWatchMasks;
    _FileNotifyOpt options;
    options.extParm = info.index;  // how each event finds its container again
    for (const auto& file : info.protectFiles) {
        const std::string watched = info.containerInfo.rootPath + file;
        auto* request = new FileNotifyWatchMessage(task, watched, masks, options);
        TW_LOG(Log(), PRIO_DEBUG, "Docker file add notify: %s", watched);
        task->SendDirectMsg(kFileNotifyTask, request);
    }
}

void DeleteDockerUserFileMonitor(const DockerFileCacheInfo& info, DockerFileTask* task) {
    for (const auto& file : info.protectFiles) {
        const std::string watched = info.containerInfo.rootPath + file;
        auto* request = new FileNotifyWatchMessage(task, watched, false);
        TW_LOG(Log(), PRIO_DEBUG, "Docker file delete notify: %s", watched);
        task->SendDirectMsg(kFileNotifyTask, request);
    }
}

void UserFileNotifyMessageProcess(FileNotifyMessage* msg, DockerFileTask* task) {
    const std::string path = msg->GetEventFilePath();
    const uint32_t mask = msg->GetEventMask();
    const uint64_t index = msg->GetExtParm();
    DockerFileCacheInfo record;
    if (!task->MatchDockerCache(path, index, record)) {
        TW_LOG(Log(), PRIO_WARNING, "Docker file module inotify message not match container.");
        return;
    }
    const int operation = ClassifyEvent(path, mask);
    // The match guarantees the root path is a prefix, so the cut cannot run past the end.
    const std::string inContainer = path.substr(record.containerInfo.rootPath.size());
    SendFileModificationMessage(inContainer, operation, record.containerInfo, task);
}

// Keys and fixed texts are static strings: JsonCpp then keeps a pointer instead of copying each
// into an allocation of its own, which made up much of an alarm's cost in a write storm.
void FillAlarmEnvelope(const ContainerInfo& container, const char* eventName, const char* classId,
                       const char* type, Json::Value& root) {
    root[Json::StaticString("event_id")] = SDK::CryptoCodeUtils::GenerateUUID();
    root[Json::StaticString("event_name")] = Json::StaticString(eventName);
    root[Json::StaticString("event_classid")] = Json::StaticString(classId);
    root[Json::StaticString("type")] = Json::StaticString(type);
    root[Json::StaticString("container_name")] = container.name;
    root[Json::StaticString("image_name")] = container.imageName;
    root[Json::StaticString("occur_time")] = Json::Int64(SDK::TimeUtils::GetCurrentTimestampS());
    root[Json::StaticString("event_category")] = 3000;
    root[Json::StaticString("event_type")] = 3021;
    root[Json::StaticString("serverity")] = 2;  // the receiving side expects this spelling
    root[Json::StaticString("event_count")] = 1;
    root[Json::StaticString("attack_phase")] = 4;
    root[Json::StaticString("attack_tag")] = 4;
    root[Json::StaticString("confidence")] = 60;
    root[Json::StaticString("detect_module")] = Json::StaticString("dockerfile_module");
}

Json::Value ResourceInfo(const ContainerInfo& container) {
    Json::Value resource;
    resource[Json::StaticString("container_id")] = container.id;
    resource[Json::StaticString("image_id")] = container.imageId;
    return resource;
}

void SendFileModificationMessage(const std::string& filePath, int operation,
                                 const ContainerInfo& container, DockerFileTask* task) {
    Json::Value root;
    FillAlarmEnvelope(container, "Container file exception", "dockerfile_001",
                      "container_user_file_violation", root);
    root[Json::StaticString("resource_info")] = ResourceInfo(container);

    Json::Value file;
    file[Json::StaticString("file_path")] = filePath;
    file[Json::StaticString("file_operation")] = operation;
    Json::Value files;
    files.append(file);
    root[Json::StaticString("file_info")] = files;

    const std::string text = SDK::JsonUtils::JsonToString(root);
    TW_LOG(Log(), PRIO_INFORMATION,
           "Docker file send user file monitor alarm, container(%s), image(%s), file(%s)",
           container.name, container.imageName, filePath);
    task->SendDirectMsg(kReportTask, new Framework::DataMessage("2", text));
}

}  // namespace Engine
