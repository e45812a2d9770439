// A stream of audit records, one "<type> <record text>" per line as in tests/data/audit, through
// the whole path an event takes: parser, joiner (small bounds, a clock that moves, so eviction
// and stale flushes happen), builder, and the resolver inside a container root. Whatever names
// the records carry, every path that comes out must lie inside that root.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "FuzzCheck.h"
#include "process_collect/AuditEventBuilder.h"
#include "process_collect/AuditEventJoiner.h"
#include "process_collect/AuditPathResolver.h"
#include "process_collect/AuditRecordParser.h"
#include "sdk/ContainerRoot.h"

namespace {
constexpr std::size_t kMaxPending = 3;
constexpr std::size_t kMaxRecords = 6;
constexpr uint64_t kStaleMs = 40;
constexpr uint64_t kMsPerLine = 7;

namespace fs = std::filesystem;

// A small container root below TMPDIR, made once and removed at exit: files, a directory, and
// links that try to lead out of it.
class FakeRoot {
public:
    FakeRoot() {
        std::string pattern = (fs::temp_directory_path() / "tw-fuzz-root.XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) std::abort();
        dir_ = pattern;
        fs::create_directories(dir_ / "etc");
        fs::create_directories(dir_ / "bin");
        std::ofstream(dir_ / "etc/passwd") << "root:x:0:0::/root:/bin/sh\n";
        std::ofstream(dir_ / "bin/tool") << "\x7f"
                                            "ELF";
        fs::create_symlink("/etc/passwd", dir_ / "etc/abs-link");
        fs::create_symlink("../../../../..", dir_ / "up");
        fs::create_symlink("loop", dir_ / "loop");
        root_ = std::make_unique<SDK::ContainerRoot>(dir_.string());
        if (!root_->IsOpen()) std::abort();
    }
    ~FakeRoot() {
        root_.reset();
        std::error_code ignored;
        fs::remove_all(dir_, ignored);
    }
    const SDK::ContainerRoot& Root() const { return *root_; }

private:
    fs::path dir_;
    std::unique_ptr<SDK::ContainerRoot> root_;
};

const FakeRoot& Fake() {
    static FakeRoot fake;
    return fake;
}

int Rank(const std::string& nametype) {
    if (nametype == "CREATE") return 0;
    return nametype == "PARENT" ? 2 : 1;
}

void CheckEvent(const Engine::JoinedAuditEvent& event) {
    FUZZ_CHECK(event.records.size() <= kMaxRecords);
    if (event.records.empty()) return;
    FUZZ_CHECK(event.records.front().type == Engine::AuditRecordType::kSyscall);
    for (const auto& key : Engine::AuditEventBuilder::Keys(event.records.front())) {
        FUZZ_CHECK(!key.empty() && key.find('\x01') == std::string::npos);
    }
    const SDK::ContainerRoot& root = Fake().Root();
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
    int lastRank = 0;
    for (const auto& item : syscall.paths) {
        FUZZ_CHECK(!item.name.empty());
        FUZZ_CHECK(Rank(item.nametype) >= lastRank);
        lastRank = Rank(item.nametype);
    }
    const bool useful = Engine::AuditPathResolver::Resolve(root, syscall);
    for (const auto& item : syscall.paths) {
        FUZZ_CHECK(SDK::ContainerRoot::IsUnder(item.name, root.Path()));
    }
    if (useful) FUZZ_CHECK(syscall.paths.front().nametype != "PARENT");
}

bool ParseLine(const std::string& line, Engine::AuditRecord& record) {
    const std::size_t blank = line.find(' ');
    if (blank == 0 || blank == std::string::npos || blank > 5) return false;
    int type = 0;
    for (std::size_t i = 0; i < blank; ++i) {
        if (line[i] < '0' || line[i] > '9') return false;
        type = type * 10 + (line[i] - '0');
    }
    std::string error;
    return Engine::AuditRecordParser::Parse(type, line.data() + blank + 1, line.size() - blank - 1,
                                            record, error);
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    Engine::AuditEventJoiner joiner(
        kMaxPending, kMaxRecords, kStaleMs, [](const Engine::AuditRecord& syscallRecord) {
            // Keyed events and most others: the filter both takes and refuses.
            return !Engine::AuditEventBuilder::Keys(syscallRecord).empty() ||
                   syscallRecord.serial % 3 != 0;
        });
    std::vector<Engine::JoinedAuditEvent> events;
    uint64_t nowMs = 0;
    std::size_t start = 0;
    while (start < input.size()) {
        std::size_t end = input.find('\n', start);
        if (end == std::string::npos) end = input.size();
        Engine::AuditRecord record;
        if (ParseLine(input.substr(start, end - start), record)) {
            joiner.Add(std::move(record), nowMs, events);
        }
        nowMs += kMsPerLine;
        joiner.FlushStale(nowMs, events);
        FUZZ_CHECK(joiner.Pending() <= kMaxPending);
        start = end + 1;
    }
    joiner.FlushStale(nowMs + kStaleMs, events);
    FUZZ_CHECK(joiner.Pending() == 0);
    for (const auto& event : events) CheckEvent(event);
    return 0;
}
