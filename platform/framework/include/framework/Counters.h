#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace Framework {

/// Process-wide named counters for losses and drops (queue full, unknown task, handler
/// exceptions, inotify overflows, lost audit records, sink failures), read by the agent for its
/// status output. Get returns a reference that stays valid for the life of the process.
class Counters {
public:
    static Counters& Instance();

    std::atomic<uint64_t>& Get(const std::string& name);
    void Add(const std::string& name, uint64_t n = 1) { Get(name).fetch_add(n); }
    uint64_t Value(const std::string& name);
    /// name -> value, in name order.
    std::map<std::string, uint64_t> Snapshot();

private:
    std::mutex mutex_;  // guards the map's structure; the values are atomic
    std::map<std::string, std::atomic<uint64_t>> counters_;
};

/// Counter names used by the framework itself; a send failure is counted per receiving task,
/// as "<name>.<task name>".
namespace CounterNames {
constexpr const char* kUnknownTask = "framework.send.unknown_task";
constexpr const char* kQueueFull = "framework.send.queue_full";
constexpr const char* kHandlerException = "framework.handler.exception";
/// Alarms received by the reporting task, as "<name>.<alarm class>".
constexpr const char* kAlarmClass = "report.alarms.class";
/// Containers that exited before they could be protected.
constexpr const char* kContainerStartGone = "container.start.gone";
}  // namespace CounterNames

}  // namespace Framework
