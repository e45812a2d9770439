// The loaded module against a stand-in engine whose event stream the test can drop at will:
// resynchronisation after the engine comes back, and answers that must be skipped.
#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <set>
#include <string>

#include "ContainerFeedFixture.h"
#include "FakeEngine.h"
#include "framework/Counters.h"
#include "framework/Gauges.h"
#include "support/Deadline.h"

namespace Engine {
namespace Testing {
namespace {

using TestSupport::WaitUntil;

// Hex ids, as the collector accepts nothing else.
const std::string kA = "aaaa01";
const std::string kB = "bbbb02";
const std::string kC = "cccc03";
const std::string kBroken = "dddd04";
const std::string kE = "eeee05";

class EngineState {
public:
    void Set(std::set<std::string> running) {
        std::lock_guard<std::mutex> lock(mutex_);
        running_ = std::move(running);
    }
    void Add(const std::string& id) {
        std::lock_guard<std::mutex> lock(mutex_);
        running_.insert(id);
    }
    void Remove(const std::string& id) {
        std::lock_guard<std::mutex> lock(mutex_);
        running_.erase(id);
    }
    std::string Answer(const std::string& path) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (path.rfind("/containers/json", 0) == 0) {
            std::string list = "[";
            for (const auto& id : running_) {
                list += (list.size() > 1 ? "," : "") + std::string(R"({"Id":")") + id + "\"}";
            }
            return FakeEngine::ChunkedAnswer(list + "]", 7);
        }
        const std::string prefix = "/containers/";
        const std::string id =
            path.substr(prefix.size(), path.find('/', prefix.size()) - prefix.size());
        if (id == kBroken) {
            return FakeEngine::Answer(200, R"({"Id":")" + id + R"(","State":{"Runn)");
        }
        const bool running = running_.count(id) != 0;
        const std::string doc = R"({"Id":")" + id + R"(","Name":"/n-)" + id +
                                R"(","Path":"sleep","Args":["9"],"Image":"sha256:1",)" +
                                R"("State":{"Running":)" + (running ? "true" : "false") +
                                R"(},"Config":{"Image":"img"},)" +
                                R"("GraphDriver":{"Data":{"MergedDir":"/m/)" + id + R"("}}})";
        return FakeEngine::ChunkedAnswer(doc, 16);
    }

private:
    std::mutex mutex_;  // guards running_ (server thread reads, test thread writes)
    std::set<std::string> running_;
};

std::string Event(const std::string& action, const std::string& id) {
    return R"({"status":")" + action + R"(","id":")" + id + R"(","Type":"container","Action":")" +
           action + R"(","Actor":{"ID":")" + id + R"(","Attributes":{"name":"n"}},"time":1})";
}

class FeedAgainstStandIn : public ContainerFeedFixture {
protected:
    void SetUp() override {
        engine_.reset(new FakeEngine([this](const std::string& p) { return state_.Answer(p); }));
        ASSERT_FALSE(engine_->SocketPath().empty());
    }
    void TearDown() override {
        ContainerFeedFixture::TearDown();
        engine_.reset();
    }
    bool StreamOpen() {
        return WaitUntil([this] { return engine_->OpenEventStreams() == 1; });
    }

    EngineState state_;
    std::unique_ptr<FakeEngine> engine_;
};

TEST_F(FeedAgainstStandIn, EventsBecomeNotificationsWithTheInspectedDescription) {
    state_.Set({kA});
    LoadModule(engine_->SocketPath());
    RecordingTask* rec = AddRecorder("container_test_rec1");
    rec->Subscribe(true);
    ASSERT_TRUE(StreamOpen());
    ASSERT_TRUE(WaitUntil([&] { return rec->Count(kA, true) == 1; }));

    state_.Add(kB);
    engine_->PushEvent(Event("start", kB));
    ContainerInfo b;
    ASSERT_TRUE(WaitUntil([&] { return rec->Find(kB, true, b); }));
    EXPECT_EQ(b.name, "n-" + kB);
    EXPECT_EQ(b.cmd, "sleep 9");
    EXPECT_EQ(b.rootPath, "/m/" + kB);

    state_.Remove(kB);
    engine_->PushEvent(Event("die", kB));
    ContainerInfo exited;
    ASSERT_TRUE(WaitUntil([&] { return rec->Find(kB, false, exited); }));
    EXPECT_EQ(exited.rootPath, "/m/" + kB);  // the exit carries what the start announced
    EXPECT_EQ(rec->Count(kA, true), 1u);
}

TEST_F(FeedAgainstStandIn, EngineComingBackIsResynchronised) {
    state_.Set({kA, kB});
    LoadModule(engine_->SocketPath());
    RecordingTask* rec = AddRecorder("container_test_rec2");
    rec->Subscribe(true);
    ASSERT_TRUE(StreamOpen());
    ASSERT_TRUE(WaitUntil([&] { return rec->Count(kA, true) == 1 && rec->Count(kB, true) == 1; }));

    // While the engine is away A stops and C starts; B runs on.
    state_.Set({kB, kC});
    engine_->DropEventStreams();
    ASSERT_TRUE(WaitUntil([&] { return rec->Count(kA, false) == 1 && rec->Count(kC, true) == 1; }));
    EXPECT_TRUE(StreamOpen());
    EXPECT_EQ(rec->Count(kB, true), 1u);
    EXPECT_EQ(rec->Count(kB, false), 0u);
}

TEST_F(FeedAgainstStandIn, MalformedInspectIsSkippedAndCounted) {
    state_.Set({kA});
    LoadModule(engine_->SocketPath());
    RecordingTask* rec = AddRecorder("container_test_rec3");
    rec->Subscribe(true);
    ASSERT_TRUE(StreamOpen());
    // A's start comes from the first resynchronisation: after it only events matter.
    ASSERT_TRUE(WaitUntil([&] { return rec->Count(kA, true) == 1; }));
    const uint64_t before = Framework::Counters::Instance().Value("container.inspect.malformed");
    const uint64_t malformedLines =
        Framework::Counters::Instance().Value("container.events.malformed");

    state_.Add(kBroken);
    engine_->PushEvent(Event("start", kBroken));
    engine_->PushEvent(R"({"Type":"container","Action":"start","Actor":{"ID":"not/hex"}})");
    state_.Add(kE);
    engine_->PushEvent(Event("start", kE));
    // Handled in order: once E is in, the broken one has been dealt with.
    ASSERT_TRUE(WaitUntil([&] { return rec->Count(kE, true) == 1; }));
    EXPECT_EQ(rec->Count(kBroken, true), 0u);
    EXPECT_EQ(Framework::Counters::Instance().Value("container.inspect.malformed"), before + 1);
    EXPECT_EQ(Framework::Counters::Instance().Value("container.events.malformed"),
              malformedLines + 1);
}

TEST_F(FeedAgainstStandIn, ContainerGoneBeforeItWasSeenIsCountedAndEngineShownConnected) {
    state_.Set({kA});
    LoadModule(engine_->SocketPath());
    RecordingTask* rec = AddRecorder("container_test_rec6");
    rec->Subscribe(true);
    ASSERT_TRUE(StreamOpen());
    ASSERT_TRUE(WaitUntil([&] { return rec->Count(kA, true) == 1; }));
    EXPECT_EQ(Framework::Gauges::Instance().Value(Framework::GaugeNames::kEngineConnected, -1), 1);
    const uint64_t before = Framework::Counters::Instance().Value("container.start.gone");

    // C's start arrives after it already stopped: the engine says it does not run.
    engine_->PushEvent(Event("start", kC));
    state_.Add(kE);
    engine_->PushEvent(Event("start", kE));
    ASSERT_TRUE(WaitUntil([&] { return rec->Count(kE, true) == 1; }));
    EXPECT_EQ(rec->Count(kC, true), 0u);
    EXPECT_EQ(Framework::Counters::Instance().Value("container.start.gone"), before + 1);
}

TEST_F(FeedAgainstStandIn, LateSubscriberGetsReplayAndUnsubscribedOneNothingMore) {
    state_.Set({kA});
    LoadModule(engine_->SocketPath());
    RecordingTask* first = AddRecorder("container_test_rec4");
    first->Subscribe(true);
    ASSERT_TRUE(StreamOpen());
    ASSERT_TRUE(WaitUntil([&] { return first->Count(kA, true) == 1; }));

    RecordingTask* late = AddRecorder("container_test_rec5");
    late->Subscribe(true);
    ASSERT_TRUE(WaitUntil([&] { return late->Count(kA, true) == 1; }));
    late->Subscribe(false);

    state_.Add(kB);
    engine_->PushEvent(Event("start", kB));
    ASSERT_TRUE(WaitUntil([&] { return first->Count(kB, true) == 1; }));
    EXPECT_EQ(late->Count(kB, true), 0u);
    EXPECT_EQ(first->Count(kA, true), 1u);  // the replay went to the late subscriber only
}

}  // namespace
}  // namespace Testing
}  // namespace Engine
