#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "TestFiles.h"
#include "framework/Counters.h"
#include "report/SinkWorker.h"
#include "support/Deadline.h"
#include "support/TempDir.h"

namespace {

using ReportTest::Doc;
using TestSupport::WaitUntil;

// A receiver that can be switched off, takes at most `perCall` lines an attempt, and records
// everything it was given.
class RecordingSink : public Report::Sink {
public:
    explicit RecordingSink(std::string name) : name_(std::move(name)) {}
    std::string Name() const override { return name_; }
    std::string Target() const override { return "memory"; }
    int MaxBackoffMs() const override { return 200; }
    Report::DeliveryResult Deliver(const std::vector<std::string>& lines) override {
        Report::DeliveryResult result;
        ++attempts;
        if (!up.load()) {
            result.error = "down";
            return result;
        }
        std::lock_guard<std::mutex> lock(mutex);
        for (const auto& line : lines) {
            if (result.delivered == perCall) break;
            got.push_back(line);
            ++result.delivered;
        }
        if (result.delivered < lines.size()) result.error = "busy";
        return result;
    }
    std::vector<std::string> Got() {
        std::lock_guard<std::mutex> lock(mutex);
        return got;
    }

    std::atomic<bool> up{true};
    std::atomic<int> attempts{0};
    std::size_t perCall = 1000;
    std::mutex mutex;  // guards got
    std::vector<std::string> got;

private:
    std::string name_;
};

class SinkWorkerTest : public ::testing::Test {
protected:
    std::unique_ptr<Report::SinkWorker> MakeWorker(RecordingSink*& sink, uint64_t maxBytes,
                                                   const std::string& name) {
        sink = new RecordingSink(name);
        auto spool = std::make_unique<Report::Spool>(tmp_.Path() + "/" + name, maxBytes);
        std::string error;
        EXPECT_TRUE(spool->Open(error)) << error;
        auto worker = std::make_unique<Report::SinkWorker>(std::unique_ptr<Report::Sink>(sink),
                                                           std::move(spool));
        worker->Start();
        return worker;
    }
    uint64_t Count(const std::string& name) { return Framework::Counters::Instance().Value(name); }

    TestSupport::TempDir tmp_;
};

TEST_F(SinkWorkerTest, AnOutageDelaysButNeitherLosesNorReordersNorDuplicates) {
    RecordingSink* sink = nullptr;
    auto worker = MakeWorker(sink, 1 << 20, "outage");
    sink->perCall = 7;  // partial takes on top of the outage
    std::vector<std::string> sent;
    for (int i = 0; i < 50; ++i) {
        sent.push_back(Doc(i));
        ASSERT_TRUE(worker->Offer(sent.back()));
    }
    ASSERT_TRUE(WaitUntil([&] { return sink->Got().size() == 50; }));
    sink->up = false;
    const int attemptsBefore = sink->attempts;
    for (int i = 50; i < 100; ++i) {
        sent.push_back(Doc(i));
        ASSERT_TRUE(worker->Offer(sent.back()));
    }
    ASSERT_TRUE(WaitUntil([&] { return sink->attempts >= attemptsBefore + 3; }));
    sink->up = true;
    ASSERT_TRUE(WaitUntil([&] { return sink->Got().size() == 100; }));
    EXPECT_EQ(sink->Got(), sent);
    EXPECT_GE(Count("report.outage.attempts_failed"), 3u);
    EXPECT_TRUE(WaitUntil([&] { return Count("report.outage.delivered") == 100u; }));
}

TEST_F(SinkWorkerTest, RetriesBackOffInsteadOfSpinning) {
    RecordingSink* sink = nullptr;
    auto worker = MakeWorker(sink, 1 << 20, "backoff");
    sink->up = false;
    const auto start = std::chrono::steady_clock::now();
    worker->Offer(Doc(0));
    // Attempts 100, 200 and 200 ms apart (the sink's maximum), not back to back.
    ASSERT_TRUE(WaitUntil([&] { return sink->attempts >= 4; }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(450));
    sink->up = true;
    ASSERT_TRUE(WaitUntil([&] { return sink->Got().size() == 1; }));
}

TEST_F(SinkWorkerTest, WhatOverflowsTheSpoolIsCountedAndTheRestArrives) {
    RecordingSink* sink = nullptr;
    auto worker = MakeWorker(sink, 16 * 1024, "overflow");
    sink->up = false;
    int kept = 0;
    for (int i = 0; i < 400; ++i) kept += worker->Offer(Doc(i, 100)) ? 1 : 0;
    EXPECT_LT(kept, 400);
    EXPECT_EQ(Count("report.overflow.spool.overflow"), static_cast<uint64_t>(400 - kept));
    sink->up = true;
    ASSERT_TRUE(WaitUntil([&] { return sink->Got().size() == static_cast<std::size_t>(kept); }));
}

}  // namespace
