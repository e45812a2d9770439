// The engine client and the loaded container module: against a stand-in engine for the answers
// a real one cannot be made to give (broken, oversized, malformed), and against a private real
// Docker engine (root) for a container that dies while its engine is away. Real containers
// starting and exiting under the shared engine are the end-to-end suite's (tests/e2e/cases.sh).
#include <Poco/Exception.h>
#include <Poco/Net/ServerSocket.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "container/ContainerMessage.h"
#include "container/ContainerRegisterMessage.h"
#include "container/DockerApiClient.h"
#include "framework/Counters.h"
#include "sdk/ConfigUtils.h"
#include "support/Deadline.h"
#include "support/RecordingTask.h"
#include "support/ServiceModule.h"
#include "support/Shell.h"
#include "support/TaskHost.h"
#include "support/TempDir.h"

namespace Engine {
namespace {

using TestSupport::Shell;
using TestSupport::WaitUntil;

// How long a wait on a real engine may take: it starts and stops containers.
constexpr std::chrono::seconds kEngineWait{20};
const char* const kImage = "tarnwick/busybox:latest";

// An HTTP server on a Unix socket in a directory of its own. /events requests get a chunked 200
// and stay open; every other request is answered by the responder's raw HTTP text, then closed.
class FakeEngine {
public:
    using Responder = std::function<std::string(const std::string& path)>;

    explicit FakeEngine(Responder responder) : responder_(std::move(responder)) {}
    ~FakeEngine() {
        stop_ = true;
        thread_.join();
    }
    std::string SocketPath() const { return dir_ / "docker.sock"; }
    // Sends one event line as a chunk to every open event stream.
    void PushEvent(const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto& stream : streams_) Send(stream, Chunk(line + "\n"));
    }
    size_t OpenEventStreams() {
        std::lock_guard<std::mutex> lock(mutex_);
        return streams_.size();
    }
    static std::string Answer(int status, const std::string& body) {
        return "HTTP/1.1 " + std::to_string(status) +
               " X\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    }
    static std::string ChunkedAnswer(const std::string& body, size_t chunkSize) {
        std::string out = kChunkedHead;
        for (size_t i = 0; i < body.size(); i += chunkSize) out += Chunk(body.substr(i, chunkSize));
        return out + "0\r\n\r\n";
    }

private:
    static constexpr const char* kChunkedHead =
        "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nTransfer-Encoding: chunked\r\n\r\n";
    static std::string Chunk(const std::string& data) {
        char size[32];
        std::snprintf(size, sizeof size, "%zx\r\n", data.size());
        return size + data + "\r\n";
    }
    // A client that went away is none of the server's concern.
    static void Send(Poco::Net::StreamSocket& socket, const std::string& data) try {
        for (size_t done = 0; done < data.size();) {
            done += socket.sendBytes(data.data() + done, data.size() - done, MSG_NOSIGNAL);
        }
    } catch (const Poco::Exception&) {
    }
    void Serve() {
        while (!stop_) {
            if (!listener_.poll(Poco::Timespan(0, 5000), Poco::Net::Socket::SELECT_READ)) continue;
            Poco::Net::StreamSocket client = listener_.acceptConnection();
            client.setReceiveTimeout(Poco::Timespan(2, 0));
            std::string request;
            char buffer[4096];
            try {
                for (int n = 1; n > 0 && request.find("\r\n\r\n") == std::string::npos;) {
                    n = client.receiveBytes(buffer, sizeof buffer);
                    request.append(buffer, n > 0 ? n : 0);
                }
            } catch (const Poco::Exception&) {
            }
            const size_t start = request.find(' ') + 1;  // "GET <path> HTTP/1.1"
            const std::string path = request.substr(start, request.find(' ', start) - start);
            if (path.rfind("/events", 0) != 0) {
                Send(client, responder_(path));
                continue;
            }
            Send(client, kChunkedHead);
            std::lock_guard<std::mutex> lock(mutex_);
            streams_.push_back(client);
        }
    }

    Responder responder_;
    TestSupport::TempDir dir_{"tarnwick-fake-engine"};
    Poco::Net::ServerSocket listener_{
        Poco::Net::SocketAddress(Poco::Net::SocketAddress::UNIX_LOCAL, SocketPath())};
    std::atomic<bool> stop_{false};
    std::mutex mutex_;  // guards streams_ (server thread adds, test thread writes and closes)
    std::vector<Poco::Net::StreamSocket> streams_;
    std::thread thread_{[this] { Serve(); }};  // last: starts once the rest is there
};

TEST(ApiClient, AnAnswerIsTakenWholeOrNotAtAll) {
    const std::string body = R"([{"Id":"abc"},{"Id":"def"}])";
    struct Row {
        std::string answer;
        size_t maxBody;
        int status;
        std::string body;
        std::string error;
    };
    const std::vector<Row> rows = {
        {FakeEngine::ChunkedAnswer(body, 3), 1024, 200, body, ""},
        {FakeEngine::Answer(200, body), 1024, 200, body, ""},
        {FakeEngine::Answer(404, R"({"message":"No such container"})"), 1024, 404,
         R"({"message":"No such container"})", ""},
        {FakeEngine::ChunkedAnswer(std::string(5000, ' ') + body, 100), 4096, -1, "untouched",
         "larger"},
        {"HTTP/1.1 2", 1024, -1, "untouched", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.answer.substr(0, 100));
        FakeEngine engine([&](const std::string&) { return row.answer; });
        std::string got = "untouched";
        std::string error;
        EXPECT_EQ(DockerApiClient(engine.SocketPath(), 2000, row.maxBody)
                      .Get("/containers/json", got, error),
                  row.status);
        EXPECT_EQ(got, row.body);
        EXPECT_NE(error.find(row.error), std::string::npos) << error;
    }
    std::string got;
    std::string error;
    EXPECT_EQ(DockerApiClient("/nonexistent/docker.sock", 500, 1024).Get("/x", got, error), -1);
    EXPECT_FALSE(error.empty());
    // Broken off anywhere: refused outright, or a strict prefix that the document parsers refuse.
    const std::string whole = FakeEngine::ChunkedAnswer(body, 5);
    for (size_t cut = whole.find("\r\n\r\n") + 4; cut <= whole.rfind("}]"); ++cut) {
        FakeEngine engine([&](const std::string&) { return whole.substr(0, cut); });
        if (DockerApiClient(engine.SocketPath(), 2000, 1024).Get("/x", got, error) != -1) {
            EXPECT_LT(got.size(), body.size()) << "cut at " << cut;
        }
    }
}

// A subscriber that records every container notification it receives.
class RecordingTask : public TestSupport::RecordingTask<ContainerInfo>,
                      public AbstructMessage<ContainerMessage>::Receiver {
public:
    using Base = TestSupport::RecordingTask<ContainerInfo>;
    explicit RecordingTask(const std::string& name) : Base(name) {}
    int Receive(const ContainerMessage& msg) override {
        if (msg.containerInfo) Record(*msg.containerInfo);
        return 0;
    }
    void Subscribe(bool on) {
        SendDirectMsg("container_collect_task", new ContainerRegisterMessage(this, on, false));
    }
    // Notifications about `id` with running == `start`.
    size_t Count(const std::string& id, bool start) const { return Base::Count(About(id, start)); }
    bool Find(const std::string& id, bool start, ContainerInfo& out) const {
        return Base::Find(About(id, start), out);
    }

private:
    static Match About(const std::string& id, bool start) {
        return [id, start](const ContainerInfo& i) { return i.id == id && i.running == start; };
    }
};

// The container module loaded from the build's lib/ as the agent loads it, and subscribers.
class ContainerFeed : public ::testing::Test {
protected:
    void TearDown() override {
        // The service goes first: it must not send to subscribers that are gone.
        module_.Stop();
        host_.Clear();
        SDK::ConfigUtils::Clear();
    }
    void LoadModule(const std::string& socketPath) {
        SDK::ConfigUtils::Set("docker.socket", socketPath);
        ASSERT_TRUE(module_.Load("libcontainer_module.so")) << module_.Error();
    }
    RecordingTask* Subscriber() {
        auto* task = host_.Add(new RecordingTask("container_test_" + std::to_string(++tasks_)));
        if (task == nullptr) throw std::runtime_error("subscriber not registered");
        task->Subscribe(true);
        return task;
    }

    TestSupport::TaskHost host_{"container_test_host"};
    TestSupport::ServiceModule module_;
    int tasks_ = 0;
};

// Hex ids, as the collector accepts nothing else.
const std::string kA = "aaaa01";
const std::string kB = "bbbb02";
const std::string kC = "cccc03";
const std::string kBroken = "dddd04";

std::string Event(const std::string& action, const std::string& id) {
    return R"({"status":")" + action + R"(","id":")" + id + R"(","Type":"container","Action":")" +
           action + R"(","Actor":{"ID":")" + id + R"(","Attributes":{"name":"n"}},"time":1})";
}

// The stand-in outlives the module: the fixture's TearDown stops the module before members go.
class FeedAgainstStandIn : public ContainerFeed {
protected:
    // Loads the module against the stand-in running `running`; a subscriber told of them.
    RecordingTask* Start(const std::set<std::string>& running) {
        Run(running);
        LoadModule(engine_.SocketPath());
        RecordingTask* rec = Subscriber();
        EXPECT_TRUE(WaitUntil([this] { return engine_.OpenEventStreams() == 1; }));
        for (const auto& id : running) {
            EXPECT_TRUE(WaitUntil([&] { return rec->Count(id, true) == 1; })) << id;
        }
        return rec;
    }
    void Run(const std::set<std::string>& running) {
        std::lock_guard<std::mutex> lock(mutex_);
        running_ = running;
    }
    // Chunked, as the engine answers, in chunks that cut through every member.
    std::string Answer(const std::string& path) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (path.rfind("/containers/json", 0) == 0) {
            std::string list;
            for (const auto& id : running_) {
                list += std::string(list.empty() ? "" : ",") + R"({"Id":")" + id + "\"}";
            }
            return FakeEngine::ChunkedAnswer("[" + list + "]", 7);
        }
        const std::string id = path.substr(12, path.find('/', 12) - 12);  // "/containers/<id>/json"
        if (id == kBroken) {
            return FakeEngine::Answer(200, R"({"Id":")" + id + R"(","State":{"Runn)");
        }
        return FakeEngine::ChunkedAnswer(
            R"({"Id":")" + id + R"(","Name":"/n-)" + id + R"(","State":{"Running":)" +
                (running_.count(id) ? "true" : "false") +
                R"(},"GraphDriver":{"Data":{"MergedDir":"/m/)" + id + R"("}}})",
            16);
    }

    std::mutex mutex_;  // guards running_ (server thread reads, test thread writes)
    std::set<std::string> running_;
    FakeEngine engine_{[this](const std::string& path) { return Answer(path); }};
};

TEST_F(FeedAgainstStandIn, StartsAndExitsGoToSubscribersAndBadAnswersAreSkippedAndCounted) {
    RecordingTask* first = Start({kA});
    RecordingTask* late = Subscriber();
    ASSERT_TRUE(WaitUntil([&] { return late->Count(kA, true) == 1; }));
    late->Subscribe(false);
    auto& counters = Framework::Counters::Instance();
    const uint64_t inspect = counters.Value("container.inspect.malformed");
    const uint64_t lines = counters.Value("container.events.malformed");
    const uint64_t gone = counters.Value("container.start.gone");

    Run({kA, kB, kBroken});
    engine_.PushEvent(Event("start", kBroken));
    engine_.PushEvent(R"({"Type":"container","Action":"start","Actor":{"ID":"not/hex"}})");
    // C's start arrives after it already stopped: the engine says it does not run.
    engine_.PushEvent(Event("start", kC));
    engine_.PushEvent(Event("start", kB));
    // Handled in order: once B is in, the others have been dealt with.
    ContainerInfo b;
    ASSERT_TRUE(WaitUntil([&] { return first->Find(kB, true, b); }));
    EXPECT_EQ(b.name, "n-" + kB);  // the start carries the inspected description
    EXPECT_EQ(first->Count(kBroken, true) + first->Count(kC, true), 0u);
    EXPECT_EQ(counters.Value("container.inspect.malformed"), inspect + 1);
    EXPECT_EQ(counters.Value("container.events.malformed"), lines + 1);
    EXPECT_EQ(counters.Value("container.start.gone"), gone + 1);

    Run({kA});
    engine_.PushEvent(Event("die", kB));
    ContainerInfo exited;
    ASSERT_TRUE(WaitUntil([&] { return first->Find(kB, false, exited); }));
    EXPECT_EQ(exited.rootPath, "/m/" + kB);  // the exit carries what the start announced
    EXPECT_EQ(late->Count(kB, true), 0u);
    EXPECT_EQ(first->Count(kA, true), 1u);  // the replay went to the late subscriber only
}

// A private engine of the test's own (socket, data and exec roots, bridge, live restore) that
// can be stopped and started again under the module.
class FeedAcrossEngineRestart : public ContainerFeed {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root to run a Docker engine";
        if (::access("/usr/sbin/dockerd", X_OK) != 0) GTEST_SKIP() << "dockerd not installed";
        tmp_.reset(new TestSupport::TempDir("tarnwick-engine"));
        socket_ = *tmp_ / "docker.sock";
        // A bridge of its own: an engine told "--bridge none" deletes the host's docker0, which
        // the shared engine needs.
        bridge_ = "twbr" + std::to_string(::getpid() % 100000);
        ASSERT_TRUE(Shell::Run("ip link add " + bridge_ + " type bridge && ip addr add 10.254." +
                               std::to_string(::getpid() % 250) + ".1/24 dev " + bridge_ +
                               " && ip link set " + bridge_ + " up")
                        .Ok())
            << "cannot create bridge " << bridge_;
        ASSERT_TRUE(Engine("start")) << "private dockerd did not start; see " << tmp_->Path();
        ASSERT_TRUE(Engine("image"));
    }
    void TearDown() override {
        // By name: a run that fails half-way still leaves a created container.
        for (const auto& name : names_) Docker("rm -f " + name);
        ContainerFeed::TearDown();
        if (!tmp_) return;
        Engine("stop");
        // A live-restore engine leaves its data root mounted; deepest mounts first.
        Shell::Output("awk '{print $5}' /proc/self/mountinfo | grep '^" + tmp_->Path() +
                      "' | sort -r | xargs -r umount -l");
        tmp_.reset();
        Shell::Output("ip link del " + bridge_);
    }
    bool Engine(const std::string& verb) {
        const std::string dir = tmp_->Path();
        return Shell::Run("DOCKER_SOCKET=" + socket_ + " DOCKERD_STATE=" + dir +
                          "/dockerd.pid DOCKERD_LOG=" + dir + "/dockerd.log DOCKERD_LOCK=" + dir +
                          "/lock DOCKERD_ARGS='--data-root " + dir + "/data --exec-root " + dir +
                          "/exec --pidfile " + dir + "/docker.pid --bridge " + bridge_ +
                          " --iptables=false --ip-masq=false --live-restore' bash " +
                          TARNWICK_SOURCE_DIR "/scripts/dockerd.sh " + verb + " >/dev/null 2>&1")
            .Ok();
    }
    std::string Docker(const std::string& args) {
        return Shell::Output("docker -H unix://" + socket_ + " " + args + " 2>/dev/null");
    }
    // Starts a container that sleeps; its full id.
    std::string Run() {
        names_.push_back("tarnwick-test-" + std::to_string(::getpid()) + "-" +
                         std::to_string(names_.size()));
        return Docker("run -d --network none --name " + names_.back() + " " + kImage +
                      " sleep 300");
    }

    std::unique_ptr<TestSupport::TempDir> tmp_;  // made once the test knows it can run
    std::string socket_;
    std::string bridge_;
    std::vector<std::string> names_;
};

TEST_F(FeedAcrossEngineRestart, ContainerThatDiedWhileTheEngineWasAwayGetsItsExit) {
    LoadModule(socket_);
    RecordingTask* rec = Subscriber();
    const std::string doomed = Run();
    const std::string survivor = Run();
    ASSERT_EQ(doomed.size() + survivor.size(), 128u) << "docker run failed";
    ASSERT_TRUE(
        WaitUntil([&] { return rec->Count(doomed, true) == 1 && rec->Count(survivor, true) == 1; },
                  kEngineWait));
    const int pid = std::atoi(Docker("inspect -f '{{.State.Pid}}' " + doomed).c_str());
    ASSERT_GT(pid, 1);

    // Live restore keeps both running while the engine is down; one of them dies unseen.
    ASSERT_TRUE(Engine("stop"));
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    ASSERT_TRUE(WaitUntil([&] { return ::kill(pid, 0) != 0; }, kEngineWait));
    ASSERT_TRUE(Engine("start"));

    ASSERT_TRUE(WaitUntil([&] { return rec->Count(doomed, false) == 1; }, std::chrono::seconds(40)))
        << "no exit for the container that died while the engine was away";
    const std::string later = Run();
    ASSERT_TRUE(WaitUntil([&] { return rec->Count(later, true) == 1; }, kEngineWait))
        << "events are not followed after the engine came back";
    EXPECT_EQ(rec->Count(survivor, true), 1u);
    EXPECT_EQ(rec->Count(survivor, false), 0u);
}

}  // namespace
}  // namespace Engine
