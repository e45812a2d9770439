// The utility library against real files and the real /proc.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "sdk/CryptoCodeUtils.h"
#include "sdk/FileUtils.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"
#include "sdk/ProcessUtils.h"
#include "support/Shell.h"
#include "support/TempDir.h"

namespace {

using TestSupport::TempDir;

TEST(FileSha256, KnownDigestsAndTheSizeLimit) {
    TempDir dir;
    std::string digest;
    ASSERT_TRUE(SDK::FileUtils::GetFileSha256(dir.File("empty", ""), digest, 100));
    EXPECT_EQ(digest, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    ASSERT_TRUE(SDK::FileUtils::GetFileSha256(dir.File("abc", "abc"), digest, 100));
    EXPECT_EQ(digest, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    std::string over;
    EXPECT_FALSE(SDK::FileUtils::GetFileSha256(dir.File("big", std::string(101, 'x')), over, 100));
    EXPECT_TRUE(over.empty());
}

TEST(FileSha256, TenMebibytesMatchTheSystemTool) {
    TempDir dir;
    const std::string path = dir.File("ten", std::string(10 << 20, '\x5a'));
    std::string digest;
    ASSERT_TRUE(SDK::FileUtils::GetFileSha256(path, digest, 10 << 20));
    EXPECT_EQ(digest + "\n",
              TestSupport::Shell::Run("sha256sum '" + path + "' | cut -d' ' -f1").out);
}

TEST(FileOpen, FifoDeviceAndDirectoryAreRefusedWithoutHanging) {
    TempDir dir;
    const std::string fifo = dir.Path() + "/fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_LT(SDK::FileUtils::OpenRegularFileForRead(fifo), 0);  // no writer: must not block
    EXPECT_LT(SDK::FileUtils::OpenRegularFileForRead("/dev/zero"), 0);
    EXPECT_LT(SDK::FileUtils::OpenRegularFileForRead(dir.Path()), 0);
    // A link swapped in for a resolved path is not followed to the file it names.
    const std::string target = dir.File("target", "secret");
    ASSERT_EQ(::symlink(target.c_str(), (dir.Path() + "/swapped").c_str()), 0);
    EXPECT_LT(SDK::FileUtils::OpenRegularFileForRead(dir.Path() + "/swapped"), 0);
    std::string digest;
    EXPECT_FALSE(SDK::FileUtils::GetFileSha256(fifo, digest, 100));
    const int fd = SDK::FileUtils::OpenRegularFileForRead(dir.File("plain", "x"));
    ASSERT_GE(fd, 0);
    EXPECT_EQ(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0) << "reads of the file should block normally";
    ::close(fd);
}

TEST(Json, CompactOutputAndDepthLimit) {
    Json::Value doc;
    ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(R"({ "a" : [1, 2], "b" : {"c": "d"} })", doc), 0);
    const std::string text = SDK::JsonUtils::JsonToString(doc);
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_EQ(text, R"({"a":[1,2],"b":{"c":"d"}})");
    const std::string deep(100000, '[');
    EXPECT_NE(SDK::JsonUtils::ParseJsonStr(deep.c_str(), deep.size(), doc), 0);
    EXPECT_NE(SDK::JsonUtils::ParseJsonStr("{not json", doc), 0);
    EXPECT_EQ(SDK::JsonUtils::GetStringValue(doc, "missing", "dflt"), "dflt");
    Json::Value typed;
    SDK::JsonUtils::ParseJsonStr(R"({"s":1,"b":"true","o":[],"a":{}})", typed);
    EXPECT_EQ(SDK::JsonUtils::GetStringValue(typed, "s", "d"), "d");
    EXPECT_TRUE(SDK::JsonUtils::GetBoolValue(typed, "b", true));
    Json::Value out;
    EXPECT_FALSE(SDK::JsonUtils::GetSubobjectValue(typed, "o", out));
    EXPECT_FALSE(SDK::JsonUtils::GetArrayValue(typed, "a", out));
}

// Alarms are written by the agent's own writer; for valid UTF-8 it must give JsonCpp's text to
// the byte: member order, number forms, escapes.
TEST(Json, WrittenExactlyAsJsonCppWritesValidText) {
    Json::Value doc(Json::objectValue);
    doc["ints"].append(Json::Int64(-9223372036854775807LL - 1));
    doc["ints"].append(Json::UInt64(18446744073709551615ULL));
    doc["ints"].append(0);
    doc["ints"].append(-42);
    doc["reals"].append(0.1);
    doc["reals"].append(-0.0);
    doc["reals"].append(3.0);
    doc["reals"].append(1e300);
    doc["reals"].append(-2.5e-8);
    doc["text"] =
        std::string("q\"b\\s/\b\f\n\r\t\x01\x1f\x7f e\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80");
    doc["nul"] = std::string("a\0b", 3);
    doc[std::string("key\0with nul", 12)] = true;
    doc["Upper"] = false;
    doc["aa"] = Json::Value();
    doc["empty"]["array"] = Json::Value(Json::arrayValue);
    doc["empty"]["object"] = Json::Value(Json::objectValue);
    doc["holes"][3] = "third";  // a sparse array reads as nulls
    doc["deep"]["a"]["b"][0]["c"] = "d";
    Json::FastWriter reference;
    reference.omitEndingLineFeed();
    EXPECT_EQ(SDK::JsonUtils::JsonToString(doc), reference.write(doc));
    EXPECT_EQ(SDK::JsonUtils::JsonToString(Json::Value("scalar")), "\"scalar\"");
}

// The report task's check of every alarm: strict JSON, one object, nothing built.
TEST(Json, OnlyOneStrictJsonObjectIsTakenForAnObject) {
    const std::string nest64 = std::string(63, '[') + std::string(63, ']');
    const std::string nest65 = std::string(64, '[') + std::string(64, ']');
    const struct {
        std::string text;
        bool object;
    } cases[] = {
        {R"({})", true},
        {" \t\r\n{ \"a\" : [ 1 , -0.5e+3 , 1E2 , 0 , true , false , null ] } \n", true},
        {R"({"a":{"a":1},"a":2})", true},  // duplicate names: JSON allows them
        {R"({"n":123456789012345678901234567890})", true},
        {R"({"s":"\"\\\/\b\f\n\r\t\u00e9\ud83d\ude00"})", true},
        {"{\"s\":\"\xC3\xA9\xF0\x9F\x98\x80\"}", true},
        {"{\"a\":" + nest64 + "}", true},
        {"{\"a\":" + nest65 + "}", false},
        {R"([])", false},
        {R"("text")", false},
        {R"({} {})", false},
        {R"({"a":1,})", false},
        {R"({"a" 1})", false},
        {R"({a:1})", false},
        {R"({'a':1})", false},
        {R"({"a":01})", false},
        {R"({"a":1.})", false},
        {R"({"a":.5})", false},
        {R"({"a":-})", false},
        {R"({"a":1e})", false},
        {R"({"a":1e999})", false},
        {R"({"a":+1})", false},
        {R"({"a":tru})", false},
        {R"({"a":"\x41"})", false},
        {R"({"a":"\ud800"})", false},
        {R"({"a":"\udc00"})", false},
        {R"({"a":"\ud800\u0041"})", false},
        {R"({"a":"\u12G4"})", false},
        {"{\"a\":\"tab\there\"}", false},
        {"{\"a\":\"\xC0\xAF\"}", false},
        {"{\"a\":\"\xED\xA0\x80\"}", false},
        {std::string("{\"a\":\"\0\"}", 7), false},
        {"{/*c*/}", false},
        {"{\"a\":1", false},
        {"{\"a\":\"", false},
        {"", false},
    };
    for (const auto& c : cases) EXPECT_EQ(SDK::JsonUtils::IsJsonObject(c.text), c.object) << c.text;

    std::string cls = "unset";
    EXPECT_TRUE(SDK::JsonUtils::IsJsonObject(
        R"({"x":{"event_classid":"inner"},"event_classid":"dockerfile_001"})", "event_classid",
        &cls));
    EXPECT_EQ(cls, "dockerfile_001");
    cls = "unset";
    EXPECT_TRUE(SDK::JsonUtils::IsJsonObject(R"({"event_classid":7})", "event_classid", &cls));
    EXPECT_EQ(cls, "unset") << "only a string is captured";
}

// Found by fuzzing: names that differ only in bytes that are not UTF-8 become alike once
// written, and their order changes; the text must still read back to itself.
TEST(Json, NamesThatBecomeAlikeWhenWrittenAreOneMemberInTheirWrittenOrder) {
    Json::Value doc(Json::objectValue);
    doc["\xFF"
        "a"] = 1;
    doc["\xFE"
        "a"] = 2;
    doc["b"] = 3;
    const std::string text = SDK::JsonUtils::JsonToString(doc);
    EXPECT_EQ(text, R"({"b":3,"\ufffda":1})");
    Json::Value again;
    ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(text, again), 0);
    EXPECT_EQ(SDK::JsonUtils::JsonToString(again), text);
}

// A container names its files with any bytes. What the document says must be either the name
// itself or plainly undecodable, never another plausible name, and it must read back the same.
TEST(Json, BytesThatAreNotUtf8AreWrittenAsReplacementCharacters) {
    Json::Value doc(Json::objectValue);
    doc["file"] =
        "/tmp/\xC9"
        "d";                            // a lead byte without its continuation
    doc["lone"] = "\xAA";               // a continuation byte alone
    doc["surrogate"] = "\xED\xA0\x80";  // U+D800 spelt in UTF-8
    doc["overlong"] = "\xC0\xAF";       // "/" in two bytes
    doc["cut"] = "\xE2\x82";            // a sequence cut short at the end
    doc["valid"] = "\xC3\xA9\xF0\x9F\x98\x80";
    doc["\xFF"] = 1;
    const std::string text = SDK::JsonUtils::JsonToString(doc);
    EXPECT_EQ(text, R"({"cut":"\ufffd\ufffd","file":"/tmp/\ufffdd","lone":"\ufffd",)"
                    R"("overlong":"\ufffd\ufffd","surrogate":"\ufffd\ufffd\ufffd",)"
                    R"("valid":"\u00e9\ud83d\ude00","\ufffd":1})");
    Json::Value again;
    ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(text, again), 0);
    EXPECT_EQ(SDK::JsonUtils::JsonToString(again), text);
    EXPECT_EQ(again["valid"].asString(), "\xC3\xA9\xF0\x9F\x98\x80");
    EXPECT_EQ(doc["file"].asString(),
              "/tmp/\xC9"
              "d");  // the caller's document is left alone
}

TEST(Paths, FileNameAndCanonicalForm) {
    EXPECT_EQ(SDK::PathUtils::GetFileNameFromPath("/a/b/RootFsMonitor.cpp"), "RootFsMonitor.cpp");
    EXPECT_EQ(SDK::PathUtils::GetFileNameFromPath("plain"), "plain");
    TempDir dir;
    const std::string target = dir.File("t", "x");
    ASSERT_EQ(::symlink(target.c_str(), (dir.Path() + "/link").c_str()), 0);
    char resolved[PATH_MAX];
    ASSERT_NE(::realpath(target.c_str(), resolved), nullptr);
    EXPECT_EQ(SDK::PathUtils::GetExistedCanonicalizePath(dir.Path() + "/./link"), resolved);
    EXPECT_EQ(SDK::PathUtils::GetExistedCanonicalizePath(dir.Path() + "/missing"), "");
}

TEST(ContainerOfProcess, CgroupV1AndV2Forms) {
    const std::string id(64, 'a');
    EXPECT_EQ(SDK::ProcessUtils::ParseContainerIdFromCgroup(
                  "12:pids:/docker/" + id + "\n1:name=systemd:/docker/" + id + "\n"),
              id);
    EXPECT_EQ(
        SDK::ProcessUtils::ParseContainerIdFromCgroup("0::/system.slice/docker-" + id + ".scope\n"),
        id);
    EXPECT_EQ(SDK::ProcessUtils::ParseContainerIdFromCgroup("0::/user.slice/session-1.scope\n"),
              "");
    // Podman with cgroupfs (captured) and with systemd; its conmon is no container.
    const std::string podman = "3d64fa20aee3959c65f7af8a9fa6a272aa258b17ff92a127a213fa662e5a2d22";
    EXPECT_EQ(SDK::ProcessUtils::ParseContainerIdFromCgroup(
                  "9:name=systemd:/libpod_parent/libpod-" + podman +
                  "\n8:pids:/libpod_parent/libpod-" + podman + "\n"),
              podman);
    EXPECT_EQ(SDK::ProcessUtils::ParseContainerIdFromCgroup("0::/machine.slice/libpod-" + podman +
                                                            ".scope/container\n"),
              podman);
    EXPECT_EQ(SDK::ProcessUtils::ParseContainerIdFromCgroup("0::/machine.slice/libpod-conmon-" +
                                                            podman + ".scope\n"),
              "");
    EXPECT_EQ(SDK::ProcessUtils::ParseContainerIdFromCgroup("0::/docker/nothex\n"), "");
    // This test process is not in a container, and a missing process has no container.
    std::string mine;
    SDK::ProcessUtils::GetContainerID(static_cast<int>(::getpid()), mine);
    EXPECT_EQ(mine, "");
    std::string gone;
    SDK::ProcessUtils::GetContainerID(0x7ffffff0, gone);
    EXPECT_EQ(gone, "");
}

TEST(CpuLimiter, SleepSpreadsUsedTimeOverTheAllowedShare) {
    EXPECT_EQ(SDK::InnerCpuCtrlUtils::ComputeSleepMs(100, 100, 0), 0u) << "0 means off";
    EXPECT_EQ(SDK::InnerCpuCtrlUtils::ComputeSleepMs(100, 100, 100), 0u);
    EXPECT_EQ(SDK::InnerCpuCtrlUtils::ComputeSleepMs(50, 100, 50), 0u) << "already within share";
    EXPECT_EQ(SDK::InnerCpuCtrlUtils::ComputeSleepMs(100, 100, 50), 100u);
    EXPECT_EQ(SDK::InnerCpuCtrlUtils::ComputeSleepMs(100, 0, 25), 400u);
    SDK::InnerCpuCtrlUtils::SetLimitPercent(30);
    EXPECT_TRUE(SDK::InnerCpuCtrlUtils::IsEnabled());
    SDK::InnerCpuCtrlUtils::SetLimitPercent(0);
    EXPECT_FALSE(SDK::InnerCpuCtrlUtils::IsEnabled());
}

TEST(Logging, LevelNamesAndUuids) {
    EXPECT_EQ(SDK::LoggerUtils::ParseLevel("debug"), 7);
    EXPECT_EQ(SDK::LoggerUtils::ParseLevel("warning"), 4);
    EXPECT_EQ(SDK::LoggerUtils::ParseLevel("6"), 6);
    EXPECT_EQ(SDK::LoggerUtils::ParseLevel("loud"), -1);
}

TEST(Uuids, ManyFromSeveralThreadsAreDistinctVersion4Texts) {
    // Well past one thread's pool of random bytes, from two threads at once.
    constexpr int kEach = 3000;
    std::vector<std::string> first(kEach);
    std::vector<std::string> second(kEach);
    std::thread other([&] {
        for (auto& id : second) id = SDK::CryptoCodeUtils::GenerateUUID();
    });
    for (auto& id : first) id = SDK::CryptoCodeUtils::GenerateUUID();
    other.join();
    std::set<std::string> seen(first.begin(), first.end());
    seen.insert(second.begin(), second.end());
    EXPECT_EQ(seen.size(), 2u * kEach);
    for (const std::string& id : seen) {
        ASSERT_EQ(id.size(), 36u) << id;
        for (std::size_t i = 0; i < id.size(); ++i) {
            const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
            ASSERT_EQ(id[i] == '-', dash) << id;
            if (!dash) {
                ASSERT_TRUE(std::isxdigit(static_cast<unsigned char>(id[i]))) << id;
            }
        }
        ASSERT_EQ(id[14], '4') << id;                                          // version
        ASSERT_NE(std::string("89ab").find(id[19]), std::string::npos) << id;  // variant
    }
}

}  // namespace

namespace {

// The pid of a child that has exited and been reaped: a process that is gone.
pid_t GoneProcess() {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(0);
    if (child > 0) ::waitpid(child, nullptr, 0);
    return child;
}

// Short-lived writers are gone before an alarm asks who they were: the capture answers for
// them, while a live process outside any container is never given a guessed container.
TEST(ContainerOfProcess, CapturedProcessIsNamedAfterItExited) {
    const pid_t child = GoneProcess();
    ASSERT_GT(child, 0);
    const std::string guess(64, 'a');
    SDK::ProcessUtils::CaptureProcess(child, guess);
    std::string id;
    SDK::ProcessUtils::GetContainerID(child, id);
    EXPECT_EQ(guess, id);

    SDK::ProcessUtils::CaptureProcess(::getpid(), std::string(64, 'b'));
    id.clear();
    SDK::ProcessUtils::GetContainerID(::getpid(), id);
    EXPECT_EQ("", id);
}

// The close of a file can be seen after its writer exited and after a guess was recorded for
// it: knowing nothing new must not wipe out what was known.
TEST(ContainerOfProcess, ALaterCaptureOfAGoneProcessKeepsTheEarlierAnswer) {
    const pid_t child = GoneProcess();
    ASSERT_GT(child, 0);
    const std::string guess(64, 'c');
    SDK::ProcessUtils::CaptureProcess(child, guess);
    SDK::ProcessUtils::CaptureProcess(child);
    std::string id;
    SDK::ProcessUtils::GetContainerID(child, id);
    EXPECT_EQ(guess, id);
}

}  // namespace
