#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>

namespace Framework {

/// Process-wide named levels (not counts) that services publish for the agent's metrics and
/// health: watches armed, audit rules in place, whether the engine's event stream is connected.
/// A service sets its values whenever they change or on its periodic turn and erases them when
/// it stops; the agent reads snapshots. Services also publish the containers they hold watches
/// or rules for, so that the agent can count the containers it protects. Thread-safe.
class Gauges {
public:
    static Gauges& Instance();

    void Set(const std::string& name, int64_t value);
    void Erase(const std::string& name);
    /// The value, or `fallback` when nobody published one.
    int64_t Value(const std::string& name, int64_t fallback = 0) const;
    /// name -> value, in name order.
    std::map<std::string, int64_t> Snapshot() const;

    /// Replaces the containers (ids, or their 12-character prefixes) `service` protects.
    void SetContainers(const std::string& service, const std::set<std::string>& ids);
    /// How many distinct containers any service protects; ids are compared by prefix.
    std::size_t ProtectedContainers() const;

    /// Length of the id prefix containers are told apart by.
    static constexpr std::size_t kContainerIdPrefix = 12;

private:
    mutable std::mutex mutex_;  // guards values_ and containers_
    std::map<std::string, int64_t> values_;
    std::map<std::string, std::set<std::string>> containers_;  // service -> id prefixes
};

/// Gauge names shared between the services that set them and the agent that reads them.
namespace GaugeNames {
constexpr const char* kEngineConnected = "container.engine.connected";
constexpr const char* kAuditAvailable = "audit.available";
constexpr const char* kAuditRules = "audit.rules";
constexpr const char* kWatchesRequested = "filenotify.watches.requested";
constexpr const char* kWatchesArmed = "filenotify.watches.armed";
constexpr const char* kWatchesFailed = "filenotify.watches.failed";
}  // namespace GaugeNames

}  // namespace Framework
