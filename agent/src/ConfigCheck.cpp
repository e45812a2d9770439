#include "agent/ConfigCheck.h"

#include <Poco/Net/IPAddress.h>
#include <Poco/NumberParser.h>
#include <Poco/String.h>
#include <sys/stat.h>

#include <cstdint>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "agent/CheckExit.h"
#include "sdk/LoggerUtils.h"

namespace Agent {

namespace {
enum class Kind {
    kText,
    kNumber,
    kDirectory,
    kLevel,
    kBool,
    kFacility,
    kSyslogTarget,
    kUrl,
    kAddress
};

struct Setting {
    Kind kind;
    int64_t min = 0;
    int64_t max = INT64_MAX;
};

// Every setting the agent and its modules read. Values the modules cannot use are replaced
// by their defaults at run time, which an operator should still hear about.
const std::map<std::string, Setting>& Catalogue() {
    static const std::map<std::string, Setting> settings = {
        {"module.dir", {Kind::kDirectory}},
        {"policy.dir", {Kind::kDirectory}},
        {"policy.scan_ms", {Kind::kNumber, 50}},
        {"log.file", {Kind::kText}},
        {"log.level", {Kind::kLevel}},
        {"docker.socket", {Kind::kText}},
        {"cpu.limit_percent", {Kind::kNumber, 0, 100}},
        {"status.interval_s", {Kind::kNumber, 0}},
        {"report.file", {Kind::kText}},
        {"report.spool.dir", {Kind::kText}},
        {"report.spool.max_mb", {Kind::kNumber, 1}},
        {"report.syslog.target", {Kind::kSyslogTarget}},
        {"report.syslog.facility", {Kind::kFacility}},
        {"report.syslog.timeout_ms", {Kind::kNumber, 1, 599999}},
        {"report.http.url", {Kind::kUrl}},
        {"report.http.batch", {Kind::kNumber, 1, 100000}},
        {"report.http.timeout_ms", {Kind::kNumber, 1, 599999}},
        {"report.http.retry_max_ms", {Kind::kNumber, 100, 3600000}},
        {"report.http.ca_file", {Kind::kText}},
        {"report.http.verify_peer", {Kind::kBool}},
        {"audit.settle_ms", {Kind::kNumber, 0}},
        {"audit.max_delay_ms", {Kind::kNumber, 0}},
        {"audit.lost_poll_ms", {Kind::kNumber, 10}},
        {"audit.rule_check_ms", {Kind::kNumber, 100}},
        {"audit.backlog", {Kind::kNumber, 1}},
        {"audit.state_file", {Kind::kText}},
        {"metrics.enabled", {Kind::kBool}},
        {"metrics.address", {Kind::kAddress}},
        {"metrics.port", {Kind::kNumber, 0, 65535}},
    };
    return settings;
}

bool IsDirectory(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool StartsWith(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

std::string RangeText(const Setting& s) {
    if (s.max == INT64_MAX) return "a whole number, at least " + std::to_string(s.min);
    return "a whole number from " + std::to_string(s.min) + " to " + std::to_string(s.max);
}

// Why a module would not use `value` as written ("" when it would).
std::string RunProblem(const std::string& key, const Setting& s, const std::string& value) {
    if (value.empty()) return "";  // empty means: the default
    switch (s.kind) {
        case Kind::kNumber: {
            Poco::Int64 n = 0;
            if (Poco::NumberParser::tryParse64(value, n) && n >= s.min && n <= s.max) return "";
            return key + " should be " + RangeText(s) + "; the default is used instead";
        }
        case Kind::kBool:
            if (value == "true" || value == "false") return "";
            return key + " should be true or false; it is taken as true";
        case Kind::kFacility: {
            static const std::set<std::string> names = {
                "kern",   "user",   "mail",   "daemon", "auth",   "syslog", "authpriv", "local0",
                "local1", "local2", "local3", "local4", "local5", "local6", "local7"};
            if (names.count(value) != 0) return "";
            return "unknown syslog facility '" + value + "'; the syslog output stays off";
        }
        case Kind::kSyslogTarget:
            if (StartsWith(value, "unix:") || StartsWith(value, "udp:") ||
                StartsWith(value, "tcp:")) {
                return "";
            }
            return key + " should start with unix:, udp: or tcp:; the syslog output stays off";
        case Kind::kAddress: {
            Poco::Net::IPAddress ip;
            if (!Poco::Net::IPAddress::tryParse(value, ip) || ip.isLoopback()) return "";
            return key + " " + value +
                   " is not a loopback address: whoever reaches it can read the metrics";
        }
        case Kind::kUrl:
            if (StartsWith(value, "http://") || StartsWith(value, "https://")) return "";
            return key + " should be an http:// or https:// URL; the HTTP output stays off";
        default:
            return "";
    }
}

// One logical line of a properties file: its text with continuations joined, and where it began.
struct RawLine {
    std::string text;
    int line = 0;
};

std::vector<RawLine> LogicalLines(const std::string& text) {
    std::vector<RawLine> lines;
    std::istringstream in(text);
    std::string physical;
    int number = 0;
    RawLine pending;
    bool continuing = false;
    while (std::getline(in, physical)) {
        ++number;
        if (!physical.empty() && physical.back() == '\r') physical.pop_back();
        if (!continuing) pending = {std::string(), number};
        const bool continues = !physical.empty() && physical.back() == '\\';
        if (continues) physical.pop_back();
        pending.text += continuing ? Poco::trimLeft(physical) : physical;
        continuing = continues;
        if (!continuing) lines.push_back(pending);
    }
    if (continuing) lines.push_back(pending);
    return lines;
}
}  // namespace

std::string ConfigCheck::StartProblem(const std::string& key, const std::string& value) {
    if (key == "cpu.limit_percent") {
        Poco::Int64 n = 0;
        if (Poco::NumberParser::tryParse64(value, n) && n >= 0 && n <= 100) return "";
        return "cpu.limit_percent must be a number from 0 to 100";
    }
    if (key == "log.level") {
        if (SDK::LoggerUtils::ParseLevel(value) >= 0) return "";
        return "unknown log level '" + value + "'";
    }
    if (key == "module.dir" || key == "policy.dir") {
        if (IsDirectory(value)) return "";
        return std::string(key == "module.dir" ? "module" : "policy") + " directory " + value +
               " does not exist";
    }
    if (key == "metrics.enabled") {
        if (value == "true" || value == "false") return "";
        return "metrics.enabled must be true or false";
    }
    if (key == "metrics.address") {
        Poco::Net::IPAddress ip;
        if (Poco::Net::IPAddress::tryParse(value, ip)) return "";
        return "metrics.address must be an IP address, such as 127.0.0.1";
    }
    if (key == "metrics.port") {
        Poco::Int64 n = 0;
        if (Poco::NumberParser::tryParse64(value, n) && n >= 0 && n <= 65535) return "";
        return "metrics.port must be a number from 0 (any free port) to 65535";
    }
    if (key == "policy.scan_ms") {
        Poco::Int64 n = 0;
        if (Poco::NumberParser::tryParse64(value, n) && n >= 50) return "";
        return "policy.scan_ms must be a number of milliseconds, at least 50";
    }
    return "";
}

std::vector<ConfigCheck::Entry> ConfigCheck::Parse(const std::string& text,
                                                   std::vector<Finding>& findings) {
    std::vector<Entry> entries;
    for (const auto& raw : LogicalLines(text)) {
        const std::string line = Poco::trim(raw.text);
        if (line.empty() || line[0] == '#' || line[0] == '!') continue;
        const auto separator = line.find_first_of("=:");
        if (separator == std::string::npos) {
            findings.push_back(
                {raw.line, false,
                 "'" + line + "' has no '=' or ':'; it sets " + line + " to an empty value"});
            entries.push_back({line, std::string(), raw.line});
            continue;
        }
        const std::string key = Poco::trim(line.substr(0, separator));
        if (key.empty()) {
            findings.push_back({raw.line, false, "a value without a key; ignored"});
            continue;
        }
        entries.push_back({key, Poco::trim(line.substr(separator + 1)), raw.line});
    }
    return entries;
}

void ConfigCheck::CheckEntries(const std::vector<Entry>& entries, std::vector<Finding>& findings) {
    std::map<std::string, int> firstLine;
    for (const auto& entry : entries) {
        const auto earlier = firstLine.find(entry.key);
        if (earlier != firstLine.end()) {
            findings.push_back({entry.line, false,
                                entry.key + " is set again (first on line " +
                                    std::to_string(earlier->second) + "); this value wins"});
        } else {
            firstLine[entry.key] = entry.line;
        }
        const auto setting = Catalogue().find(entry.key);
        if (setting == Catalogue().end()) {
            findings.push_back({entry.line, false, "unknown setting " + entry.key + "; ignored"});
            continue;
        }
        const std::string atStart = StartProblem(entry.key, entry.value);
        if (!atStart.empty()) {
            findings.push_back({entry.line, true, atStart});
            continue;
        }
        const std::string atRun = RunProblem(entry.key, setting->second, entry.value);
        if (!atRun.empty()) findings.push_back({entry.line, false, atRun});
    }
}

int ConfigCheck::Run(const std::string& file, std::ostream& out) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    if (in) text << in.rdbuf();
    if (!in || in.bad() || IsDirectory(file)) {
        out << file << ": cannot be read\n";
        out << file << ": invalid\n";
        return kCheckInvalid;
    }
    std::vector<Finding> findings;
    CheckEntries(Parse(text.str(), findings), findings);
    int invalid = 0;
    for (const auto& finding : findings) {
        out << file << ":" << finding.line << ": " << (finding.invalid ? "error: " : "warning: ")
            << finding.reason << "\n";
        if (finding.invalid) ++invalid;
    }
    if (invalid > 0) {
        out << file << ": invalid, the agent would not start (" << invalid << " errors, "
            << findings.size() - invalid << " warnings)\n";
        return kCheckInvalid;
    }
    if (!findings.empty()) {
        out << file << ": valid, with " << findings.size() << " warnings\n";
        return kCheckAttention;
    }
    out << file << ": valid\n";
    return kCheckValid;
}

}  // namespace Agent
