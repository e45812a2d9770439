// The utility library against real files and the real /proc.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "sdk/CryptoCodeUtils.h"
#include "sdk/FileUtils.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/LoggerUtils.h"
#include "sdk/ProcessUtils.h"
#include "support/TempDir.h"

namespace {

using SDK::FileUtils;
using SDK::JsonUtils;
using SDK::ProcessUtils;
using TestSupport::TempDir;

// Anything but a regular file (a FIFO, a device, a directory) is refused by one check.
TEST(Files, DigestSizeLimitAndOnlyRegularFilesUnfollowedAreOpened) {
    TempDir dir;
    std::string digest;
    ASSERT_TRUE(FileUtils::GetFileSha256(dir.File("empty", ""), digest, 100));
    EXPECT_EQ(digest, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    std::string over;
    EXPECT_FALSE(FileUtils::GetFileSha256(dir.File("big", std::string(101, 'x')), over, 100));
    EXPECT_TRUE(over.empty());
    EXPECT_TRUE(FileUtils::GetFileSha256(dir.File("at", std::string(100, 'x')), over, 100));

    const std::string fifo = dir.Path() + "/fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_LT(FileUtils::OpenRegularFileForRead(fifo), 0);  // no writer: must not block
    // A link swapped in for a resolved path is not followed to the file it names.
    ASSERT_EQ(::symlink((dir / "at").c_str(), (dir / "swapped").c_str()), 0);
    EXPECT_LT(FileUtils::OpenRegularFileForRead(dir / "swapped"), 0);
    const int fd = FileUtils::OpenRegularFileForRead(dir / "at");
    ASSERT_GE(fd, 0);
    EXPECT_EQ(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0) << "reads of the file should block normally";
    ::close(fd);
}

TEST(Json, DepthLimitAndTypedAccessors) {
    Json::Value doc;
    const std::string deep(100000, '[');
    EXPECT_NE(JsonUtils::ParseJsonStr(deep.c_str(), deep.size(), doc), 0);
    EXPECT_NE(JsonUtils::ParseJsonStr("{not json", doc), 0);
    // A member of the wrong type reads as absent.
    Json::Value typed;
    ASSERT_EQ(JsonUtils::ParseJsonStr(R"({ "s" : 1, "b":"true","o":[],"a":{}})", typed), 0);
    EXPECT_EQ(JsonUtils::GetStringValue(typed, "s", "d"), "d");
    EXPECT_EQ(JsonUtils::GetStringValue(typed, "missing", "dflt"), "dflt");
    EXPECT_FALSE(JsonUtils::GetBoolValue(typed, "b", false));
    Json::Value out;
    EXPECT_FALSE(JsonUtils::GetSubobjectValue(typed, "o", out));
    EXPECT_FALSE(JsonUtils::GetArrayValue(typed, "a", out));
}

// Alarms are written by the agent's own writer; for valid UTF-8 it must give JsonCpp's text to
// the byte: member order, number forms, escapes.
TEST(Json, WrittenExactlyAsJsonCppWritesValidText) {
    Json::Value doc(Json::objectValue);
    for (const Json::Value& n : {Json::Value(Json::Int64(-9223372036854775807LL - 1)),
                                 Json::Value(Json::UInt64(18446744073709551615ULL)), Json::Value(0),
                                 Json::Value(-42), Json::Value(0.1), Json::Value(-0.0),
                                 Json::Value(3.0), Json::Value(1e300), Json::Value(-2.5e-8)}) {
        doc["numbers"].append(n);
    }
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
    EXPECT_EQ(JsonUtils::JsonToString(doc), reference.write(doc));
    EXPECT_EQ(JsonUtils::JsonToString(Json::Value("scalar")), "\"scalar\"");
}

// The report task's check of every alarm: strict JSON, one object, nothing built.
TEST(Json, OnlyOneStrictJsonObjectIsTakenForAnObject) {
    const std::string nest64 = std::string(63, '[') + std::string(63, ']');
    const std::string nest65 = "{\"a\":" + std::string(64, '[') + std::string(64, ']') + "}";
    const std::string nul("{\"a\":\"\0\"}", 7);
    // Duplicate names are valid JSON; 64 levels of nesting are the most taken.
    const std::vector<std::string> objects = {
        R"({})",
        " \t\r\n{ \"a\" : [ 1 , -0.5e+3 , 1E2 , 0 , true , false , null ] } \n",
        R"({"a":{"a":1},"a":2})",
        R"({"n":123456789012345678901234567890})",
        R"({"s":"\"\\\/\b\f\n\r\t\u00e9\ud83d\ude00"})",
        "{\"s\":\"\xC3\xA9\xF0\x9F\x98\x80\"}",
        "{\"a\":" + nest64 + "}"};
    for (const auto& text : objects) EXPECT_TRUE(JsonUtils::IsJsonObject(text)) << text;
    // Not one strict object: syntax, numbers, strings (escapes, control bytes, bad UTF-8).
    const std::vector<std::string> notObjects[] = {
        {R"([])", R"("text")", R"({} {})", R"({"a":1,})", R"({"a" 1})", R"({a:1})", "{/*c*/}",
         "{\"a\":1", "{\"a\":\"", "", nest65},
        {R"({"a":01})", R"({"a":1.})", R"({"a":.5})", R"({"a":-})", R"({"a":1e})", R"({"a":1e999})",
         R"({"a":+1})", R"({"a":tru})"},
        {R"({"a":"\x41"})", R"({"a":"\ud800"})", R"({"a":"\udc00"})", R"({"a":"\ud800\u0041"})",
         R"({"a":"\u12G4"})", "{\"a\":\"tab\there\"}", "{\"a\":\"\xC0\xAF\"}",
         "{\"a\":\"\xED\xA0\x80\"}", nul}};
    for (const auto& group : notObjects) {
        for (const auto& text : group) EXPECT_FALSE(JsonUtils::IsJsonObject(text)) << text;
    }

    // Only the top level's string member is captured.
    std::string cls = "unset";
    EXPECT_TRUE(JsonUtils::IsJsonObject(R"({"c":7,"x":{"c":"inner"}})", "c", &cls));
    EXPECT_EQ(cls, "unset");
    EXPECT_TRUE(JsonUtils::IsJsonObject(R"({"x":{"c":"inner"},"c":"dockerfile_001"})", "c", &cls));
    EXPECT_EQ(cls, "dockerfile_001");
}

// Found by fuzzing: names that differ only in bytes that are not UTF-8 become alike once
// written, and their order changes; the text must still read back to itself.
TEST(Json, NamesThatBecomeAlikeWhenWrittenAreOneMemberInTheirWrittenOrder) {
    Json::Value doc(Json::objectValue);
    doc["\xFF\x61"] = 1;  // "a" after a byte that is not UTF-8
    doc["\xFE\x61"] = 2;
    doc["b"] = 3;
    const std::string text = JsonUtils::JsonToString(doc);
    EXPECT_EQ(text, R"({"b":3,"\ufffda":1})");
    Json::Value again;
    ASSERT_EQ(JsonUtils::ParseJsonStr(text, again), 0);
    EXPECT_EQ(JsonUtils::JsonToString(again), text);
}

// A container names its files with any bytes. What the document says must be either the name
// itself or plainly undecodable, never another plausible name, and it must read back the same.
TEST(Json, BytesThatAreNotUtf8AreWrittenAsReplacementCharacters) {
    Json::Value doc(Json::objectValue);
    doc["file"] = "/tmp/\xC9\x64";      // a lead byte without its continuation, then "d"
    doc["lone"] = "\xAA";               // a continuation byte alone
    doc["surrogate"] = "\xED\xA0\x80";  // U+D800 spelt in UTF-8
    doc["overlong"] = "\xC0\xAF";       // "/" in two bytes
    doc["cut"] = "\xE2\x82";            // a sequence cut short at the end
    doc["valid"] = "\xC3\xA9\xF0\x9F\x98\x80";
    doc["\xFF"] = 1;
    const std::string text = JsonUtils::JsonToString(doc);
    EXPECT_EQ(text, R"({"cut":"\ufffd\ufffd","file":"/tmp/\ufffdd","lone":"\ufffd",)"
                    R"("overlong":"\ufffd\ufffd","surrogate":"\ufffd\ufffd\ufffd",)"
                    R"("valid":"\u00e9\ud83d\ude00","\ufffd":1})");
    Json::Value again;
    ASSERT_EQ(JsonUtils::ParseJsonStr(text, again), 0);
    EXPECT_EQ(JsonUtils::JsonToString(again), text);
    EXPECT_EQ(doc["file"].asString(), "/tmp/\xC9\x64");  // the caller's document is left alone
}

TEST(ContainerOfProcess, CgroupV1V2AndPodmanForms) {
    const std::string id(64, 'a');
    const std::string podman = "3d64fa20aee3959c65f7af8a9fa6a272aa258b17ff92a127a213fa662e5a2d22";
    // Podman's conmon is no container.
    const std::pair<std::string, std::string> cases[] = {
        {"bad line\n12:pids:/docker/" + id + "\n1:name=systemd:/docker/" + id + "\n", id},
        {"0::/system.slice/docker-" + id + ".scope\n", id},
        {"0::/user.slice/session-1.scope\n", ""},
        {"0::/docker/" + id + "x\n", ""},
        {"0::/machine.slice/libpod-" + podman + ".scope/container\n", podman},
        {"0::/machine.slice/libpod-conmon-" + podman + ".scope\n", ""}};
    for (const auto& c : cases)
        EXPECT_EQ(ProcessUtils::ParseContainerIdFromCgroup(c.first), c.second);
}

// Short-lived writers are gone before an alarm asks who they were: the capture answers for
// them, and a later capture that knows nothing new (the file's close seen after the exit) must
// not wipe that out. A live process outside any container, or a missing one, gets no container.
TEST(ContainerOfProcess, ACapturedProcessIsNamedAfterItExited) {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(0);
    ASSERT_GT(child, 0);
    ::waitpid(child, nullptr, 0);
    const std::string guess(64, 'c');
    ProcessUtils::CaptureProcess(child, guess);
    ProcessUtils::CaptureProcess(child);
    auto idOf = [](int pid) {
        std::string id;
        ProcessUtils::GetContainerID(pid, id);
        return id;
    };
    EXPECT_EQ(idOf(child), guess);
    ProcessUtils::CaptureProcess(::getpid(), std::string(64, 'b'));
    EXPECT_EQ(idOf(::getpid()), "") << "a running process is judged by its own cgroup";
    EXPECT_EQ(idOf(0x7ffffff0), "");
}

TEST(CpuLimiter, SleepSpreadsUsedTimeOverTheAllowedShare) {
    using SDK::InnerCpuCtrlUtils;
    EXPECT_EQ(InnerCpuCtrlUtils::ComputeSleepMs(100, 100, 0), 0u) << "0 means off";
    EXPECT_EQ(InnerCpuCtrlUtils::ComputeSleepMs(50, 100, 50), 0u) << "already within share";
    EXPECT_EQ(InnerCpuCtrlUtils::ComputeSleepMs(100, 100, 50), 100u);
    EXPECT_EQ(InnerCpuCtrlUtils::ComputeSleepMs(400, 0, 25), 1000u) << "at most a second";
}

TEST(Logging, LevelNamesAndNumbers) {
    EXPECT_EQ(SDK::LoggerUtils::ParseLevel("debug"), 7);
    EXPECT_EQ(SDK::LoggerUtils::ParseLevel(" Warn"), 4);
    EXPECT_EQ(SDK::LoggerUtils::ParseLevel("6"), 6);
    EXPECT_EQ(SDK::LoggerUtils::ParseLevel("9"), -1);
}

TEST(Uuids, ManyFromSeveralThreadsAreDistinctVersion4Texts) {
    // Well past one thread's pool of random bytes, from two threads at once.
    std::vector<std::string> ids(6000);
    auto fill = [&ids](std::size_t from) {
        for (std::size_t i = from; i < ids.size(); i += 2)
            ids[i] = SDK::CryptoCodeUtils::GenerateUUID();
    };
    std::thread other(fill, 1);
    fill(0);
    other.join();
    const std::set<std::string> seen(ids.begin(), ids.end());
    EXPECT_EQ(seen.size(), ids.size());
    const std::regex version4(
        "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    for (const std::string& id : seen) ASSERT_TRUE(std::regex_match(id, version4)) << id;
}

}  // namespace
