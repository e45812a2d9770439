// The engine-document parsers against an answer captured from a real dockerd
// (tests/data/container), damaged copies of it, and documents of odd shapes. Podman's documents
// (its image references and exited containers included) are parsed against a real Podman by
// tests/e2e/cases_podman.sh, which also feeds a vfs document without a root.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "container/DockerDocuments.h"
#include "container/DockerEventStream.h"
#include "support/FileText.h"

namespace Engine {
namespace {

using Strings = std::vector<std::string>;
using Result = EventLineResult;

std::string Data(const std::string& name) {
    return TestSupport::FileText::Read(std::string(TARNWICK_TEST_DATA_DIR) + "/container/" + name);
}

TEST(InspectDocument, ACapturedRunningDockerContainer) {
    ContainerInfo info;
    int pid = -1;
    std::string error;
    ASSERT_TRUE(ParseContainerInspect(Data("inspect_running.json"), info, pid, error)) << error;
    EXPECT_TRUE(info.running);
    EXPECT_EQ(pid, 15799);
    EXPECT_EQ((Strings{info.id, info.name, info.cmd, info.imageId, info.imageName, info.networkMode,
                       info.status, info.rootPath}),
              (Strings{"301efaae1d9853541343d579f2720f73d6c409dfb2b5a04d785104c058fb7dc2",
                       "tw-capture-full", "sleep 300",
                       "sha256:59e10649862c80aab42fc360d1c8ec0645e129bd70d0dc10ddbb95dc668a090b",
                       "tarnwick/busybox:latest", "default", "running",
                       "/var/lib/docker/overlay2/"
                       "72ccc15e29e8e265c50bdddc1a1e0f282952b857c713937cf0911d7e2caa1f7d/merged"}));
    // One member of each other kind: string list (null or not), object keys, string map, port
    // bindings, mounts.
    EXPECT_TRUE(info.entrypoint.empty());
    EXPECT_EQ(info.capAdd, Strings{"CAP_NET_ADMIN"});
    EXPECT_EQ(info.exposedPorts, Strings{"80/tcp"});
    EXPECT_EQ(info.labels, (std::map<std::string, std::string>{{"app", "demo"}, {"tier", "web"}}));
    ASSERT_EQ(info.ports.size(), 2u);  // published on IPv4 and IPv6
    EXPECT_EQ(info.ports[0].hostPort, 18080);
    EXPECT_EQ(info.ports[0].protocol, "tcp");
    ASSERT_EQ(info.mountPoints.size(), 1u);
    EXPECT_EQ((Strings{info.mountPoints[0].source, info.mountPoints[0].mode}),
              (Strings{"/tmp/twvol", "ro"}));
    EXPECT_FALSE(info.mountPoints[0].rw);
}

TEST(InspectDocument, DocumentsWithoutIdRunningStateOrUsableRootAreRefused) {
    // One row per way of failing: an Id empty or not lowercase hex, State.Running not a
    // boolean, a document that is no object; cuts of a whole one are no complete document.
    Strings bad = {R"({"Id":"","State":{"Running":true}})",
                   R"({"Id":"../../images/json?x=","State":{"Running":true}})",
                   R"({"Id":"abc123","State":{"Running":"yes"}})",
                   R"([{"Id":"abc123","State":{"Running":true}}])"};
    // Refused, not recursed into.
    bad.push_back(R"({"Id":"ab","State":{"Running":true},"Labels":)" + std::string(100000, '[') +
                  std::string(100000, ']') + "}");
    // Each root would turn a running container's paths into host paths, or none at all.
    for (const char* dir : {R"("/")", R"("///")", R"("merged")", R"("/var/lib/x/../../..")",
                            R"("/var/./lib")", R"("/var/lib/x\u0000/merged")"}) {
        bad.push_back(R"({"Id":"ab","State":{"Running":true},"GraphDriver":{"Data":{"MergedDir":)" +
                      std::string(dir) + "}}}");
    }
    // Cuts at every position would be slow to report; every 7th byte still hits every shape.
    const std::string whole = Data("inspect_plain.json");
    ASSERT_FALSE(whole.empty());
    for (size_t len = 0; len + 1 < whole.size(); len += 7) bad.push_back(whole.substr(0, len));
    for (const auto& text : bad) {
        ContainerInfo info;
        std::string error;
        EXPECT_FALSE(ParseContainerInspect(text, info, error)) << text.substr(0, 200);
        EXPECT_FALSE(error.empty()) << text.substr(0, 200);
    }
}

// Not running, so it needs no root.
TEST(InspectDocument, MembersOfTheWrongTypeAreLeftEmpty) {
    ContainerInfo info;
    int pid = -1;
    std::string error;
    ASSERT_TRUE(ParseContainerInspect(
        R"({"Id":"abc123","Name":7,"Path":["x"],"Args":"-c","Image":{},
            "State":{"Running":false,"Status":1,"Pid":-5},"Config":"none","HostConfig":[1,2],
            "NetworkSettings":{"Ports":{"80/tcp":"x","53/udp":[{"HostPort":"99999"},7]},
                               "Networks":[]},
            "Mounts":[1,{"Source":2,"Destination":"/d","RW":"true"}],
            "GraphDriver":{"Data":null}})",
        info, pid, error))
        << error;
    EXPECT_EQ(pid, 0);  // unless a positive number
    EXPECT_EQ(
        (Strings{info.name, info.cmd, info.rootPath, info.imageId, info.imageName, info.status}),
        Strings(6, ""));
    // One mount of two, read-only; an unpublished port, and two bindings of which one has an
    // out-of-range port.
    ASSERT_EQ(info.mountPoints.size(), 1u);
    EXPECT_FALSE(info.mountPoints[0].rw);
    EXPECT_EQ(info.ports.size(), 3u);
}

TEST(ContainerList, AllOrNothing) {
    const std::string list = R"([{"Id":"ab","Names":["/x"]},{"Id":"cd"}])";
    const std::vector<std::pair<std::string, Strings>> rows = {
        {list, {"ab", "cd"}},
        // One bad element refuses the whole list: a partial one looks like vanished containers.
        {R"([{"Id":"ab"},{"Names":["/x"]}])", {"kept"}},
        {R"({"Id":"ab"})", {"kept"}},
        {list.substr(0, list.size() / 2), {"kept"}},
    };
    for (const auto& row : rows) {
        Strings ids = {"kept"};
        std::string error;
        EXPECT_EQ(ParseContainerList(row.first, ids, error), row.second != Strings{"kept"})
            << row.first;
        EXPECT_EQ(ids, row.second) << row.first << ": " << error;
    }
}

// Starts and exits in the engines' current form are followed by every end-to-end case.
TEST(EventLine, OtherLinesAreIgnoredOrMalformed) {
    const std::vector<std::pair<std::string, Result>> rows = {
        {R"({"Type":"network","Action":"connect","Actor":{"ID":"abc"}})", Result::kIgnored},
        {R"({"Type":"container","Action":"exec_start: sh","Actor":{"ID":"abc"}})",
         Result::kIgnored},
        // Older engines write status and id only.
        {R"({"status":"die","id":"abc","from":"x","time":1})", Result::kEvent},
        {R"({"Type":"container","Action":"start","Actor":{"ID":"ab"})", Result::kMalformed},
        {R"({"Type":"container","Action":"start","Actor":{"ID":"../x"}})", Result::kMalformed},
        {R"({"Type":"container","Actor":{"ID":"abc"}})", Result::kMalformed},
        {R"(["start"])", Result::kMalformed},
    };
    for (const auto& row : rows) {
        ContainerEvent event;
        std::string error;
        ASSERT_EQ(ParseContainerEvent(row.first, event, error), row.second) << row.first;
        EXPECT_EQ(error.empty(), row.second != Result::kMalformed) << row.first;
        EXPECT_TRUE(row.second != Result::kEvent ||
                    (event.id == "abc" && event.action == ContainerEvent::Action::kDie));
    }
}

TEST(EventLine, StreamSplitsAtNewlinesAndCutsOverlongLines) {
    std::istringstream in("short\n" + std::string(50, 'x') + "\nlast-without-newline");
    std::string line;
    bool tooLong = false;
    // "+": cut to 10 bytes, the last line too (it ends without a newline).
    for (const char* expected : {"short", "xxxxxxxxxx+", "last-witho+"}) {
        ASSERT_TRUE(DockerEventStream::ReadLine(in, line, 10, tooLong));
        EXPECT_EQ(line + (tooLong ? "+" : ""), expected);
    }
    EXPECT_FALSE(DockerEventStream::ReadLine(in, line, 10, tooLong));
}

// Podman's "localhost/" references take their familiar form against a real Podman
// (tests/e2e/cases_podman.sh), Docker's plain ones against a real dockerd. A name no longer
// than a prefix keeps it, and the next one is tried.
TEST(ImageName, TheLongestImplicitPrefixGoesButNeverTheWholeName) {
    EXPECT_EQ(FamiliarImageName("docker.io/library/nginx:1.25"), "nginx:1.25");
    EXPECT_EQ(FamiliarImageName("docker.io/library/"), "library/");
}

}  // namespace
}  // namespace Engine
