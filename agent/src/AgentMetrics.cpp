#include "agent/AgentMetrics.h"

#include "framework/Counters.h"
#include "framework/Gauges.h"
#include "framework/TaskRegistry.h"

namespace Agent {

namespace {
constexpr const char* kPrefix = "tarnwick_";

// Counters whose last part names a task, an alarm class: one family, the part as a label.
struct Labelled {
    const char* name;  // the counters are "<name>.<labelled part>"
    const char* label;
};
const Labelled kLabelled[] = {
    {Framework::CounterNames::kQueueFull, "task"},
    {Framework::CounterNames::kUnknownTask, "task"},
    {Framework::CounterNames::kAlarmClass, "class"},
};

// Alarm outputs: "report.<output>.<what>" becomes "report.<what>" with an output label.
const char* const kOutputs[] = {"file", "syslog", "http"};
// Levels kept among the counters.
const char* const kGaugeSuffixes[] = {"spooled_bytes"};

const std::map<std::string, std::string>& Helps() {
    static const std::map<std::string, std::string> helps = {
        {Framework::GaugeNames::kEngineConnected,
         "1 while the container engine's event stream is connected, else 0"},
        {Framework::GaugeNames::kAuditAvailable,
         "1 while kernel audit events are read and audit control answers, else 0"},
        {Framework::GaugeNames::kAuditRules, "Audit watch rules the agent has in place"},
        {Framework::GaugeNames::kWatchesRequested, "Paths the agent was asked to watch"},
        {Framework::GaugeNames::kWatchesArmed, "Requested paths that are watched now"},
        {Framework::GaugeNames::kWatchesFailed,
         "Requested paths the kernel refused a watch for (retried until they succeed)"},
        {"report.spooled_bytes", "Bytes waiting in an output's spool"},
        {Framework::CounterNames::kAlarmClass, "Alarms received, by alarm class"},
        {Framework::CounterNames::kContainerStartGone,
         "Containers that exited before they could be protected"},
    };
    return helps;
}

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string HelpFor(const std::string& family, const std::string& pattern, bool gauge) {
    const auto known = Helps().find(family);
    if (known != Helps().end()) return known->second;
    return std::string(gauge ? "Level of " : "Count of ") + pattern;
}

PrometheusText::Family& FamilyFor(std::vector<PrometheusText::Family>& families,
                                  std::map<std::string, std::size_t>& index,
                                  const std::string& name, const std::string& help,
                                  const char* type) {
    auto it = index.find(name);
    if (it != index.end()) return families[it->second];
    index[name] = families.size();
    families.push_back({name, help, type, {}});
    return families.back();
}
}  // namespace

std::string AgentMetrics::MetricName(const std::string& dotted, bool counter) {
    return PrometheusText::SafeName(kPrefix + dotted + (counter ? "_total" : ""));
}

AgentMetrics::CounterPlace AgentMetrics::PlaceCounter(const std::string& name) {
    CounterPlace place;
    place.family = name;
    place.pattern = name;
    for (const auto& l : kLabelled) {
        const std::string prefix = std::string(l.name) + ".";
        if (!StartsWith(name, prefix) || name.size() == prefix.size()) continue;
        place.family = prefix.substr(0, prefix.size() - 1);
        place.labels[l.label] = name.substr(prefix.size());
        place.pattern = prefix + "<" + l.label + ">";
        return place;
    }
    for (const char* output : kOutputs) {
        const std::string prefix = std::string("report.") + output + ".";
        if (!StartsWith(name, prefix) || name.size() == prefix.size()) continue;
        const std::string what = name.substr(prefix.size());
        place.family = "report." + what;
        place.labels["output"] = output;
        place.pattern = "report.<output>." + what;
        for (const char* suffix : kGaugeSuffixes) place.gauge = place.gauge || what == suffix;
        return place;
    }
    for (const char* suffix : kGaugeSuffixes) {
        place.gauge = place.gauge || EndsWith(name, std::string(".") + suffix);
    }
    return place;
}

AgentMetrics::Inputs AgentMetrics::Gather() {
    Inputs in;
    in.counters = Framework::Counters::Instance().Snapshot();
    in.gauges = Framework::Gauges::Instance().Snapshot();
    in.protectedContainers = Framework::Gauges::Instance().ProtectedContainers();
    in.queueDepths = Framework::TaskRegistry::Instance().QueueDepths();
    return in;
}

std::vector<PrometheusText::Family> AgentMetrics::Families(const Inputs& in) {
    std::vector<PrometheusText::Family> families;
    std::map<std::string, std::size_t> index;  // metric name -> position in families

    auto& containers = FamilyFor(families, index, MetricName("protected_containers", false),
                                 "Containers the agent holds watches or audit rules for", "gauge");
    containers.samples.push_back({{}, static_cast<int64_t>(in.protectedContainers)});
    for (const auto& gauge : in.gauges) {
        const std::string help = HelpFor(gauge.first, gauge.first, true);
        FamilyFor(families, index, MetricName(gauge.first, false), help, "gauge")
            .samples.push_back({{}, gauge.second});
    }
    if (!in.queueDepths.empty()) {
        auto& queues = FamilyFor(families, index, MetricName("task.queue_depth", false),
                                 "Messages waiting in a task's queue", "gauge");
        for (const auto& depth : in.queueDepths) {
            queues.samples.push_back({{{"task", depth.first}}, static_cast<int64_t>(depth.second)});
        }
    }
    for (const auto& counter : in.counters) {
        const CounterPlace place = PlaceCounter(counter.first);
        const std::string help = HelpFor(place.family, place.pattern, place.gauge);
        auto& family = FamilyFor(families, index, MetricName(place.family, !place.gauge), help,
                                 place.gauge ? "gauge" : "counter");
        // Counters wrap nowhere near int64's range; a gauge kept as uint64 may not exceed it.
        family.samples.push_back({place.labels, static_cast<int64_t>(counter.second)});
    }
    return families;
}

std::vector<std::string> AgentMetrics::HealthProblems(const Inputs& in) {
    std::vector<std::string> problems;
    auto gauge = [&in](const char* name, int64_t fallback) {
        const auto it = in.gauges.find(name);
        return it == in.gauges.end() ? fallback : it->second;
    };
    if (gauge(Framework::GaugeNames::kEngineConnected, 1) == 0) {
        problems.push_back("engine unreachable");
    }
    if (gauge(Framework::GaugeNames::kAuditAvailable, 1) == 0) {
        problems.push_back("audit unavailable");
    }
    const int64_t failed = gauge(Framework::GaugeNames::kWatchesFailed, 0);
    if (failed > 0) {
        problems.push_back("watch coverage partial (" + std::to_string(failed) + " of " +
                           std::to_string(gauge(Framework::GaugeNames::kWatchesRequested, 0)) +
                           " paths unwatched)");
    }
    return problems;
}

}  // namespace Agent
