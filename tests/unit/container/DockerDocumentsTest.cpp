// The engine-document parsers against answers captured from a real dockerd and from rootful
// Podman 4.3's Docker-compatible API with overlay and vfs storage (tests/data/container), and
// damaged copies of them.
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
        bool running;
        int pid;
        Strings text;  // id, name, cmd, image id, network mode
        const char* status;
        std::string root;
        size_t networks;
        size_t mounts;
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
        {"inspect_running.json", true, 15799, docker, "running", dockerRoot, 1, 1},
        {"inspect_exited.json", false, 0, docker, "exited", dockerRoot, 1, 1},
        {"podman_inspect_running.json", true, 13226, podman, "running", podmanRoot, 0, 0},
        // An exited Podman container has no MergedDir, and needs none.
        {"podman_inspect_exited.json", false, 0, podman, "exited", "", 0, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.file);
        ContainerInfo info;
        int pid = -1;
        std::string error;
        ASSERT_TRUE(ParseContainerInspect(Data(row.file), info, pid, error)) << error;
        EXPECT_EQ(info.running, row.running);
        EXPECT_EQ(pid, row.pid);
        EXPECT_EQ((Strings{info.id, info.name, info.cmd, info.imageId, info.networkMode}),
                  row.text);
        EXPECT_EQ(info.status, row.status);
        EXPECT_EQ(info.finishedAt == "0001-01-01T00:00:00Z", row.running) << info.finishedAt;
        EXPECT_EQ(info.rootPath, row.root);
        EXPECT_EQ(info.networks.size(), row.networks);
        EXPECT_EQ(info.mountPoints.size(), row.mounts);
        // Podman qualifies the image reference ("localhost/..."); both name it the same.
        EXPECT_EQ(info.imageName, "tarnwick/busybox:latest");
        // Podman's Config.Entrypoint is [] where Docker's is null; both are "none".
        EXPECT_TRUE(info.entrypoint.empty());
    }
}

TEST(InspectDocument, EveryOtherMemberOfARunningDockerContainer) {
    ContainerInfo info;
    std::string error;
    ASSERT_TRUE(ParseContainerInspect(Data("inspect_running.json"), info, error)) << error;
    EXPECT_FALSE(info.paused || info.restarting || info.privileged);
    EXPECT_EQ(info.args, Strings{"300"});
    EXPECT_EQ(info.env, Strings{"FOO=bar"});
    EXPECT_EQ(info.exposedPorts, Strings{"80/tcp"});
    EXPECT_TRUE(info.volumes.empty());
    EXPECT_EQ(info.capAdd, Strings{"CAP_NET_ADMIN"});
    EXPECT_EQ(info.networks, Strings{"bridge"});
    EXPECT_EQ((Strings{info.hostName, info.created, info.startedAt, info.user, info.workingDir}),
              (Strings{"capturehost", "2026-11-22T23:57:27.732719971Z",
                       "2026-11-22T23:57:28.244947402Z", "", "/tmp"}));
    EXPECT_EQ(info.labels, (std::map<std::string, std::string>{{"app", "demo"}, {"tier", "web"}}));
    ASSERT_EQ(info.ports.size(), 2u);  // published on IPv4 and IPv6
    EXPECT_EQ(info.ports[0].containerPort, 80);
    EXPECT_EQ(info.ports[0].hostPort, 18080);
    EXPECT_EQ(info.ports[0].protocol, "tcp");
    ASSERT_EQ(info.mountPoints.size(), 1u);
    EXPECT_EQ((Strings{info.mountPoints[0].source, info.mountPoints[0].destination,
                       info.mountPoints[0].mode}),
              (Strings{"/tmp/twvol", "/data", "ro"}));
    EXPECT_FALSE(info.mountPoints[0].rw);
}

TEST(InspectDocument, DocumentsWithoutIdRunningStateOrUsableRootAreRefused) {
    Strings bad = {R"({"State":{"Running":true}})",
                   R"({"Id":"","State":{"Running":true}})",
                   R"({"Id":"../../images/json?x=","State":{"Running":true}})",
                   R"({"Id":"ABCDEF","State":{"Running":true}})",
                   R"({"Id":"abc123"})",
                   R"({"Id":"abc123","State":{"Running":"yes"}})",
                   R"({"Id":"abc123","State":[]})",
                   R"([{"Id":"abc123","State":{"Running":true}}])",
                   "null",
                   ""};
    // Refused, not recursed into.
    bad.push_back(R"({"Id":"ab","State":{"Running":true},"Labels":)" + std::string(100000, '[') +
                  std::string(100000, ']') + "}");
    // Each root would turn a running container's paths into host paths, or none at all.
    const std::string running = R"({"Id":"ab","State":{"Running":true,"Pid":42},)";
    bad.push_back(running + R"("GraphDriver":{"Name":"vfs","Data":null}})");
    bad.push_back(running + R"("X":1})");
    for (const char* dir :
         {"7", R"("")", R"("/")", R"("///")", R"("merged")", R"("/var/lib/x/../../..")",
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
    // Podman's vfs storage gives a running container no merged root: refused, and said so.
    ContainerInfo info;
    std::string error;
    EXPECT_FALSE(ParseContainerInspect(Data("podman_inspect_vfs.json"), info, error));
    EXPECT_NE(error.find("'vfs'"), std::string::npos) << error;
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
        {withRoot + R"("State":{"Running":true,"X":1}})", {"", "", "/m"}},
        {R"({"Id":"ab","Name":"plain","Path":"/bin/sh","Args":[],"State":{"Running":false}})",
         {"plain", "/bin/sh", ""}},
        // An exited container needs no root: its exit is announced from what was known at start.
        {R"({"Id":"ab","State":{"Running":false},"GraphDriver":{"Data":null}})", {"", "", ""}},
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
    const std::string docker = Data("list.json");
    const std::vector<std::pair<std::string, Strings>> rows = {
        {docker,
         {"e289e5b52800669e22001d3940b9c1f73e3ee8a5fc066a38761666108fddd219",
          "964a12f4228f343aa47021f5e287dee64de371c50ceec77ca78a0430f467928f",
          "2553d80afec9a4f6a6ea868d53ef2b965d8e2918e369aa19ea8a9cd85bb57bfe"}},
        {Data("podman_list.json"), {kPodmanId}},
        {"[]", {}},
        // One bad element refuses the whole list: a partial one looks like vanished containers.
        {R"([{"Id":"ab"},{"Names":["/x"]}])", {"kept"}},
        {R"([{"Id":"ab"},"cd"])", {"kept"}},
        {R"({"Id":"ab"})", {"kept"}},
        {docker.substr(0, docker.size() / 2), {"kept"}},
    };
    for (const auto& row : rows) {
        Strings ids = {"kept"};
        std::string error;
        EXPECT_EQ(ParseContainerList(row.first, ids, error), row.second != Strings{"kept"})
            << row.first;
        EXPECT_EQ(ids, row.second) << row.first << ": " << error;
    }
}

TEST(EventLine, CapturedStreamsGiveTheirStartAndDie) {
    struct Row {
        const char* file;
        size_t lines;
        size_t events;
        std::string id;
        std::string name;
        int64_t timeNano;
    };
    const std::vector<Row> rows = {
        {"events.jsonl", 5, 5, kDockerId, "tw-capture-full", 1795391848248055768LL},
        // create, an image "pull" with an empty actor id, init, start, die, cleanup x2, remove.
        {"podman_events.jsonl", 8, 2, kPodmanId, "pm-cap", 1795486702711704127LL},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.file);
        const Strings lines = TestSupport::FileText::Lines(std::string(TARNWICK_TEST_DATA_DIR) +
                                                           "/container/" + row.file);
        ASSERT_EQ(lines.size(), row.lines);
        std::vector<ContainerEvent> events;
        for (const auto& line : lines) {
            ContainerEvent event;
            std::string error;
            const Result result = ParseContainerEvent(line, event, error);
            ASSERT_NE(result, Result::kMalformed) << error << ": " << line;
            if (result == Result::kEvent) events.push_back(event);
        }
        ASSERT_EQ(events.size(), row.events);
        EXPECT_EQ(events[0].action, Action::kStart);
        EXPECT_EQ(events[0].id, row.id);
        EXPECT_EQ(events[0].name, row.name);
        EXPECT_EQ(events[0].timeNano, row.timeNano);
        EXPECT_EQ(events[1].action, Action::kDie);
        EXPECT_EQ(events[1].id, row.id);
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
        {good.substr(0, 40), Result::kMalformed},
        {R"({"Type":"container","Action":"start","Actor":{"ID":"../x"}})", Result::kMalformed},
        {R"({"Type":"container","Action":"start","Actor":{"ID":7}})", Result::kMalformed},
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
    // The query asks both engines for both names of an exit.
    const std::string filters = ContainerEventFilters();
    for (const char* name : {"\"start\"", "\"die\"", "\"died\""}) {
        EXPECT_NE(filters.find(name), std::string::npos) << name;
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
        {"tarnwick/busybox", "tarnwick/busybox"},
        {"localhost/", "localhost/"},
        {"docker.io/library/", "library/"},
        {"sha256:5fe95c588274", "sha256:5fe95c588274"},
        {"", ""}};
    for (const auto& row : rows) EXPECT_EQ(FamiliarImageName(row.first), row.second) << row.first;
}

}  // namespace
}  // namespace Engine
