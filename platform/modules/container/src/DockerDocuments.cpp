#include "container/DockerDocuments.h"

#include <json/json.h>

#include <cstdlib>
#include <cstring>
#include <exception>

#include "sdk/JsonUtils.h"

namespace Engine {

namespace {
constexpr size_t kMaxIdLength = 64;
// Prefixes of a fully qualified reference that the familiar form leaves out, longest first.
const char* const kImplicitPrefixes[] = {"docker.io/library/", "docker.io/", "localhost/"};

// JsonCpp's operator[] throws on non-objects; this lookup never does.
const Json::Value& Member(const Json::Value& obj, const char* key) {
    static const Json::Value kNull;
    if (!obj.isObject()) return kNull;
    const Json::Value* found = obj.find(key, key + std::strlen(key));
    return found != nullptr ? *found : kNull;
}

std::string String(const Json::Value& obj, const char* key) {
    const Json::Value& v = Member(obj, key);
    return v.isString() ? v.asString() : std::string();
}

bool Bool(const Json::Value& obj, const char* key) {
    const Json::Value& v = Member(obj, key);
    return v.isBool() && v.asBool();
}

// The string elements of an array member; other elements are skipped.
std::vector<std::string> Strings(const Json::Value& obj, const char* key) {
    std::vector<std::string> out;
    const Json::Value& v = Member(obj, key);
    if (!v.isArray()) return out;
    for (const auto& item : v) {
        if (item.isString()) out.push_back(item.asString());
    }
    return out;
}

// The member names of an object member ("80/tcp": {}, "/data": {}).
std::vector<std::string> Keys(const Json::Value& obj, const char* key) {
    const Json::Value& v = Member(obj, key);
    if (!v.isObject()) return {};
    return v.getMemberNames();
}

std::map<std::string, std::string> StringMap(const Json::Value& obj, const char* key) {
    std::map<std::string, std::string> out;
    const Json::Value& v = Member(obj, key);
    if (!v.isObject()) return out;
    for (const auto& name : v.getMemberNames()) {
        const Json::Value& item = Member(v, name.c_str());
        if (item.isString()) out[name] = item.asString();
    }
    return out;
}

int32_t PortNumber(const std::string& text) {
    char* end = nullptr;
    const long n = std::strtol(text.c_str(), &end, 10);
    if (end == text.c_str() || n < 0 || n > 65535) return 0;
    return static_cast<int32_t>(n);
}

// "80/tcp": [{"HostIp": "0.0.0.0", "HostPort": "8080"}, ...] or null when not published.
std::vector<ContainerInfo::PortMapping> Ports(const Json::Value& settings) {
    std::vector<ContainerInfo::PortMapping> out;
    const Json::Value& ports = Member(settings, "Ports");
    if (!ports.isObject()) return out;
    for (const auto& key : ports.getMemberNames()) {
        ContainerInfo::PortMapping base;
        const size_t slash = key.find('/');
        base.containerPort = PortNumber(key.substr(0, slash));
        base.protocol = slash == std::string::npos ? "tcp" : key.substr(slash + 1);
        const Json::Value& bindings = Member(ports, key.c_str());
        if (!bindings.isArray() || bindings.empty()) {
            out.push_back(base);
            continue;
        }
        for (const auto& binding : bindings) {
            ContainerInfo::PortMapping mapping = base;
            mapping.hostPort = PortNumber(String(binding, "HostPort"));
            out.push_back(mapping);
        }
    }
    return out;
}

std::vector<MountPoint> Mounts(const Json::Value& root) {
    std::vector<MountPoint> out;
    const Json::Value& mounts = Member(root, "Mounts");
    if (!mounts.isArray()) return out;
    for (const auto& m : mounts) {
        if (!m.isObject()) continue;
        MountPoint point;
        point.source = String(m, "Source");
        point.destination = String(m, "Destination");
        point.mode = String(m, "Mode");
        point.rw = Bool(m, "RW");
        out.push_back(point);
    }
    return out;
}

std::string JoinCommand(const std::string& path, const std::vector<std::string>& args) {
    std::string cmd = path;
    for (const auto& arg : args) {
        if (!cmd.empty()) cmd += ' ';
        cmd += arg;
    }
    return cmd;
}

// Parses a whole document whose top level must be of `type` (named in the error as `what`).
bool ParseDocument(const std::string& text, Json::ValueType type, const char* what,
                   Json::Value& root, std::string& error) {
    if (SDK::JsonUtils::ParseJsonStr(text, root) != 0) {
        error = "not a complete JSON document";
        return false;
    }
    if (root.type() != type) {
        error = std::string("not a JSON ") + what;
        return false;
    }
    return true;
}

bool ParseObject(const std::string& text, Json::Value& root, std::string& error) {
    return ParseDocument(text, Json::objectValue, "object", root, error);
}

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// Every path the agent watches for the container is this root joined with a path inside the
// container: it must name a directory below "/" without detours, or watches meant for the
// container would land on the host's own files.
bool UsableRootPath(const std::string& path) {
    if (path.size() < 2 || path[0] != '/' || path.find('\0') != std::string::npos) return false;
    const std::string padded = path + "/";
    if (padded.find("/../") != std::string::npos || padded.find("/./") != std::string::npos) {
        return false;
    }
    return padded.find_first_not_of('/') != std::string::npos;
}

bool FillInfo(const Json::Value& root, ContainerInfo& info, std::string& error) {
    const std::string id = String(root, "Id");
    if (!IsContainerId(id)) {
        error = "no valid Id";
        return false;
    }
    const Json::Value& state = Member(root, "State");
    const Json::Value& running = Member(state, "Running");
    if (!running.isBool()) {
        error = "no boolean State.Running";
        return false;
    }
    const Json::Value& config = Member(root, "Config");
    const Json::Value& host = Member(root, "HostConfig");
    const Json::Value& network = Member(root, "NetworkSettings");

    info = ContainerInfo();
    info.running = running.asBool();
    info.paused = Bool(state, "Paused");
    info.restarting = Bool(state, "Restarting");
    info.privileged = Bool(host, "Privileged");
    info.id = id;
    info.name = String(root, "Name");
    if (!info.name.empty() && info.name[0] == '/') info.name.erase(0, 1);
    info.args = Strings(root, "Args");
    info.cmd = JoinCommand(String(root, "Path"), info.args);
    info.env = Strings(config, "Env");
    info.entrypoint = Strings(config, "Entrypoint");
    info.exposedPorts = Keys(config, "ExposedPorts");
    info.volumes = Keys(config, "Volumes");
    info.hostName = String(config, "Hostname");
    info.imageId = String(root, "Image");
    info.imageName = FamiliarImageName(String(config, "Image"));
    info.capAdd = Strings(host, "CapAdd");
    info.status = String(state, "Status");
    info.created = String(root, "Created");
    info.startedAt = String(state, "StartedAt");
    info.finishedAt = String(state, "FinishedAt");
    info.networkMode = String(host, "NetworkMode");
    info.user = String(config, "User");
    info.networks = Keys(network, "Networks");
    info.labels = StringMap(config, "Labels");
    info.ports = Ports(network);
    info.workingDir = String(config, "WorkingDir");
    info.mountPoints = Mounts(root);
    const Json::Value& graph = Member(root, "GraphDriver");
    info.rootPath = String(Member(graph, "Data"), "MergedDir");
    if (!info.running || UsableRootPath(info.rootPath)) return true;
    // Podman's vfs storage (and Docker's) has no merged directory; nothing else in the
    // document names the root as a host path.
    const std::string driver = String(graph, "Name");
    error = "no usable GraphDriver.Data.MergedDir for a running container (storage driver '" +
            driver + "')";
    return false;
}
}  // namespace

const char* ContainerEventFilters() {
    return R"({"type":["container"],"event":["start","die","died"]})";
}

std::string FamiliarImageName(const std::string& reference) {
    for (const char* prefix : kImplicitPrefixes) {
        const std::string text(prefix);
        if (reference.size() > text.size() && StartsWith(reference, text)) {
            return reference.substr(text.size());
        }
    }
    return reference;
}

bool IsContainerId(const std::string& text) {
    if (text.empty() || text.size() > kMaxIdLength) return false;
    for (char c : text) {
        const bool hex = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
        if (!hex) return false;
    }
    return true;
}

bool ParseContainerInspect(const std::string& text, ContainerInfo& info, std::string& error) {
    int pid = 0;
    return ParseContainerInspect(text, info, pid, error);
}

bool ParseContainerInspect(const std::string& text, ContainerInfo& info, int& pid,
                           std::string& error) {
    try {
        Json::Value root;
        if (!ParseObject(text, root, error)) return false;
        if (!FillInfo(root, info, error)) return false;
        const Json::Value& value = Member(Member(root, "State"), "Pid");
        pid = value.isInt() && value.asInt() > 0 ? value.asInt() : 0;
        return true;
    } catch (const std::exception& e) {
        // JsonCpp reports type misuse by exceptions; a document must never take us down.
        error = std::string("unexpected document shape: ") + e.what();
        return false;
    }
}

bool ParseContainerList(const std::string& text, std::vector<std::string>& ids,
                        std::string& error) {
    try {
        Json::Value root;
        if (!ParseDocument(text, Json::arrayValue, "array", root, error)) return false;
        std::vector<std::string> out;
        for (const auto& item : root) {
            const std::string id = String(item, "Id");
            if (!IsContainerId(id)) {
                error = "an element has no valid Id";
                return false;
            }
            out.push_back(id);
        }
        ids.swap(out);
        return true;
    } catch (const std::exception& e) {
        error = std::string("unexpected document shape: ") + e.what();
        return false;
    }
}

EventLineResult ParseContainerEvent(const std::string& line, ContainerEvent& event,
                                    std::string& error) {
    try {
        Json::Value root;
        if (!ParseObject(line, root, error)) return EventLineResult::kMalformed;
        // Engines before API 1.22 wrote only "status" and "id".
        std::string type = String(root, "Type");
        if (!type.empty() && type != "container") return EventLineResult::kIgnored;
        std::string action = String(root, "Action");
        if (action.empty()) action = String(root, "status");
        ContainerEvent parsed;
        if (action == "start") {
            parsed.action = ContainerEvent::Action::kStart;
        } else if (action == "die" || action == "died") {
            parsed.action = ContainerEvent::Action::kDie;
        } else if (action.empty()) {
            error = "no Action";
            return EventLineResult::kMalformed;
        } else {
            return EventLineResult::kIgnored;
        }
        const Json::Value& actor = Member(root, "Actor");
        parsed.id = String(actor, "ID");
        if (parsed.id.empty()) parsed.id = String(root, "id");
        if (!IsContainerId(parsed.id)) {
            error = "no valid container id";
            return EventLineResult::kMalformed;
        }
        parsed.name = String(Member(actor, "Attributes"), "name");
        const Json::Value& nano = Member(root, "timeNano");
        if (nano.isInt64()) parsed.timeNano = nano.asInt64();
        event = parsed;
        return EventLineResult::kEvent;
    } catch (const std::exception& e) {
        error = std::string("unexpected event shape: ") + e.what();
        return EventLineResult::kMalformed;
    }
}

}  // namespace Engine
