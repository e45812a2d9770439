#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Agent {

/// Renders metric families in the Prometheus text exposition format (version 0.0.4). Pure:
/// no I/O, no global state; names and label values are made safe here, so callers may pass
/// anything (task names, output names).
class PrometheusText {
public:
    static constexpr const char* kContentType = "text/plain; version=0.0.4; charset=utf-8";

    struct Sample {
        std::map<std::string, std::string> labels;  ///< label name -> value (any bytes)
        int64_t value = 0;
    };
    struct Family {
        std::string name;  ///< made a valid metric name by Render
        std::string help;
        std::string type;  ///< "counter" or "gauge"
        std::vector<Sample> samples;
    };

    /// One "# HELP", one "# TYPE" and the samples of each family, families in the given order.
    /// A family without samples is left out.
    static std::string Render(const std::vector<Family>& families);

    /// `name` with every character a metric or label name may not hold replaced by '_', and
    /// '_' put in front of a leading digit; "_" for an empty name.
    static std::string SafeName(const std::string& name);
    /// A label value with backslash, double quote and line feed escaped.
    static std::string EscapeLabelValue(const std::string& value);
    /// A HELP text with backslash and line feed escaped.
    static std::string EscapeHelp(const std::string& text);
};

}  // namespace Agent
