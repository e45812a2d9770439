// The engine-document parsers against answers captured from a real dockerd (tests/data/container)
// and damaged copies of them.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "container/DockerDocuments.h"
#include "container/DockerEventStream.h"

namespace Engine {
namespace {

const char* const kFullId = "301efaae1d9853541343d579f2720f73d6c409dfb2b5a04d785104c058fb7dc2";

std::string ReadData(const std::string& name) {
    std::ifstream in(std::string(TARNWICK_TEST_DATA_DIR) + "/container/" + name);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_FALSE(text.str().empty()) << "missing test data " << name;
    return text.str();
}

std::vector<std::string> ReadLines(const std::string& name) {
    std::istringstream in(ReadData(name));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty()) lines.push_back(line);
    }
    return lines;
}

class InspectDocument : public ::testing::Test {};

TEST_F(InspectDocument, RunningContainerMapsEveryMember) {
    ContainerInfo info;
    std::string error;
    ASSERT_TRUE(ParseContainerInspect(ReadData("inspect_running.json"), info, error)) << error;
    EXPECT_TRUE(info.running);
    EXPECT_FALSE(info.paused);
    EXPECT_FALSE(info.restarting);
    EXPECT_FALSE(info.privileged);
    EXPECT_EQ(info.id, kFullId);
    EXPECT_EQ(info.name, "tw-capture-full");
    EXPECT_EQ(info.cmd, "sleep 300");
    EXPECT_EQ(info.args, std::vector<std::string>{"300"});
    EXPECT_EQ(info.env, std::vector<std::string>{"FOO=bar"});
    EXPECT_TRUE(info.entrypoint.empty());
    EXPECT_EQ(info.exposedPorts, std::vector<std::string>{"80/tcp"});
    EXPECT_TRUE(info.volumes.empty());
    EXPECT_EQ(info.hostName, "capturehost");
    EXPECT_EQ(info.imageId,
              "sha256:59e10649862c80aab42fc360d1c8ec0645e129bd70d0dc10ddbb95dc668a090b");
    EXPECT_EQ(info.imageName, "tarnwick/busybox:latest");
    EXPECT_EQ(info.capAdd, std::vector<std::string>{"CAP_NET_ADMIN"});
    EXPECT_EQ(info.status, "running");
    EXPECT_EQ(info.created, "2026-11-22T23:57:27.732719971Z");
    EXPECT_EQ(info.startedAt, "2026-11-22T23:57:28.244947402Z");
    EXPECT_EQ(info.finishedAt, "0001-01-01T00:00:00Z");
    EXPECT_EQ(info.networkMode, "default");
    EXPECT_EQ(info.user, "");
    EXPECT_EQ(info.networks, std::vector<std::string>{"bridge"});
    EXPECT_EQ(info.labels, (std::map<std::string, std::string>{{"app", "demo"}, {"tier", "web"}}));
    ASSERT_EQ(info.ports.size(), 2u);  // published on IPv4 and IPv6
    EXPECT_EQ(info.ports[0].containerPort, 80);
    EXPECT_EQ(info.ports[0].hostPort, 18080);
    EXPECT_EQ(info.ports[0].protocol, "tcp");
    EXPECT_EQ(info.workingDir, "/tmp");
    ASSERT_EQ(info.mountPoints.size(), 1u);
    EXPECT_EQ(info.mountPoints[0].source, "/tmp/twvol");
    EXPECT_EQ(info.mountPoints[0].destination, "/data");
    EXPECT_EQ(info.mountPoints[0].mode, "ro");
    EXPECT_FALSE(info.mountPoints[0].rw);
    EXPECT_EQ(info.rootPath,
              "/var/lib/docker/overlay2/"
              "72ccc15e29e8e265c50bdddc1a1e0f282952b857c713937cf0911d7e2caa1f7d/merged");
}

TEST_F(InspectDocument, ProcessIdOfARunningContainerAndNoneOfAnExitedOrOddOne) {
    ContainerInfo info;
    std::string error;
    int pid = -1;
    ASSERT_TRUE(ParseContainerInspect(ReadData("inspect_running.json"), info, pid, error));
    EXPECT_EQ(pid, 15799);
    ASSERT_TRUE(ParseContainerInspect(ReadData("inspect_exited.json"), info, pid, error));
    EXPECT_EQ(pid, 0);
    for (const char* state : {R"("Pid":-5)", R"("Pid":"15799")", R"("Pid":1e12)", R"("X":1)"}) {
        pid = -1;
        const std::string doc =
            std::string(R"({"Id":"ab","State":{"Running":true,)") + state + "}}";
        ASSERT_TRUE(ParseContainerInspect(doc, info, pid, error)) << doc << ": " << error;
        EXPECT_EQ(pid, 0) << doc;
    }
}

TEST_F(InspectDocument, ExitedContainerIsNotRunning) {
    ContainerInfo info;
    std::string error;
    ASSERT_TRUE(ParseContainerInspect(ReadData("inspect_exited.json"), info, error)) << error;
    EXPECT_FALSE(info.running);
    EXPECT_EQ(info.status, "exited");
    EXPECT_NE(info.finishedAt, "0001-01-01T00:00:00Z");
}

TEST_F(InspectDocument, EveryTruncationIsRefused) {
    const std::string text = ReadData("inspect_plain.json");
    // Cuts at every position would be slow to report; every 7th byte still hits every shape.
    for (size_t len = 0; len + 1 < text.size(); len += 7) {
        ContainerInfo info;
        std::string error;
        EXPECT_FALSE(ParseContainerInspect(text.substr(0, len), info, error)) << "length " << len;
        EXPECT_FALSE(error.empty());
    }
}

TEST_F(InspectDocument, WithoutIdOrRunningStateIsRefused) {
    const std::vector<std::string> bad = {
        R"({"State":{"Running":true}})",
        R"({"Id":"","State":{"Running":true}})",
        R"({"Id":"../../images/json?x=","State":{"Running":true}})",
        R"({"Id":"ABCDEF","State":{"Running":true}})",
        R"({"Id":"abc123","State":{"Running":"yes"}})",
        R"({"Id":"abc123","State":[]})",
        R"({"Id":"abc123"})",
        R"([{"Id":"abc123","State":{"Running":true}}])",
        "null",
        "",
    };
    for (const auto& text : bad) {
        ContainerInfo info;
        std::string error;
        EXPECT_FALSE(ParseContainerInspect(text, info, error)) << text;
        EXPECT_FALSE(error.empty()) << text;
    }
}

TEST_F(InspectDocument, MembersOfTheWrongTypeAreLeftEmpty) {
    const std::string text =
        R"({"Id":"abc123","Name":7,"Path":["x"],"Args":"-c","Image":{},
            "State":{"Running":true,"Status":1},"Config":"none","HostConfig":[1,2],
            "NetworkSettings":{"Ports":{"80/tcp":"x","53/udp":[{"HostPort":"99999"},7]},
                               "Networks":[]},
            "Mounts":[1,{"Source":2,"Destination":"/d","RW":"true"}],
            "GraphDriver":{"Data":null}})";
    ContainerInfo info;
    std::string error;
    ASSERT_TRUE(ParseContainerInspect(text, info, error)) << error;
    EXPECT_EQ(info.id, "abc123");
    EXPECT_TRUE(info.running);
    EXPECT_EQ(info.name, "");
    EXPECT_EQ(info.cmd, "");
    EXPECT_EQ(info.imageId, "");
    EXPECT_EQ(info.imageName, "");
    EXPECT_EQ(info.rootPath, "");
    EXPECT_TRUE(info.networks.empty());
    ASSERT_EQ(info.mountPoints.size(), 1u);
    EXPECT_EQ(info.mountPoints[0].destination, "/d");
    EXPECT_FALSE(info.mountPoints[0].rw);
    // An unpublished port, and two bindings of which one has an out-of-range port.
    ASSERT_EQ(info.ports.size(), 3u);
}

TEST_F(InspectDocument, CommandWithoutArgumentsAndNameWithoutSlash) {
    ContainerInfo info;
    std::string error;
    ASSERT_TRUE(ParseContainerInspect(
        R"({"Id":"ab","Name":"plain","Path":"/bin/sh","Args":[],"State":{"Running":false}})", info,
        error));
    EXPECT_EQ(info.cmd, "/bin/sh");
    EXPECT_EQ(info.name, "plain");
}

TEST_F(InspectDocument, DeepNestingIsRefusedNotRecursed) {
    std::string text = R"({"Id":"ab","State":{"Running":true},"Labels":)";
    text += std::string(100000, '[') + std::string(100000, ']') + "}";
    ContainerInfo info;
    std::string error;
    EXPECT_FALSE(ParseContainerInspect(text, info, error));
}

class ContainerList : public ::testing::Test {};

TEST_F(ContainerList, CapturedListGivesEveryId) {
    std::vector<std::string> ids;
    std::string error;
    ASSERT_TRUE(ParseContainerList(ReadData("list.json"), ids, error)) << error;
    ASSERT_EQ(ids.size(), 3u);
    EXPECT_EQ(ids[0], "e289e5b52800669e22001d3940b9c1f73e3ee8a5fc066a38761666108fddd219");
}

TEST_F(ContainerList, EmptyListIsAValidAnswer) {
    std::vector<std::string> ids = {"stale"};
    std::string error;
    ASSERT_TRUE(ParseContainerList("[]", ids, error));
    EXPECT_TRUE(ids.empty());
}

TEST_F(ContainerList, OneBadElementRefusesTheWholeList) {
    std::vector<std::string> ids = {"kept"};
    std::string error;
    EXPECT_FALSE(ParseContainerList(R"([{"Id":"ab"},{"Names":["/x"]}])", ids, error));
    EXPECT_FALSE(ParseContainerList(R"([{"Id":"ab"},"cd"])", ids, error));
    EXPECT_FALSE(ParseContainerList(R"({"Id":"ab"})", ids, error));
    const std::string text = ReadData("list.json");
    EXPECT_FALSE(ParseContainerList(text.substr(0, text.size() / 2), ids, error));
    EXPECT_EQ(ids, std::vector<std::string>{"kept"});
}

class EventLine : public ::testing::Test {};

TEST_F(EventLine, CapturedStreamGivesStartsAndDies) {
    const auto lines = ReadLines("events.jsonl");
    ASSERT_EQ(lines.size(), 5u);
    std::vector<ContainerEvent> events;
    for (const auto& line : lines) {
        ContainerEvent event;
        std::string error;
        ASSERT_EQ(ParseContainerEvent(line, event, error), EventLineResult::kEvent) << error;
        events.push_back(event);
    }
    EXPECT_EQ(events[0].action, ContainerEvent::Action::kStart);
    EXPECT_EQ(events[0].id, kFullId);
    EXPECT_EQ(events[0].name, "tw-capture-full");
    EXPECT_EQ(events[0].timeNano, 1795391848248055768LL);
    EXPECT_EQ(events[1].action, ContainerEvent::Action::kDie);
    EXPECT_EQ(events[1].id, kFullId);
}

TEST_F(EventLine, OtherTypesAndActionsAreIgnored) {
    ContainerEvent event;
    std::string error;
    EXPECT_EQ(ParseContainerEvent(R"({"Type":"network","Action":"connect","Actor":{"ID":"abc"}})",
                                  event, error),
              EventLineResult::kIgnored);
    EXPECT_EQ(
        ParseContainerEvent(
            R"({"Type":"container","Action":"exec_start: sh","Actor":{"ID":"abc"}})", event, error),
        EventLineResult::kIgnored);
}

TEST_F(EventLine, OldEngineFormatWithStatusAndIdIsTaken) {
    ContainerEvent event;
    std::string error;
    ASSERT_EQ(
        ParseContainerEvent(R"({"status":"die","id":"abc","from":"x","time":1})", event, error),
        EventLineResult::kEvent);
    EXPECT_EQ(event.action, ContainerEvent::Action::kDie);
    EXPECT_EQ(event.id, "abc");
}

TEST_F(EventLine, DamagedLinesAreMalformed) {
    const std::string good = ReadLines("events.jsonl")[0];
    const std::vector<std::string> bad = {
        good.substr(0, good.size() - 1),
        good.substr(0, 40),
        R"({"Type":"container","Action":"start","Actor":{"ID":"../x"}})",
        R"({"Type":"container","Action":"start","Actor":{"ID":7}})",
        R"({"Type":"container","Actor":{"ID":"abc"}})",
        R"(["start"])",
        "\x01\x02garbage",
    };
    for (const auto& line : bad) {
        ContainerEvent event;
        std::string error;
        EXPECT_EQ(ParseContainerEvent(line, event, error), EventLineResult::kMalformed) << line;
        EXPECT_FALSE(error.empty());
    }
}

class StreamLines : public ::testing::Test {};

TEST_F(StreamLines, SplitsAtNewlinesAndCutsOverlongLines) {
    std::istringstream in("short\n" + std::string(50, 'x') + "\nlast-without-newline");
    std::string line;
    bool tooLong = false;
    ASSERT_TRUE(DockerEventStream::ReadLine(in, line, 10, tooLong));
    EXPECT_EQ(line, "short");
    EXPECT_FALSE(tooLong);
    ASSERT_TRUE(DockerEventStream::ReadLine(in, line, 10, tooLong));
    EXPECT_TRUE(tooLong);
    EXPECT_EQ(line.size(), 10u);
    ASSERT_TRUE(DockerEventStream::ReadLine(in, line, 10, tooLong));
    EXPECT_TRUE(tooLong);  // the partial last line is longer than 10 too
    EXPECT_FALSE(DockerEventStream::ReadLine(in, line, 10, tooLong));
}

}  // namespace
}  // namespace Engine
