// A stream of audit records, one "<type> <record text>" per line as in tests/data/audit, through
// the whole path an event takes: parser, joiner (small bounds, a clock that moves, so eviction
// and stale flushes happen), builder, and the resolver inside a container root. Whatever names
// the records carry, every path that comes out must lie inside that root.
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "FuzzCheck.h"
#include "process_collect/AuditEventBuilder.h"
#include "process_collect/AuditEventJoiner.h"
#include "process_collect/AuditPathResolver.h"
#include "process_collect/AuditRecordParser.h"
#include "sdk/ContainerRoot.h"

constexpr std::size_t kMaxPending = 3;
constexpr std::size_t kMaxRecords = 6;
constexpr uint64_t kStaleMs = 40;
constexpr uint64_t kMsPerLine = 7;

namespace fs = std::filesystem;

// A small container root below TMPDIR, made once and removed at exit: files, a directory, and
// links that try to lead out of it.
struct FakeRoot {
    static fs::path Make() {
        std::string pattern = (fs::temp_directory_path() / "tw-fuzz-root.XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) std::abort();
        const fs::path dir = pattern;
        for (const char* sub : {"etc", "bin"}) fs::create_directories(dir / sub);
        std::ofstream(dir / "etc/passwd") << "root:x:0:0::/root:/bin/sh\n";
        std::ofstream(dir / "bin/tool") << "\177ELF";
        fs::create_symlink("/etc/passwd", dir / "etc/abs-link");
        fs::create_symlink("../../../../..", dir / "up");
        fs::create_symlink("loop", dir / "loop");
        return dir;
    }
    ~FakeRoot() {
        std::error_code ignored;
        fs::remove_all(dir, ignored);
    }
    const fs::path dir = Make();
    const SDK::ContainerRoot root{dir.string()};
};

static void CheckEvent(const Engine::JoinedAuditEvent& event) {
    static const FakeRoot fake;
    const SDK::ContainerRoot& root = fake.root;
    FUZZ_CHECK(root.IsOpen());
    FUZZ_CHECK(event.records.size() <= kMaxRecords);
    if (event.records.empty()) return;
    FUZZ_CHECK(event.records.front().type == Engine::AuditRecordType::kSyscall);
    for (const auto& key : Engine::AuditEventBuilder::Keys(event.records.front()))
        FUZZ_CHECK(!key.empty() && key.find('\x01') == std::string::npos);
    // Roots spelled as rules may carry them: with a trailing slash, and among others.
    const std::vector<std::string> roots =
        event.serial % 2 == 0 ? std::vector<std::string>{root.Path()}
                              : std::vector<std::string>{root.Path() + "/", "/nonexistent"};
    Engine::AuditLogSyscall syscall;
    std::string error;
    if (!Engine::AuditEventBuilder::Build(event, roots, syscall, error)) {
        FUZZ_CHECK(!error.empty());
        return;
    }
    const auto rank = [](const std::string& type) {
        return type == "CREATE" ? 0 : type == "PARENT" ? 2 : 1;
    };
    for (std::size_t i = 0; i < syscall.paths.size(); ++i) {
        FUZZ_CHECK(!syscall.paths[i].name.empty());
        FUZZ_CHECK(i == 0 ||
                   rank(syscall.paths[i].nametype) >= rank(syscall.paths[i - 1].nametype));
    }
    const bool useful = Engine::AuditPathResolver::Resolve(root, syscall);
    for (const auto& item : syscall.paths)
        FUZZ_CHECK(SDK::ContainerRoot::IsUnder(item.name, root.Path()));
    if (useful) FUZZ_CHECK(syscall.paths.front().nametype != "PARENT");
}

// "<type> <record text>", the type at most 5 digits; read from the fuzzer's own buffer, so that
// a read past a line's end is caught.
static bool ParseLine(const char* line, std::size_t size, Engine::AuditRecord& record) {
    int type = 0;
    const auto [end, ec] = std::from_chars(line, line + std::min<std::size_t>(size, 5), type);
    if (ec != std::errc() || line[0] == '-' || end == line + size || *end != ' ') return false;
    std::string error;
    return Engine::AuditRecordParser::Parse(type, end + 1, line + size - end - 1, record, error);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    Engine::AuditEventJoiner joiner(
        kMaxPending, kMaxRecords, kStaleMs, [](const Engine::AuditRecord& syscallRecord) {
            // Keyed events and most others: the filter both takes and refuses.
            return !Engine::AuditEventBuilder::Keys(syscallRecord).empty() ||
                   syscallRecord.serial % 3 != 0;
        });
    std::vector<Engine::JoinedAuditEvent> events;
    uint64_t nowMs = 0;
    const char* const text = reinterpret_cast<const char*>(data);
    for (std::size_t start = 0; start < size; nowMs += kMsPerLine) {
        const void* newline = std::memchr(text + start, '\n', size - start);
        const std::size_t end = newline ? static_cast<const char*>(newline) - text : size;
        Engine::AuditRecord record;
        if (ParseLine(text + start, end - start, record))
            joiner.Add(std::move(record), nowMs, events);
        joiner.FlushStale(nowMs + kMsPerLine, events);
        FUZZ_CHECK(joiner.Pending() <= kMaxPending);
        start = end + 1;
    }
    joiner.FlushStale(nowMs + kStaleMs, events);
    FUZZ_CHECK(joiner.Pending() == 0);
    for (const auto& event : events) CheckEvent(event);
    return 0;
}
