#include "sdk/ProcessUtils.h"

#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <deque>
#include <fstream>
#include <mutex>
#include <sstream>
#include <unordered_map>

namespace SDK {

namespace {
constexpr size_t kContainerIdLength = 64;
constexpr size_t kMaxCaptured = 16384;

struct Capture {
    std::string id;
    unsigned long long startTicks = 0;  // 0: the process was gone when captured
    unsigned long long capturedTicks = 0;
};

// What CaptureProcess saw, by pid, oldest first in `order`.
struct CaptureTable {
    std::mutex mutex;  // guards everything below
    std::unordered_map<int, Capture> byPid;
    std::deque<int> order;
};

CaptureTable& Captures() {
    static CaptureTable table;
    return table;
}

// Clock ticks since boot, the unit of a process's start time in /proc/<pid>/stat.
unsigned long long NowTicks() {
    struct timespec ts {};
    clock_gettime(CLOCK_BOOTTIME, &ts);
    const long hz = sysconf(_SC_CLK_TCK);
    return static_cast<unsigned long long>(ts.tv_sec) * static_cast<unsigned long long>(hz) +
           static_cast<unsigned long long>(ts.tv_nsec) /
               (1000000000ULL / static_cast<unsigned long long>(hz));
}

// The start time of `pid` (field 22 of /proc/<pid>/stat); false when it does not run.
bool StartTicks(int pid, unsigned long long& ticks) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    if (!file || !std::getline(file, text)) return false;
    // The command name may hold blanks and parentheses: fields count from its last ')'.
    const size_t close = text.rfind(')');
    if (close == std::string::npos) return false;
    std::istringstream fields(text.substr(close + 1));
    std::string field;
    for (int i = 3; i <= 22; ++i) {
        if (!(fields >> field)) return false;
    }
    ticks = std::strtoull(field.c_str(), nullptr, 10);
    return true;
}

std::string LiveContainerId(int pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/cgroup");
    if (!file) return std::string();
    std::stringstream text;
    text << file.rdbuf();
    return ProcessUtils::ParseContainerIdFromCgroup(text.str());
}

bool FindCapture(int pid, Capture& out) {
    CaptureTable& table = Captures();
    std::lock_guard<std::mutex> lock(table.mutex);
    auto it = table.byPid.find(pid);
    if (it == table.byPid.end()) return false;
    out = it->second;
    return true;
}

bool IsHex64(const std::string& text, size_t pos) {
    if (pos + kContainerIdLength > text.size()) return false;
    for (size_t i = pos; i < pos + kContainerIdLength; ++i) {
        const char c = text[i];
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    }
    return true;
}

// One cgroup line "hierarchy:controllers:path"; the id follows "/docker/" (v1, cgroupfs
// driver) or "docker-" and precedes ".scope" (systemd driver, v1 or v2). Podman's containers
// are "libpod-<id>" (under libpod_parent/ with cgroupfs, with ".scope" under systemd); its
// conmon's "libpod-conmon-<id>" is no container.
std::string IdFromCgroupPath(const std::string& path) {
    static const char* const kMarkers[] = {"/docker/", "docker-", "libpod-"};
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
    Capture capture;
    const bool captured = FindCapture(pid, capture);
    unsigned long long start = 0;
    const bool running = StartTicks(pid, start);
    // A process that started after the capture got a reused pid: the capture speaks for ours.
    if (running && (!captured || start <= capture.capturedTicks)) {
        const std::string id = LiveContainerId(pid);
        if (!id.empty()) {
            containerId = id;
            return;
        }
    }
    if (captured && !capture.id.empty()) containerId = capture.id;
}

std::string ProcessUtils::CaptureProcess(int pid, const std::string& fallbackId) {
    if (pid <= 0) return std::string();
    Capture capture;
    capture.capturedTicks = NowTicks();
    if (StartTicks(pid, capture.startTicks)) {
        capture.id = LiveContainerId(pid);
    } else {
        capture.startTicks = 0;
        capture.id = fallbackId;
    }
    CaptureTable& table = Captures();
    std::lock_guard<std::mutex> lock(table.mutex);
    auto it = table.byPid.find(pid);
    if (it != table.byPid.end()) {
        // A process already gone tells nothing new: keep what was seen of it while it ran, or
        // an earlier guess, unless this guess fills an empty answer.
        if (capture.startTicks == 0 && (capture.id.empty() || !it->second.id.empty())) {
            return it->second.id;
        }
        it->second = capture;
        return capture.id;
    }
    if (table.byPid.size() >= kMaxCaptured) {
        table.byPid.erase(table.order.front());
        table.order.pop_front();
    }
    table.byPid.emplace(pid, capture);
    table.order.push_back(pid);
    return capture.id;
}

}  // namespace SDK
