// The engine-document parsers against answers captured from a real dockerd and from rootful
// Podman 4.3's Docker-compatible API (tests/data/container), and damaged copies of them.
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
using Action = ContainerEvent::Action;

const std::string kDockerId = "301efaae1d9853541343d579f2720f73d6c409dfb2b5a04d785104c058fb7dc2";
const std::string kPodmanId = "3d64fa20aee3959c65f7af8a9fa6a272aa258b17ff92a127a213fa662e5a2d22";

std::string Data(const std::string& name) {
    const std::string text =
        TestSupport::FileText::Read(std::string(TARNWICK_TEST_DATA_DIR) + "/container/" + name);
    EXPECT_FALSE(text.empty()) << "missing test data " << name;
    return text;
}

TEST(InspectDocument, CapturedDocumentsMapLikeDockers) {
    struct Row {
        const char* file;
        int pid;       // and running when not 0
        Strings text;  // id, name, cmd, image id, network mode
        const char* status;
        std::string root;
        size_t networksAndMounts;
    };
    const Strings docker = {
        kDockerId, "tw-capture-full", "sleep 300",
        "sha256:59e10649862c80aab42fc360d1c8ec0645e129bd70d0dc10ddbb95dc668a090b", "default"};
    const Strings podman = {
        kPodmanId, "pm-cap", "sleep 600",
        "sha256:5fe95c58827428719672a2bf514deb179d2ceb10c9ee91e586153b9cefe53fcd", "none"};
    const std::string dockerRoot =
        "/var/lib/docker/overlay2/72ccc15e29e8e265c50bdddc1a1e0f282952b857c713937cf0911d7e2caa1f7d/"
        "merged";
    const std::string podmanRoot =
        "/var/lib/containers/storage/overlay/"
        "a9b892dea76c72dd9a46d43dfdf1f54c41eb23792e1838c1c40cb96b91aa3def/merged";
    const std::vector<Row> rows = {
        {"inspect_running.json", 15799, docker, "running", dockerRoot, 1},
        {"podman_inspect_running.json", 13226, podman, "running", podmanRoot, 0},
        // An exited Podman container has no MergedDir, and needs none.
        {"podman_inspect_exited.json", 0, podman, "exited", "", 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.file);
        ContainerInfo info;
        int pid = -1;
        std::string error;
        ASSERT_TRUE(ParseContainerInspect(Data(row.file), info, pid, error)) << error;
        EXPECT_EQ(info.running, row.pid != 0);
        EXPECT_EQ(pid, row.pid);
        EXPECT_EQ((Strings{info.id, info.name, info.cmd, info.imageId, info.networkMode}),
                  row.text);
        EXPECT_EQ((Strings{info.status, info.rootPath}), (Strings{row.status, row.root}));
        EXPECT_EQ(info.finishedAt == "0001-01-01T00:00:00Z", info.running) << info.finishedAt;
        EXPECT_EQ(info.networks.size(), row.networksAndMounts);
        EXPECT_EQ(info.mountPoints.size(), row.networksAndMounts);
        // Podman qualifies the image reference ("localhost/..."); both name it the same.
        EXPECT_EQ(info.imageName, "tarnwick/busybox:latest");
        // Podman's Config.Entrypoint is [] where Docker's is null; both are "none".
        EXPECT_TRUE(info.entrypoint.empty());
    }
}

// One member of each kind (string list, object keys, string map, port bindings, mounts).
TEST(InspectDocument, OtherMembersOfARunningDockerContainer) {
    ContainerInfo info;
    std::string error;
    ASSERT_TRUE(ParseContainerInspect(Data("inspect_running.json"), info, error)) << error;
    EXPECT_EQ(info.capAdd, Strings{"CAP_NET_ADMIN"});
    EXPECT_EQ(info.exposedPorts, Strings{"80/tcp"});
    EXPECT_EQ(info.labels, (std::map<std::string, std::string>{{"app", "demo"}, {"tier", "web"}}));
    EXPECT_EQ((Strings{info.hostName, info.workingDir}), (Strings{"capturehost", "/tmp"}));
    ASSERT_EQ(info.ports.size(), 2u);  // published on IPv4 and IPv6
    EXPECT_EQ(info.ports[0].hostPort, 18080);
    EXPECT_EQ(info.ports[0].protocol, "tcp");
    EXPECT_EQ((Strings{info.mountPoints[0].source, info.mountPoints[0].mode}),
              (Strings{"/tmp/twvol", "ro"}));
    EXPECT_FALSE(info.mountPoints[0].rw);
}

TEST(InspectDocument, DocumentsWithoutIdRunningStateOrUsableRootAreRefused) {
    // One row per way of failing: an Id empty or not lowercase hex, State.Running not a boolean
    // or State not an object, a document that is no object or none at all.
    Strings bad = {R"({"Id":"","State":{"Running":true}})",
                   R"({"Id":"../../images/json?x=","State":{"Running":true}})",
                   R"({"Id":"abc123","State":{"Running":"yes"}})",
                   R"({"Id":"abc123","State":[]})",
                   R"([{"Id":"abc123","State":{"Running":true}}])",
                   ""};
    // Refused, not recursed into.
    bad.push_back(R"({"Id":"ab","State":{"Running":true},"Labels":)" + std::string(100000, '[') +
                  std::string(100000, ']') + "}");
    // Each root would turn a running container's paths into host paths, or none at all.
    const std::string running = R"({"Id":"ab","State":{"Running":true,"Pid":42},)";
    bad.push_back(running + R"("GraphDriver":{"Name":"vfs","Data":null}})");
    for (const char* dir : {"7", R"("/")", R"("///")", R"("merged")", R"("/var/lib/x/../../..")",
                            R"("/var/./lib")", R"("/var/lib/x\u0000/merged")"}) {
        bad.push_back(running + R"("GraphDriver":{"Data":{"MergedDir":)" + dir + "}}}");
    }
    // Cuts at every position would be slow to report; every 7th byte still hits every shape.
    const std::string whole = Data("inspect_plain.json");
    for (size_t len = 0; len + 1 < whole.size(); len += 7) bad.push_back(whole.substr(0, len));
    for (const auto& text : bad) {
        ContainerInfo info;
        std::string error;
        EXPECT_FALSE(ParseContainerInspect(text, info, error)) << text.substr(0, 200);
        EXPECT_FALSE(error.empty()) << text.substr(0, 200);
    }
}

TEST(InspectDocument, MembersOfTheWrongTypeAreLeftEmpty) {
    struct Row {
        std::string text;
        Strings members;  // name, cmd, root
    };
    const std::string withRoot = R"({"Id":"ab","GraphDriver":{"Data":{"MergedDir":"/m"}},)";
    const std::vector<Row> rows = {
        // The pid is 0 unless a positive number.
        {withRoot + R"("State":{"Running":true,"Pid":-5}})", {"", "", "/m"}},
        {withRoot + R"("State":{"Running":true,"Pid":"15799"}})", {"", "", "/m"}},
        {withRoot + R"("State":{"Running":true,"Pid":1e12}})", {"", "", "/m"}},
        {R"({"Id":"ab","Name":"plain","Path":"/bin/sh","Args":[],"State":{"Running":false}})",
         {"plain", "/bin/sh", ""}},
        {R"({"Id":"ab","State":{"Running":true},"GraphDriver":{"Data":{"MergedDir":"/m/"}}})",
         {"", "", "/m/"}},
        {R"({"Id":"abc123","Name":7,"Path":["x"],"Args":"-c","Image":{},
             "State":{"Running":false,"Status":1},"Config":"none","HostConfig":[1,2],
             "NetworkSettings":{"Ports":{"80/tcp":"x","53/udp":[{"HostPort":"99999"},7]},
                                "Networks":[]},
             "Mounts":[1,{"Source":2,"Destination":"/d","RW":"true"}],
             "GraphDriver":{"Data":null}})",
         {"", "", ""}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        ContainerInfo info;
        int pid = -1;
        std::string error;
        ASSERT_TRUE(ParseContainerInspect(row.text, info, pid, error)) << error;
        EXPECT_EQ(pid, 0);
        EXPECT_EQ((Strings{info.name, info.cmd, info.rootPath}), row.members);
        EXPECT_EQ((Strings{info.imageId, info.imageName, info.status}), (Strings{"", "", ""}));
    }
    ContainerInfo info;
    std::string error;
    ASSERT_TRUE(ParseContainerInspect(rows.back().text, info, error)) << error;
    EXPECT_EQ(info.id, "abc123");
    EXPECT_TRUE(info.networks.empty());
    ASSERT_EQ(info.mountPoints.size(), 1u);
    EXPECT_EQ(info.mountPoints[0].destination, "/d");
    EXPECT_FALSE(info.mountPoints[0].rw);
    // An unpublished port, and two bindings of which one has an out-of-range port.
    EXPECT_EQ(info.ports.size(), 3u);
}

TEST(ContainerList, AllOrNothing) {
    const std::string list = R"([{"Id":"ab","Names":["/x"]},{"Id":"cd"}])";
    const std::vector<std::pair<std::string, Strings>> rows = {
        {list, {"ab", "cd"}},
        {"[]", {}},
        // One bad element refuses the whole list: a partial one looks like vanished containers.
        {R"([{"Id":"ab"},{"Names":["/x"]}])", {"kept"}},
        {R"([{"Id":"ab"},"cd"])", {"kept"}},
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

TEST(EventLine, OtherLinesAreIgnoredOrMalformed) {
    const std::string good = TestSupport::FileText::Lines(std::string(TARNWICK_TEST_DATA_DIR) +
                                                          "/container/events.jsonl")
                                 .at(0);
    const std::vector<std::pair<std::string, Result>> rows = {
        {R"({"Type":"network","Action":"connect","Actor":{"ID":"abc"}})", Result::kIgnored},
        {R"({"Type":"container","Action":"exec_start: sh","Actor":{"ID":"abc"}})",
         Result::kIgnored},
        // Older engines write status and id; Podman writes an exit as "died" under its filter.
        {R"({"status":"die","id":"abc","from":"x","time":1})", Result::kEvent},
        {R"({"Type":"container","Action":"died","Actor":{"ID":"abc"}})", Result::kEvent},
        {good.substr(0, good.size() - 1), Result::kMalformed},
        {R"({"Type":"container","Action":"start","Actor":{"ID":"../x"}})", Result::kMalformed},
        {R"({"Type":"container","Actor":{"ID":"abc"}})", Result::kMalformed},
        {R"(["start"])", Result::kMalformed},
        {"\x01\x02garbage", Result::kMalformed},
    };
    for (const auto& row : rows) {
        ContainerEvent event;
        std::string error;
        ASSERT_EQ(ParseContainerEvent(row.first, event, error), row.second) << row.first;
        EXPECT_EQ(error.empty(), row.second != Result::kMalformed) << row.first;
        if (row.second == Result::kEvent) {
            EXPECT_EQ(event.action, Action::kDie);
            EXPECT_EQ(event.id, "abc");
        }
    }
}

TEST(EventLine, StreamSplitsAtNewlinesAndCutsOverlongLines) {
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

TEST(ImageName, PodmansReferencesTakeTheirFamiliarForm) {
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"localhost/tarnwick/busybox:latest", "tarnwick/busybox:latest"},
        {"docker.io/library/nginx:1.25", "nginx:1.25"},
        {"docker.io/bitnami/redis", "bitnami/redis"},
        {"quay.io/podman/hello:latest", "quay.io/podman/hello:latest"},
        {"localhost:5000/app", "localhost:5000/app"},
        // A bare prefix is left alone, or shortened by the next one only.
        {"localhost/", "localhost/"},
        {"docker.io/library/", "library/"}};
    for (const auto& row : rows) EXPECT_EQ(FamiliarImageName(row.first), row.second) << row.first;
}

}  // namespace
}  // namespace Engine
