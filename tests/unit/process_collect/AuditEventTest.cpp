// Joining captured kernel records into events and building the event the subscriber gets.
#include <gtest/gtest.h>

#include "AuditTestData.h"
#include "process_collect/AuditEventBuilder.h"
#include "process_collect/AuditEventJoiner.h"

using Engine::AuditEventBuilder;
using Engine::AuditEventJoiner;
using Engine::AuditLogSyscall;
using Engine::AuditRecord;
using Engine::JoinedAuditEvent;

namespace {

AuditLogSyscall BuildCaptured(const std::string& file, uint64_t serial, const std::string& root) {
    const auto events = AuditTestData::Join(file);
    const JoinedAuditEvent* event = AuditTestData::BySerial(events, serial);
    AuditLogSyscall out;
    if (event == nullptr) {
        ADD_FAILURE() << "no event " << serial << " in " << file;
        return out;
    }
    std::string error;
    EXPECT_TRUE(AuditEventBuilder::Build(*event, {root}, out, error)) << error;
    return out;
}

class HostEvents : public ::testing::Test {};

TEST_F(HostEvents, CopyOfAnExecutableIsAWriteOfTheFileItself) {
    const auto ev = BuildCaptured("host_events.txt", 4, AuditTestData::kHostRoot);
    ASSERT_EQ(2u, ev.paths.size());
    EXPECT_EQ("/tmp/awork/hostdir/tool", ev.paths[0].name);
    EXPECT_EQ("CREATE", ev.paths[0].nametype);
    EXPECT_EQ("/tmp/awork/hostdir", ev.paths[1].name);  // the PARENT item comes last
    EXPECT_EQ("PARENT", ev.paths[1].nametype);
    EXPECT_TRUE(ev.write);
    EXPECT_FALSE(ev.attr);
    EXPECT_EQ("15236", ev.pid);
    EXPECT_EQ("15186", ev.ppid);
    EXPECT_EQ("cp", ev.processName);
    EXPECT_EQ("/usr/bin/cp", ev.exe);
    EXPECT_EQ(257, ev.syscall);
    EXPECT_EQ("4", ev.serial);
}

TEST_F(HostEvents, ChmodIsAnAttributeChangeNotAWrite) {
    const auto ev = BuildCaptured("host_events.txt", 5, AuditTestData::kHostRoot);
    ASSERT_EQ(1u, ev.paths.size());
    EXPECT_EQ("/tmp/awork/hostdir/tool", ev.paths[0].name);
    EXPECT_TRUE(ev.attr);
    EXPECT_FALSE(ev.write);
    EXPECT_EQ("chmod", ev.processName);
}

TEST_F(HostEvents, RelativeNameIsJoinedToTheWorkingDirectory) {
    const auto ev = BuildCaptured("host_events.txt", 6, AuditTestData::kHostRoot);
    ASSERT_FALSE(ev.paths.empty());
    EXPECT_EQ("/tmp/awork/hostdir/sub/rel.txt", ev.paths[0].name);
    EXPECT_EQ("/tmp/awork/hostdir/sub", ev.cwd);
}

TEST_F(HostEvents, HexEncodedNameIsDecoded) {
    const auto ev = BuildCaptured("host_events.txt", 7, AuditTestData::kHostRoot);
    ASSERT_FALSE(ev.paths.empty());
    EXPECT_EQ("/tmp/awork/hostdir/with space", ev.paths[0].name);
}

class ContainerEvents : public ::testing::Test {};

TEST_F(ContainerEvents, ContainerRelativeNamesGetTheWatchedRootAndNamelessItemsGo) {
    const auto ev = BuildCaptured("container_events.txt", 14, AuditTestData::kContainerRoot);
    ASSERT_EQ(2u, ev.paths.size());  // 24 items, 22 of them nameless copy-up items
    EXPECT_EQ(std::string(AuditTestData::kContainerRoot) + "/usr/bin/tool", ev.paths[0].name);
    EXPECT_EQ(std::string(AuditTestData::kContainerRoot) + "/usr/bin", ev.paths[1].name);
    EXPECT_TRUE(ev.write);
    EXPECT_EQ("cp", ev.processName);
    EXPECT_EQ("15727", ev.pid);
}

TEST_F(ContainerEvents, ChmodInsideAContainer) {
    const auto ev = BuildCaptured("container_events.txt", 15, AuditTestData::kContainerRoot);
    ASSERT_EQ(1u, ev.paths.size());
    EXPECT_EQ(std::string(AuditTestData::kContainerRoot) + "/usr/bin/tool", ev.paths[0].name);
    EXPECT_TRUE(ev.attr);
    EXPECT_FALSE(ev.write);
}

TEST_F(ContainerEvents, RelativeNameInsideAContainer) {
    const auto ev = BuildCaptured("container_events.txt", 16, AuditTestData::kContainerRoot);
    ASSERT_FALSE(ev.paths.empty());
    EXPECT_EQ(std::string(AuditTestData::kContainerRoot) + "/tmp/rel.txt", ev.paths[0].name);
}

TEST_F(ContainerEvents, AppendToALowerFileCopiesUpWithNamelessItems) {
    const auto ev = BuildCaptured("container_events.txt", 17, AuditTestData::kContainerRoot);
    ASSERT_EQ(1u, ev.paths.size());
    EXPECT_EQ(std::string(AuditTestData::kContainerRoot) + "/etc/passwd", ev.paths[0].name);
    EXPECT_TRUE(ev.write);  // O_WRONLY|O_APPEND
}

TEST_F(ContainerEvents, KeyOfTheCapturedRule) {
    const auto events = AuditTestData::Join("container_events.txt");
    const JoinedAuditEvent* event = AuditTestData::BySerial(events, 14);
    ASSERT_NE(nullptr, event);
    EXPECT_TRUE(event->complete);
    const auto keys = AuditEventBuilder::Keys(event->records.front());
    ASSERT_EQ(1u, keys.size());
    EXPECT_EQ(AuditTestData::kContainerKey, keys[0]);
}

AuditRecord Record(int type, uint64_t serial, const std::string& body) {
    AuditRecord record;
    std::string error;
    const std::string text = "audit(100.1:" + std::to_string(serial) + "): " + body;
    EXPECT_TRUE(Engine::AuditRecordParser::Parse(type, text, record, error)) << error;
    return record;
}

const char* const kSyscall =
    "arch=c000003e syscall=257 success=yes exit=3 a0=ffffff9c a1=1 a2=241 a3=1b6 items=1 "
    "ppid=1 pid=2 comm=\"sh\" exe=\"/bin/sh\" key=\"cid:k\"";

class EventKeys : public ::testing::Test {};

TEST_F(EventKeys, HexEncodedAndMultipleKeys) {
    // "cid:a\x01other" hex-encoded, as the kernel writes a rule with two keys.
    const auto rec = Record(1300, 1, "syscall=2 key=6369643A61016F74686572");
    const auto keys = AuditEventBuilder::Keys(rec);
    ASSERT_EQ(2u, keys.size());
    EXPECT_EQ("cid:a", keys[0]);
    EXPECT_EQ("other", keys[1]);
    EXPECT_TRUE(AuditEventBuilder::Keys(Record(1300, 1, "syscall=2 key=(null)")).empty());
    EXPECT_TRUE(AuditEventBuilder::Keys(Record(1300, 1, "syscall=2")).empty());
}

class Joining : public ::testing::Test {
protected:
    std::vector<JoinedAuditEvent> out;
};

TEST_F(Joining, InterleavedEventsAreKeptApart) {
    AuditEventJoiner joiner(8, 16, 1000);
    joiner.Add(Record(1300, 1, kSyscall), 0, out);
    joiner.Add(Record(1300, 2, kSyscall), 0, out);
    joiner.Add(Record(1302, 2, "item=0 name=\"/b\" nametype=NORMAL"), 0, out);
    joiner.Add(Record(1302, 1, "item=0 name=\"/a\" nametype=NORMAL"), 0, out);
    joiner.Add(Record(1320, 2, ""), 0, out);
    ASSERT_EQ(1u, out.size());
    EXPECT_EQ(2u, out[0].serial);
    joiner.Add(Record(1320, 1, ""), 0, out);
    ASSERT_EQ(2u, out.size());
    EXPECT_EQ(1u, out[1].serial);
    EXPECT_EQ("\"/a\"", out[1].records[1].Raw("name"));
    EXPECT_EQ(0u, joiner.Pending());
}

TEST_F(Joining, RecordsWithoutTheirSyscallAndUnwantedEventsAreIgnored) {
    AuditEventJoiner joiner(
        8, 16, 1000, [](const AuditRecord& r) { return !AuditEventBuilder::Keys(r).empty(); });
    joiner.Add(Record(1302, 5, "item=0 name=\"/a\""), 0, out);
    joiner.Add(Record(1300, 6, "syscall=2 key=(null)"), 0, out);
    joiner.Add(Record(1302, 6, "item=0 name=\"/a\""), 0, out);
    joiner.Add(Record(1320, 6, ""), 0, out);
    joiner.Add(Record(1305, 7, "op=add_rule key=\"cid:k\""), 0, out);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(0u, joiner.Pending());
}

TEST_F(Joining, OpenEventsAreBoundedAndTheOldestLeavesFirst) {
    AuditEventJoiner joiner(3, 4, 1000);
    for (uint64_t serial = 1; serial <= 5; ++serial)
        joiner.Add(Record(1300, serial, kSyscall), 0, out);
    EXPECT_EQ(3u, joiner.Pending());
    ASSERT_EQ(2u, out.size());
    EXPECT_EQ(1u, out[0].serial);
    EXPECT_FALSE(out[0].complete);
    EXPECT_EQ(2u, joiner.Evicted());
    for (int i = 0; i < 10; ++i) joiner.Add(Record(1302, 5, "item=0 name=\"/x\""), 0, out);
    joiner.Add(Record(1320, 5, ""), 0, out);
    EXPECT_EQ(4u, out.back().records.size());
    EXPECT_EQ(7u, joiner.DroppedRecords());
}

TEST_F(Joining, EventWhoseEndWasLostIsFlushedWhenStale) {
    AuditEventJoiner joiner(8, 16, 1000);
    joiner.Add(Record(1300, 1, kSyscall), 100, out);
    joiner.Add(Record(1300, 2, kSyscall), 900, out);
    joiner.FlushStale(1099, out);
    EXPECT_TRUE(out.empty());
    joiner.FlushStale(1100, out);
    ASSERT_EQ(1u, out.size());
    EXPECT_EQ(1u, out[0].serial);
    EXPECT_EQ(1u, joiner.Pending());
}

class Building : public ::testing::Test {
protected:
    AuditLogSyscall Build(const std::vector<AuditRecord>& records,
                          const std::vector<std::string>& roots) {
        JoinedAuditEvent event;
        event.serial = records.front().serial;
        event.records = records;
        AuditLogSyscall out;
        std::string error;
        EXPECT_TRUE(AuditEventBuilder::Build(event, roots, out, error)) << error;
        return out;
    }
};

TEST_F(Building, OpenForReadOnlyIsNotAWrite) {
    const auto ev = Build({Record(1300, 1,
                                  "arch=c000003e syscall=257 a0=ffffff9c a1=1 a2=0 pid=3 "
                                  "comm=636F6D6D2078 key=\"cid:k\""),
                           Record(1302, 1, "item=0 name=\"/r/f\" nametype=NORMAL")},
                          {"/r"});
    EXPECT_FALSE(ev.write);
    EXPECT_FALSE(ev.attr);
    EXPECT_EQ("comm x", ev.processName);  // hex-encoded comm
}

TEST_F(Building, Aarch64NumbersAreClassifiedByName) {
    // aarch64: 53 is fchmodat, 35 unlinkat.
    auto ev = Build({Record(1300, 1, "arch=c00000b7 syscall=53 key=\"cid:k\""),
                     Record(1302, 1, "item=0 name=\"/r/f\"")},
                    {"/r"});
    EXPECT_TRUE(ev.attr);
    EXPECT_FALSE(ev.write);
    ev = Build({Record(1300, 1, "arch=c00000b7 syscall=35 key=\"cid:k\""),
                Record(1302, 1, "item=0 name=\"/r/f\"")},
               {"/r"});
    EXPECT_TRUE(ev.write);
}

TEST_F(Building, WatchedRootOfTheKeyDecidesWhatIsContainerRelative) {
    const auto ev = Build({Record(1300, 1, kSyscall), Record(1307, 1, "cwd=\"/\""),
                           Record(1302, 1, "item=0 name=\"/srv/c1/merged/bin/x\""),
                           Record(1302, 1, "item=1 name=\"/bin/y\""),
                           Record(1302, 1, "item=2 name=\"/srv/c1/mergedX/z\"")},
                          {"/srv/c1/merged/"});
    ASSERT_EQ(3u, ev.paths.size());
    EXPECT_EQ("/srv/c1/merged/bin/x", ev.paths[0].name);
    EXPECT_EQ("/srv/c1/merged/bin/y", ev.paths[1].name);
    EXPECT_EQ("/srv/c1/merged/srv/c1/mergedX/z", ev.paths[2].name);
}

// rename(2) and link(2) list the directories and the old name before the new one; the name
// the call created must come first, since that is the file a consumer looks at.
TEST_F(Building, CreatedNameComesFirstDirectoriesLast) {
    const char* const kRename =
        "arch=c000003e syscall=82 success=yes exit=0 items=4 ppid=1 pid=2 comm=\"dpkg\" "
        "key=\"cid:k\"";
    auto ev = Build({Record(1300, 1, kRename), Record(1307, 1, "cwd=\"/\""),
                     Record(1302, 1, "item=0 name=\"/usr/bin/\" nametype=PARENT"),
                     Record(1302, 1, "item=1 name=\"/usr/bin/\" nametype=PARENT"),
                     Record(1302, 1, "item=2 name=\"/usr/bin/tree.dpkg-new\" nametype=DELETE"),
                     Record(1302, 1, "item=3 name=\"/usr/bin/tree\" nametype=CREATE")},
                    {"/r"});
    ASSERT_EQ(4u, ev.paths.size());
    EXPECT_EQ("/r/usr/bin/tree", ev.paths[0].name);
    EXPECT_EQ("/r/usr/bin/tree.dpkg-new", ev.paths[1].name);
    EXPECT_EQ("PARENT", ev.paths[3].nametype);
    EXPECT_TRUE(ev.write);
    EXPECT_FALSE(ev.opened);
    EXPECT_TRUE(ev.containerView);

    const char* const kLink =
        "arch=c000003e syscall=86 success=yes exit=0 items=3 ppid=1 pid=2 comm=\"ln\" "
        "key=\"cid:k\"";
    ev = Build({Record(1300, 2, kLink), Record(1307, 2, "cwd=\"/r\""),
                Record(1302, 2, "item=0 name=\"/r/bin/true\" nametype=NORMAL"),
                Record(1302, 2, "item=1 name=\"/r/usr/bin/\" nametype=PARENT"),
                Record(1302, 2, "item=2 name=\"/r/usr/bin/t2\" nametype=CREATE")},
               {"/r"});
    ASSERT_EQ(3u, ev.paths.size());
    EXPECT_EQ("/r/usr/bin/t2", ev.paths[0].name);
    EXPECT_EQ("/r/bin/true", ev.paths[1].name);
    EXPECT_FALSE(ev.containerView);

    ev = Build({Record(1300, 3, kSyscall), Record(1302, 3, "item=0 name=\"/r/f\"")}, {"/r"});
    EXPECT_TRUE(ev.opened);
}

TEST_F(Building, WithoutSyscallRecordOrNumberNothingIsBuilt) {
    JoinedAuditEvent event;
    event.records.push_back(Record(1302, 1, "item=0 name=\"/a\""));
    AuditLogSyscall out;
    std::string error;
    EXPECT_FALSE(AuditEventBuilder::Build(event, {}, out, error));
    event.records.insert(event.records.begin(), Record(1300, 1, "arch=c000003e syscall=abc"));
    EXPECT_FALSE(AuditEventBuilder::Build(event, {}, out, error));
}

TEST(PathJoin, Edges) {
    EXPECT_EQ("/a/b", AuditEventBuilder::JoinCwd("/a", "b"));
    EXPECT_EQ("/a/b", AuditEventBuilder::JoinCwd("/a/", "./b"));
    EXPECT_EQ("/a", AuditEventBuilder::JoinCwd("/a", "."));
    EXPECT_EQ("/x", AuditEventBuilder::JoinCwd("/a", "/x"));
    EXPECT_EQ("b", AuditEventBuilder::JoinCwd("", "b"));
    EXPECT_TRUE(AuditEventBuilder::IsUnder("/r", "/r"));
    EXPECT_TRUE(AuditEventBuilder::IsUnder("/r/x", "/r"));
    EXPECT_FALSE(AuditEventBuilder::IsUnder("/rx", "/r"));
    EXPECT_TRUE(AuditEventBuilder::IsUnder("/anything", "/"));
}

}  // namespace
