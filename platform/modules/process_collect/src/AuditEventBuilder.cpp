#include "process_collect/AuditEventBuilder.h"

#include <algorithm>
#include <cstdlib>

#include "process_collect/AuditRecordParser.h"
#include "process_collect/SyscallClass.h"

namespace Engine {

namespace {
constexpr char kKeySeparator = '\x01';

std::string Untrusted(const AuditRecord& record, const std::string& field, bool* isNull = nullptr) {
    const std::string* raw = record.Find(field);
    if (raw == nullptr) {
        if (isNull != nullptr) *isNull = true;
        return std::string();
    }
    return AuditRecordParser::DecodeUntrusted(*raw, isNull);
}

bool ParseNumber(const std::string& text, int base, long& value) {
    if (text.empty()) return false;
    char* end = nullptr;
    const long parsed = std::strtol(text.c_str(), &end, base);
    if (end == nullptr || *end != '\0') return false;
    value = parsed;
    return true;
}

std::string StripTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

long OpenFlags(const std::string& syscallName, const AuditRecord& syscall,
               const std::vector<AuditRecord>& records) {
    const int arg = SyscallClass::OpenFlagsArgument(syscallName);
    long flags = -1;
    if (arg > 0) {
        ParseNumber(syscall.Raw("a" + std::to_string(arg)), 16, flags);
    } else if (arg == 0) {
        for (const auto& record : records) {
            if (record.type == AuditRecordType::kOpenat2) {
                ParseNumber(record.Raw("oflag"), 0, flags);
            }
        }
    }
    return flags;
}

// Container-relative names (the process's root is the watched root) get the root as prefix.
std::string HostPath(const std::string& path, const std::vector<std::string>& roots,
                     bool& containerView) {
    containerView = false;
    if (roots.empty() || path.empty() || path.front() != '/') return path;
    for (const auto& root : roots) {
        if (AuditEventBuilder::IsUnder(path, StripTrailingSlash(root))) return path;
    }
    containerView = true;
    const std::string root = StripTrailingSlash(roots.front());
    return root == "/" ? path : root + path;
}

// Created names first, other names next, the directories of the names last.
int ItemRank(const std::string& nametype) {
    if (nametype == "CREATE") return 0;
    if (nametype == "PARENT") return 2;
    return 1;
}
}  // namespace

std::vector<std::string> AuditEventBuilder::Keys(const AuditRecord& syscallRecord) {
    std::vector<std::string> keys;
    bool isNull = false;
    const std::string all = Untrusted(syscallRecord, "key", &isNull);
    if (isNull || all.empty()) return keys;
    std::size_t start = 0;
    while (start <= all.size()) {
        std::size_t end = all.find(kKeySeparator, start);
        if (end == std::string::npos) end = all.size();
        if (end > start) keys.push_back(all.substr(start, end - start));
        start = end + 1;
    }
    return keys;
}

std::string AuditEventBuilder::JoinCwd(const std::string& cwd, const std::string& name) {
    if (name.empty() || name.front() == '/' || cwd.empty()) return name;
    std::string rest = name;
    while (rest.compare(0, 2, "./") == 0) rest.erase(0, 2);
    if (rest == ".") rest.clear();
    std::string joined = cwd;
    if (joined.back() != '/') joined.push_back('/');
    return StripTrailingSlash(joined + rest);
}

bool AuditEventBuilder::IsUnder(const std::string& path, const std::string& root) {
    if (root.empty()) return false;
    if (root == "/") return !path.empty() && path.front() == '/';
    if (path.compare(0, root.size(), root) != 0) return false;
    return path.size() == root.size() || path[root.size()] == '/';
}

bool AuditEventBuilder::Build(const JoinedAuditEvent& event,
                              const std::vector<std::string>& watchedRoots, AuditLogSyscall& out,
                              std::string& error) {
    const AuditRecord* syscall = nullptr;
    std::string cwd;
    for (const auto& record : event.records) {
        if (record.type == AuditRecordType::kSyscall && syscall == nullptr) syscall = &record;
        if (record.type == AuditRecordType::kCwd) cwd = Untrusted(record, "cwd");
    }
    if (syscall == nullptr) {
        error = "event without SYSCALL record";
        return false;
    }
    long number = -1;
    long arch = 0;
    if (!ParseNumber(syscall->Raw("syscall"), 10, number) ||
        !ParseNumber(syscall->Raw("arch"), 16, arch)) {
        error = "SYSCALL record without a valid syscall or arch";
        return false;
    }
    out = AuditLogSyscall();
    out.serial = std::to_string(event.serial);
    out.timestamp = syscall->timestamp;
    out.syscall = static_cast<int>(number);
    out.success = syscall->Raw("success");
    out.exitCode = syscall->Raw("exit");
    out.pid = syscall->Raw("pid");
    out.ppid = syscall->Raw("ppid");
    out.uid = syscall->Raw("uid");
    out.processName = Untrusted(*syscall, "comm");
    out.exe = Untrusted(*syscall, "exe");
    out.cwd = cwd;
    const std::string name = SyscallClass::Name(static_cast<unsigned int>(arch), out.syscall);
    out.opened = SyscallClass::OpenFlagsArgument(name) >= 0 || name == "creat";
    SyscallClass::Classify(static_cast<unsigned int>(arch), out.syscall,
                           OpenFlags(name, *syscall, event.records), out.write, out.attr);

    std::vector<AuditLogPath> ranked[3];
    for (const auto& record : event.records) {
        if (record.type != AuditRecordType::kPath) continue;
        bool isNull = false;
        const std::string itemName = Untrusted(record, "name", &isNull);
        if (isNull || itemName.empty()) continue;  // overlay copy-up and anonymous items
        AuditLogPath item;
        bool containerView = false;
        item.name =
            HostPath(StripTrailingSlash(JoinCwd(cwd, itemName)), watchedRoots, containerView);
        out.containerView = out.containerView || containerView;
        item.nametype = record.Raw("nametype");
        item.inode = record.Raw("inode");
        item.mode = record.Raw("mode");
        ranked[ItemRank(item.nametype)].push_back(std::move(item));
    }
    out.paths.clear();
    for (auto& items : ranked) {
        for (auto& item : items) out.paths.push_back(std::move(item));
    }
    return true;
}

}  // namespace Engine
