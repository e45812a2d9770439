// Kernel audit records: their text parsed (and what a hostile or broken sender could put
// there), joined into events, and built into the event the subscriber gets. The captured files
// in tests/data/audit are this machine's kernel records, one "<type> <text>" per line.
#include <gtest/gtest.h>

#include <fstream>
#include <map>

#include "process_collect/AuditEventBuilder.h"
#include "process_collect/AuditEventJoiner.h"
#include "process_collect/AuditRecordParser.h"

using Engine::AuditEventBuilder;
using Engine::AuditEventJoiner;
using Engine::AuditLogSyscall;
using Engine::AuditRecord;
using Engine::AuditRecordParser;
using Engine::JoinedAuditEvent;

namespace {

AuditRecord Parsed(int type, const std::string& text) {
    AuditRecord record;
    std::string error;
    EXPECT_TRUE(AuditRecordParser::Parse(type, text, record, error)) << text << ": " << error;
    return record;
}

// A record of event `serial`, as the kernel sends it.
AuditRecord Record(int type, uint64_t serial, const std::string& body) {
    return Parsed(type, "audit(100.1:" + std::to_string(serial) + "): " + body);
}

// Serials and the other raw values are what the joiner and builder cases below stand on.
TEST(AuditRecordParse, SplitsHeaderAndKeepsRawValues) {
    AuditRecord record = Parsed(1302, "audit(1795391830.899:7): name=2F746D702F78207920\n");
    EXPECT_EQ("1795391830.899", record.timestamp);
    EXPECT_EQ("/tmp/x y ", AuditRecordParser::DecodeUntrusted(record.Raw("name")));

    // Single quotes hold blanks and double quotes; a bare word is no field.
    record = Parsed(1107, "audit(1.2:3): pid=1 msg='op=x exe=\"/bin/y\" res=success' extra");
    EXPECT_EQ("'op=x exe=\"/bin/y\" res=success'", record.Raw("msg"));
    EXPECT_EQ(2u, record.fields.size());

    // The kernel pads with NULs: they carry nothing.
    EXPECT_EQ("b", Parsed(1300, std::string("audit(1.1:2): a=b\0\0", 19)).Raw("a"));

    // Odd length or non-hex text is not an encoding: kept as it stands.
    EXPECT_EQ("abc", AuditRecordParser::DecodeUntrusted("abc"));
    EXPECT_EQ("6g", AuditRecordParser::DecodeUntrusted("6g"));
}

TEST(AuditRecordParse, MalformedRecordsAreRejectedWithTheirReason) {
    std::string many = "audit(1.1:2):";
    for (std::size_t i = 0; i <= AuditRecordParser::kMaxFields; ++i) many += " a=1";
    const struct {
        std::string text;
        const char* reason;
    } cases[] = {
        {"", "empty record"},
        {"pid=1 uid=0", "no audit( header"},
        {"audit(1795391830.115:2", "unterminated header"},
        {"audit(1795391830:2): pid=1", "bad header stamp"},
        {"audit(1.1:99999999999999999999): pid=1", "bad header stamp"},
        {"audit(1.1:2): =5", "field without a name"},
        {"audit(1.1:2): comm=\"unterminated", "unterminated quoted value"},
        {std::string("audit(1.1:2): a=b\0c=d", 21), "NUL inside record"},
        {"audit(1.1:2): a=" + std::string(AuditRecordParser::kMaxTextLength, 'b'),
         "record too long"},
        {many, "too many fields"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 60));
        AuditRecord record;
        std::string error;
        EXPECT_FALSE(AuditRecordParser::Parse(1300, c.text, record, error));
        EXPECT_EQ(c.reason, error);
    }
}

// Feeds a captured file through parser and joiner: its events by serial. Every record in it
// must parse.
std::map<uint64_t, JoinedAuditEvent> Join(const std::string& file) {
    AuditEventJoiner joiner(64, 64, 2000);
    std::vector<JoinedAuditEvent> joined;
    std::ifstream in(std::string(TARNWICK_TEST_DATA_DIR) + "/audit/" + file);
    std::string line;
    while (std::getline(in, line))
        joiner.Add(Parsed(std::stoi(line), line.substr(line.find(' ') + 1)), 0, joined);
    std::map<uint64_t, JoinedAuditEvent> events;
    for (auto& event : joined) events[event.serial] = std::move(event);
    return events;
}

std::vector<std::string> Names(const AuditLogSyscall& event) {
    std::vector<std::string> names;
    for (const auto& item : event.paths) names.push_back(item.name);
    return names;
}

// The event `records` make with `roots` watched; `built`: whether the builder must take them.
AuditLogSyscall Build(const std::vector<AuditRecord>& records,
                      const std::vector<std::string>& roots = {"/r"}, bool built = true) {
    JoinedAuditEvent event;
    event.records = records;
    AuditLogSyscall out;
    std::string error;
    EXPECT_EQ(built, AuditEventBuilder::Build(event, roots, out, error)) << error;
    return out;
}

TEST(CapturedEvents, AreBuiltWithHostPathsCreatedNameFirst) {
    struct Capture {
        std::string root, key;
        std::map<uint64_t, JoinedAuditEvent> events;
    };
    const std::string H = "/tmp/awork/hostdir";
    const std::string C =
        "/var/lib/docker/overlay2/445ba847acd707d29b4882b704d559503397772f2a7d8997e804697ecee40847/"
        "merged";
    const Capture host{H, "cid:hosttest", Join("host_events.txt")};
    const Capture box{C, "cid:2553d80afec9a4f6a6ea868d53ef2b965d8e2918e369aa19ea8a9cd85bb57bfe",
                      Join("container_events.txt")};
    const struct {
        const Capture& from;
        uint64_t serial;
        std::vector<std::string> names;  // PARENT items last
        bool write, attr;
    } cases[] = {
        {host, 4, {H + "/tool", H}, true, false},                  // cp of an executable
        {host, 5, {H + "/tool"}, false, true},                     // chmod
        {host, 6, {H + "/sub/rel.txt", H + "/sub"}, true, false},  // relative to the cwd
        // Container-relative names get the watched root; 22 of 24 items are nameless copy-ups.
        {box, 14, {C + "/usr/bin/tool", C + "/usr/bin"}, true, false},
        {box, 17, {C + "/etc/passwd"}, true, false},  // O_APPEND to a lower file
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("event " + std::to_string(c.serial));
        const auto event = c.from.events.find(c.serial);
        ASSERT_NE(c.from.events.end(), event);
        EXPECT_TRUE(event->second.complete);
        EXPECT_EQ(std::vector<std::string>{c.from.key},
                  AuditEventBuilder::Keys(event->second.records[0]));
        const AuditLogSyscall ev = Build(event->second.records, {c.from.root});
        EXPECT_EQ(c.names, Names(ev));
        EXPECT_EQ(c.write, ev.write);
        EXPECT_EQ(c.attr, ev.attr);
    }
    EXPECT_EQ("cp", Build(box.events.at(14).records, {C}).processName);
}

// The joiner reads no more of a SYSCALL record than its serial and key.
const char* const kSyscall = "arch=c000003e syscall=257 items=1 pid=2 key=\"cid:k\"";

// A (null) key is no key: the filter below turns such events away.
TEST(Joining, InterleavedEventsAreKeptApartStrayAndUnwantedRecordsIgnored) {
    std::vector<JoinedAuditEvent> out;
    AuditEventJoiner joiner(
        8, 16, 1000, [](const AuditRecord& r) { return !AuditEventBuilder::Keys(r).empty(); });
    joiner.Add(Record(1302, 5, "item=0 name=\"/a\""), 0, out);    // its SYSCALL was not seen
    joiner.Add(Record(1300, 6, "syscall=2 key=(null)"), 0, out);  // not a rule's event
    joiner.Add(Record(1302, 6, "item=0 name=\"/a\""), 0, out);
    joiner.Add(Record(1320, 6, ""), 0, out);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(0u, joiner.Pending());

    joiner.Add(Record(1300, 1, kSyscall), 0, out);
    // "cid:a\x01other" hex-encoded, as the kernel writes a rule with two keys.
    joiner.Add(Record(1300, 2, "arch=c000003e syscall=2 key=6369643A61016F74686572"), 0, out);
    joiner.Add(Record(1302, 2, "item=0 name=\"/b\" nametype=NORMAL"), 0, out);
    joiner.Add(Record(1302, 1, "item=0 name=\"/a\" nametype=NORMAL"), 0, out);
    joiner.Add(Record(1320, 2, ""), 0, out);
    ASSERT_EQ(1u, out.size());
    EXPECT_EQ(2u, out[0].serial);
    EXPECT_EQ((std::vector<std::string>{"cid:a", "other"}),
              AuditEventBuilder::Keys(out[0].records[0]));
    joiner.Add(Record(1320, 1, ""), 0, out);
    ASSERT_EQ(2u, out.size());
    EXPECT_EQ(1u, out[1].serial);
    EXPECT_EQ("\"/a\"", out[1].records[1].Raw("name"));
}

TEST(Joining, OpenEventsAreBoundedOldestLeavesFirstAndStaleOnesAreFlushed) {
    std::vector<JoinedAuditEvent> out;
    AuditEventJoiner joiner(3, 4, 1000);
    for (uint64_t serial = 1; serial <= 5; ++serial)
        joiner.Add(Record(1300, serial, kSyscall), 0, out);
    EXPECT_EQ(3u, joiner.Pending());
    ASSERT_EQ(2u, out.size());
    EXPECT_EQ(1u, out[0].serial);
    EXPECT_FALSE(out[0].complete);
    EXPECT_EQ(2u, joiner.Evicted());
    for (int i = 0; i < 10; ++i) joiner.Add(Record(1302, 5, "item=0 name=\"/x\""), 900, out);
    EXPECT_EQ(7u, joiner.DroppedRecords());

    // An event whose end was lost leaves once nothing came for it for the stale time.
    out.clear();
    joiner.FlushStale(999, out);
    EXPECT_TRUE(out.empty());
    joiner.FlushStale(1000, out);
    ASSERT_EQ(2u, out.size());  // serials 3 and 4; 5 had records at 900
    EXPECT_EQ(1u, joiner.Pending());
    joiner.Add(Record(1320, 5, ""), 0, out);
    EXPECT_EQ(4u, out.back().records.size());
}

// aarch64 numbers differ: 53 is fchmodat, 35 unlinkat.
TEST(Building, WriteAndAttributeClassesByArchitecture) {
    const struct {
        const char* syscall;
        bool write, attr, opened;
    } cases[] = {
        {"arch=c000003e syscall=257 a0=ffffff9c a1=1 a2=0 pid=3", false, false, true},  // read only
        {"arch=c00000b7 syscall=53", false, true, false},
        {"arch=c00000b7 syscall=35", true, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.syscall);
        const auto ev =
            Build({Record(1300, 1, c.syscall), Record(1302, 1, "item=0 name=\"/r/f\"")});
        EXPECT_EQ(c.write, ev.write);
        EXPECT_EQ(c.attr, ev.attr);
        EXPECT_EQ(c.opened, ev.opened);
        EXPECT_FALSE(ev.containerView);
    }
}

// rename(2) lists the directories and the old name before the new one; the name the call
// created must come first, since that is the file a consumer looks at. Names under the key's
// watched root are host paths already; the others are the container's and get the root.
TEST(Building, CreatedNameFirstDirectoriesLastContainerNamesUnderTheRoot) {
    const auto ev = Build({Record(1300, 1, "arch=c000003e syscall=82 items=3 comm=\"dpkg\""),
                           Record(1307, 1, "cwd=\"/\""),
                           Record(1302, 1, "item=0 name=\"/srv/c1/merged/bin/\" nametype=PARENT"),
                           Record(1302, 1, "item=1 name=\"/srv/c1/mergedX/t\" nametype=DELETE"),
                           Record(1302, 1, "item=2 name=\"/bin/t\" nametype=CREATE")},
                          {"/srv/c1/merged/"});
    EXPECT_EQ((std::vector<std::string>{"/srv/c1/merged/bin/t", "/srv/c1/merged/srv/c1/mergedX/t",
                                        "/srv/c1/merged/bin"}),
              Names(ev));
    EXPECT_TRUE(ev.containerView);
    EXPECT_TRUE(ev.write);
    EXPECT_FALSE(ev.opened);
}

TEST(Building, WithoutSyscallRecordOrNumberNothingIsBuilt) {
    const AuditRecord path = Record(1302, 1, "item=0 name=\"/a\"");
    Build({path}, {}, false);
    Build({Record(1300, 1, "arch=c000003e syscall=abc"), path}, {}, false);
}

TEST(PathJoin, Edges) {
    EXPECT_EQ("/a/b", AuditEventBuilder::JoinCwd("/a/", "./b"));
    EXPECT_EQ("/a", AuditEventBuilder::JoinCwd("/a", "."));
    EXPECT_EQ("b", AuditEventBuilder::JoinCwd("", "b"));
    EXPECT_TRUE(AuditEventBuilder::IsUnder("/anything", "/"));
}

}  // namespace
