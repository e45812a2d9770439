// The engine client and the loaded container module against a stand-in engine, for the answers
// a real one cannot be made to give (broken, oversized, malformed). Real containers starting and
// exiting under a real engine, whole answers and the replay of the engine's list are the
// end-to-end suite's (tests/e2e/cases.sh, cases_podman.sh). A container that dies while its
// engine is away is not tested: it needs a private live-restore dockerd of the test's own.
#include <Poco/Exception.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketStream.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <mutex>
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
#include "support/TaskHost.h"
#include "support/TempDir.h"

namespace Engine {
namespace {

using TestSupport::WaitUntil;

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
    // Chunked, as the engine answers, in chunks of `chunkSize` bytes.
    static std::string Answer(int status, const std::string& body, size_t chunkSize) {
        std::string out = Head(status);
        for (size_t i = 0; i < body.size(); i += chunkSize) out += Chunk(body.substr(i, chunkSize));
        return out + "0\r\n\r\n";
    }

private:
    static std::string Head(int status) {
        return "HTTP/1.1 " + std::to_string(status) + " X\r\nTransfer-Encoding: chunked\r\n\r\n";
    }
    static std::string Chunk(const std::string& data) {
        char size[32];
        std::snprintf(size, sizeof size, "%zx\r\n", data.size());
        return size + data + "\r\n";
    }
    // A client that went away is none of the server's concern. A blocking send on a stream
    // socket returns once all of it is queued.
    static void Send(Poco::Net::StreamSocket& socket, const std::string& data) try {
        socket.sendBytes(data.data(), static_cast<int>(data.size()), MSG_NOSIGNAL);
    } catch (const Poco::Exception&) {
    }
    void Serve() {
        while (!stop_) {
            if (!listener_.poll(Poco::Timespan(0, 5000), Poco::Net::Socket::SELECT_READ)) continue;
            Poco::Net::StreamSocket client = listener_.acceptConnection();
            client.setReceiveTimeout(Poco::Timespan(2, 0));
            Poco::Net::HTTPRequest request;
            try {
                Poco::Net::SocketStream in(client);
                request.read(in);
            } catch (const Poco::Exception&) {
            }
            if (request.getURI().rfind("/events", 0) != 0) {
                Send(client, responder_(request.getURI()));
                continue;
            }
            Send(client, Head(200));
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

// Whole answers come from the real engine in every end-to-end case.
TEST(ApiClient, AnAnswerIsTakenWholeOrNotAtAll) {
    std::string got = "untouched";
    std::string error;
    const auto get = [&](const std::string& answer) {
        FakeEngine engine([&](const std::string&) { return answer; });
        return DockerApiClient(engine.SocketPath(), 2000, 1024).Get("/x", got, error);
    };
    const std::string body = R"([{"Id":"abc"},{"Id":"def"}])";
    EXPECT_EQ(get(FakeEngine::Answer(200, std::string(1500, ' ') + body, 100)), -1);
    EXPECT_NE(error.find("larger than 1024"), std::string::npos) << error;
    EXPECT_EQ(get("HTTP/1.1 2"), -1);
    EXPECT_EQ(got, "untouched");
    EXPECT_EQ(get(FakeEngine::Answer(404, body, 100)), 404);  // the caller tells "gone" by it
    EXPECT_EQ(got, body);
    // Broken off anywhere: refused outright, or a strict prefix that the document parsers refuse.
    const std::string whole = FakeEngine::Answer(200, body, 5);
    for (size_t cut = whole.find("\r\n\r\n") + 4; cut <= whole.rfind("}]"); ++cut) {
        EXPECT_TRUE(get(whole.substr(0, cut)) == -1 || got.size() < body.size())
            << "cut at " << cut;
    }
}

// A subscriber that records every container notification it receives.
class RecordingTask : public TestSupport::RecordingTask<ContainerInfo>,
                      public AbstructMessage<ContainerMessage>::Receiver {
public:
    using TestSupport::RecordingTask<ContainerInfo>::RecordingTask;
    int Receive(const ContainerMessage& msg) override {
        if (msg.containerInfo) Record(*msg.containerInfo);
        return 0;
    }
    void Subscribe(bool on) {
        SendDirectMsg("container_collect_task", new ContainerRegisterMessage(this, on, false));
    }
};

// Notifications about `id` with running == `start`.
RecordingTask::Match About(const std::string& id, bool start) {
    return [id, start](const ContainerInfo& i) { return i.id == id && i.running == start; };
}

// Hex ids, as the collector accepts nothing else.
const std::string kA = "aaaa01";
const std::string kB = "bbbb02";
const std::string kC = "cccc03";
const std::string kBroken = "dddd04";

std::string Event(const std::string& action, const std::string& id) {
    return R"({"Type":"container","Action":")" + action + R"(","Actor":{"ID":")" + id + R"("}})";
}

// In chunks that cut through every member. C has stopped by the time it is looked at.
std::string Answer(const std::string& path) {
    if (path.rfind("/containers/json", 0) == 0) {
        return FakeEngine::Answer(200, R"([{"Id":")" + kA + R"("}])", 7);
    }
    const std::string id = path.substr(12, path.find('/', 12) - 12);  // "/containers/<id>/json"
    if (id == kBroken)
        return FakeEngine::Answer(200, R"({"Id":")" + id + R"(","State":{"Runn)", 16);
    return FakeEngine::Answer(200,
                              R"({"Id":")" + id + R"(","Name":"/n-)" + id +
                                  R"(","State":{"Running":)" + (id == kC ? "false" : "true") +
                                  R"(},"GraphDriver":{"Data":{"MergedDir":"/m/)" + id + R"("}}})",
                              16);
}

// The container module loaded from the build's lib/ as the agent loads it, against the stand-in.
TEST(ContainerFeed, StartsAndExitsGoToSubscribersAndBadAnswersAreSkippedAndCounted) {
    FakeEngine engine(Answer);
    // Gone in reverse order: the module must not send to subscribers, nor ask an engine, that
    // are gone.
    TestSupport::TaskHost host("container_test_host");
    TestSupport::ServiceModule module;
    SDK::ConfigUtils::Set("docker.socket", engine.SocketPath());
    ASSERT_TRUE(module.Load("libcontainer_module.so")) << module.Error();
    SDK::ConfigUtils::Clear();
    int tasks = 0;
    const auto subscriber = [&] {
        auto* task = host.Add(new RecordingTask("container_test_" + std::to_string(++tasks)));
        if (task != nullptr) task->Subscribe(true);
        return task;
    };
    RecordingTask* first = subscriber();
    // The list is asked for once the event stream is open, and answered by the same thread
    // after it took the stream in: events pushed from now on reach the module.
    ASSERT_TRUE(WaitUntil([&] { return first->Count(About(kA, true)) == 1; }));
    RecordingTask* late = subscriber();
    ASSERT_TRUE(WaitUntil([&] { return late->Count(About(kA, true)) == 1; }));
    late->Subscribe(false);
    auto& counters = Framework::Counters::Instance();
    const uint64_t inspect = counters.Value("container.inspect.malformed");
    const uint64_t lines = counters.Value("container.events.malformed");
    const uint64_t gone = counters.Value("container.start.gone");

    engine.PushEvent(Event("start", kBroken));
    engine.PushEvent(R"({"Type":"container","Action":"start","Actor":{"ID":"not/hex"}})");
    // C's start arrives after it already stopped: the engine says it does not run.
    engine.PushEvent(Event("start", kC));
    engine.PushEvent(Event("start", kB));
    // Handled in order: once B is in, the others have been dealt with.
    ContainerInfo b;
    ASSERT_TRUE(WaitUntil([&] { return first->Find(About(kB, true), b); }));
    EXPECT_EQ(b.name, "n-" + kB);  // the start carries the inspected description
    EXPECT_EQ(first->Count(About(kBroken, true)) + first->Count(About(kC, true)), 0u);
    EXPECT_EQ(counters.Value("container.inspect.malformed"), inspect + 1);
    EXPECT_EQ(counters.Value("container.events.malformed"), lines + 1);
    EXPECT_EQ(counters.Value("container.start.gone"), gone + 1);

    engine.PushEvent(Event("die", kB));
    ContainerInfo exited;
    ASSERT_TRUE(WaitUntil([&] { return first->Find(About(kB, false), exited); }));
    EXPECT_EQ(exited.rootPath, "/m/" + kB);  // the exit carries what the start announced
    EXPECT_EQ(late->Count(About(kB, true)), 0u);
    EXPECT_EQ(first->Count(About(kA, true)), 1u);  // the replay went to the late subscriber only
}

}  // namespace
}  // namespace Engine
