#include "sdk/ProcessUtils.h"

#include <fstream>
#include <sstream>

namespace SDK {

namespace {
constexpr size_t kContainerIdLength = 64;

bool IsHex64(const std::string& text, size_t pos) {
    if (pos + kContainerIdLength > text.size()) return false;
    for (size_t i = pos; i < pos + kContainerIdLength; ++i) {
        const char c = text[i];
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    }
    return true;
}

// One cgroup line "hierarchy:controllers:path"; the id follows "/docker/" (v1, cgroupfs
// driver) or "docker-" and precedes ".scope" (systemd driver, v1 or v2).
std::string IdFromCgroupPath(const std::string& path) {
    static const char* const kMarkers[] = {"/docker/", "docker-"};
    for (const char* marker : kMarkers) {
        size_t pos = path.rfind(marker);
        if (pos == std::string::npos) continue;
        pos += std::string(marker).size();
        if (!IsHex64(path, pos)) continue;
        const size_t end = pos + kContainerIdLength;
        if (end == path.size() || path[end] == '/' || path.compare(end, 6, ".scope") == 0) {
            return path.substr(pos, kContainerIdLength);
        }
    }
    return std::string();
}
}  // namespace

std::string ProcessUtils::ParseContainerIdFromCgroup(const std::string& cgroupText) {
    std::istringstream lines(cgroupText);
    std::string line;
    while (std::getline(lines, line)) {
        const size_t first = line.find(':');
        if (first == std::string::npos) continue;
        const size_t second = line.find(':', first + 1);
        if (second == std::string::npos) continue;
        const std::string id = IdFromCgroupPath(line.substr(second + 1));
        if (!id.empty()) return id;
    }
    return std::string();
}

void ProcessUtils::GetContainerID(int pid, std::string& containerId) {
    if (pid <= 0) return;
    std::ifstream file("/proc/" + std::to_string(pid) + "/cgroup");
    if (!file) return;
    std::stringstream text;
    text << file.rdbuf();
    const std::string id = ParseContainerIdFromCgroup(text.str());
    if (!id.empty()) containerId = id;
}

}  // namespace SDK
