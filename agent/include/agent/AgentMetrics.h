#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "agent/PrometheusText.h"

namespace Agent {

/// What the agent exports as metrics and how healthy it says it is, from the process-wide
/// counters and gauges the framework and the services keep. Gather reads them (thread-safe,
/// any thread); the other functions are pure, so that the mapping is tested on its own.
class AgentMetrics {
public:
    struct Inputs {
        std::map<std::string, uint64_t> counters;        ///< Framework::Counters
        std::map<std::string, int64_t> gauges;           ///< Framework::Gauges
        std::size_t protectedContainers = 0;             ///< containers with watches or rules
        std::map<std::string, std::size_t> queueDepths;  ///< task name -> messages waiting
    };

    /// A snapshot of everything the metrics are made of.
    static Inputs Gather();

    /// Every counter as a counter (per-task, per-output and per-class counters as one family
    /// with a label), every gauge as a gauge, in a stable order.
    static std::vector<PrometheusText::Family> Families(const Inputs& in);
    /// Why the agent is degraded ("engine unreachable", ...); empty when it is healthy. A
    /// service that is not loaded says nothing.
    static std::vector<std::string> HealthProblems(const Inputs& in);

    /// Where a counter goes: its family's dotted name, its labels, and whether it is a level
    /// that happens to be kept among the counters (spooled bytes).
    struct CounterPlace {
        std::string family;
        std::map<std::string, std::string> labels;
        bool gauge = false;
        std::string pattern;  ///< the dotted name with the labelled part as <label>
    };
    static CounterPlace PlaceCounter(const std::string& name);
    /// "tarnwick_" + the dotted name with '.' as '_' (+ "_total" for a counter).
    static std::string MetricName(const std::string& dotted, bool counter);
};

}  // namespace Agent
