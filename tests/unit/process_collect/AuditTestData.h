#pragma once

#include <fstream>
#include <string>
#include <vector>

#include "process_collect/AuditEventJoiner.h"
#include "process_collect/AuditRecordParser.h"

namespace AuditTestData {

constexpr const char* kContainerRoot =
    "/var/lib/docker/overlay2/445ba847acd707d29b4882b704d559503397772f2a7d8997e804697ecee40847/"
    "merged";
constexpr const char* kContainerKey =
    "cid:2553d80afec9a4f6a6ea868d53ef2b965d8e2918e369aa19ea8a9cd85bb57bfe";
constexpr const char* kHostRoot = "/tmp/awork/hostdir";
constexpr const char* kHostKey = "cid:hosttest";

/// A captured file: one "<type> <record text>" line per record, as the kernel multicast it.
struct Line {
    int type = 0;
    std::string text;
};

inline std::vector<Line> Load(const std::string& name) {
    std::vector<Line> lines;
    std::ifstream in(std::string(TARNWICK_TEST_DATA_DIR) + "/audit/" + name);
    std::string line;
    while (std::getline(in, line)) {
        const std::size_t blank = line.find(' ');
        if (blank == std::string::npos) continue;
        lines.push_back(Line{std::stoi(line.substr(0, blank)), line.substr(blank + 1)});
    }
    return lines;
}

/// Feeds a captured file through parser and joiner; returns the completed events.
inline std::vector<Engine::JoinedAuditEvent> Join(const std::string& name) {
    Engine::AuditEventJoiner joiner(64, 64, 2000);
    std::vector<Engine::JoinedAuditEvent> events;
    for (const auto& line : Load(name)) {
        Engine::AuditRecord record;
        std::string error;
        if (!Engine::AuditRecordParser::Parse(line.type, line.text, record, error)) continue;
        joiner.Add(std::move(record), 0, events);
    }
    return events;
}

inline const Engine::JoinedAuditEvent* BySerial(const std::vector<Engine::JoinedAuditEvent>& all,
                                                uint64_t serial) {
    for (const auto& event : all) {
        if (event.serial == serial) return &event;
    }
    return nullptr;
}

}  // namespace AuditTestData
