#include "agent/PrometheusText.h"

#include <cctype>

namespace Agent {

namespace {
bool NameChar(char c, bool first) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (std::isalpha(u) != 0 || c == '_' || c == ':') return u < 0x80;
    return !first && std::isdigit(u) != 0;
}

// Label names may not hold ':' (metric names may).
std::string SafeLabelName(const std::string& name) {
    std::string safe = PrometheusText::SafeName(name);
    for (char& c : safe) {
        if (c == ':') c = '_';
    }
    return safe;
}

void AppendSample(std::string& out, const std::string& name, const PrometheusText::Sample& s) {
    out += name;
    if (!s.labels.empty()) {
        out += '{';
        bool first = true;
        for (const auto& label : s.labels) {
            if (!first) out += ',';
            first = false;
            out += SafeLabelName(label.first) + "=\"" +
                   PrometheusText::EscapeLabelValue(label.second) + '"';
        }
        out += '}';
    }
    out += ' ' + std::to_string(s.value) + '\n';
}
}  // namespace

std::string PrometheusText::SafeName(const std::string& name) {
    if (name.empty()) return "_";
    std::string safe;
    safe.reserve(name.size() + 1);
    if (std::isdigit(static_cast<unsigned char>(name[0])) != 0) safe += '_';
    for (char c : name) safe += NameChar(c, safe.empty()) ? c : '_';
    return safe;
}

std::string PrometheusText::EscapeLabelValue(const std::string& value) {
    std::string escaped;
    escaped.reserve(value.size());
    for (char c : value) {
        if (c == '\\') {
            escaped += "\\\\";
        } else if (c == '"') {
            escaped += "\\\"";
        } else if (c == '\n') {
            escaped += "\\n";
        } else {
            escaped += c;
        }
    }
    return escaped;
}

std::string PrometheusText::EscapeHelp(const std::string& text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (char c : text) {
        if (c == '\\') {
            escaped += "\\\\";
        } else if (c == '\n') {
            escaped += "\\n";
        } else {
            escaped += c;
        }
    }
    return escaped;
}

std::string PrometheusText::Render(const std::vector<Family>& families) {
    std::string out;
    for (const auto& family : families) {
        if (family.samples.empty()) continue;
        const std::string name = SafeName(family.name);
        out += "# HELP " + name + ' ' + EscapeHelp(family.help) + '\n';
        out += "# TYPE " + name + ' ' + family.type + '\n';
        for (const auto& sample : family.samples) AppendSample(out, name, sample);
    }
    return out;
}

}  // namespace Agent
