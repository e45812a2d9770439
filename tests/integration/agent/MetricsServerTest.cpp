#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/StreamCopier.h>
#include <Poco/TemporaryFile.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "agent/MetricsServer.h"
#include "agent/PrometheusText.h"
#include "framework/Counters.h"
#include "framework/Gauges.h"
#include "support/Shell.h"

namespace {
struct Reply {
    int status = 0;
    std::string contentType;
    std::string body;
};

Reply Fetch(uint16_t port, const std::string& path,
            const std::string& method = Poco::Net::HTTPRequest::HTTP_GET) {
    Poco::Net::HTTPClientSession session("127.0.0.1", port);
    session.setTimeout(Poco::Timespan(10, 0));
    Poco::Net::HTTPRequest request(method, path, Poco::Net::HTTPMessage::HTTP_1_1);
    session.sendRequest(request);
    Poco::Net::HTTPResponse response;
    std::istream& in = session.receiveResponse(response);
    Reply reply;
    reply.status = static_cast<int>(response.getStatus());
    reply.contentType = response.getContentType();
    Poco::StreamCopier::copyToString(in, reply.body);
    return reply;
}

// Runs promtool on `text`; the exit status, with its output in `output`; -1 without promtool.
int PromtoolCheck(const std::string& text, std::string& output) {
    if (std::system("command -v promtool >/dev/null 2>&1") != 0) return -1;
    Poco::TemporaryFile file;
    std::ofstream(file.path()) << text;
    const auto result =
        TestSupport::Shell::Run("promtool check metrics < " + file.path() + " 2>&1");
    output += result.out;
    return result.exitCode < 0 ? 1 : result.exitCode;
}

class MetricsServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(server_.Start("127.0.0.1", 0, error)) << error;
        ASSERT_NE(server_.Port(), 0);
    }
    void TearDown() override {
        auto& gauges = Framework::Gauges::Instance();
        for (const auto& gauge : gauges.Snapshot()) gauges.Erase(gauge.first);
        gauges.SetContainers("test", {});
    }

    Agent::MetricsServer server_;
};
}  // namespace

TEST_F(MetricsServerTest, ScrapeIsValidExpositionTextWithCountersAndGauges) {
    Framework::Counters::Instance().Add("framework.send.queue_full.task \"q\"", 3);
    Framework::Counters::Instance().Add("report.alarms.class.dockerfile_002", 2);
    Framework::Counters::Instance().Get("report.file.spooled_bytes").store(42);
    Framework::Gauges::Instance().Set(Framework::GaugeNames::kEngineConnected, 1);
    Framework::Gauges::Instance().SetContainers("test", {std::string(64, 'f')});

    const Reply reply = Fetch(server_.Port(), "/metrics");
    ASSERT_EQ(reply.status, 200);
    EXPECT_EQ(reply.contentType, Agent::PrometheusText::kContentType);
    EXPECT_NE(reply.body.find("\ntarnwick_protected_containers 1\n"), std::string::npos)
        << reply.body;
    EXPECT_NE(reply.body.find("tarnwick_report_alarms_class_total{class=\"dockerfile_002\"} 2"),
              std::string::npos);
    EXPECT_NE(
        reply.body.find("tarnwick_framework_send_queue_full_total{task=\"task \\\"q\\\"\"} 3"),
        std::string::npos);
    EXPECT_NE(reply.body.find("tarnwick_report_spooled_bytes{output=\"file\"} 42"),
              std::string::npos);
    EXPECT_NE(reply.body.find("tarnwick_container_engine_connected 1"), std::string::npos);

    std::string output;
    const int rc = PromtoolCheck(reply.body, output);
    if (rc < 0) GTEST_SKIP() << "promtool not installed (scripts/setup.sh installs it)";
    EXPECT_EQ(rc, 0) << output << "\n" << reply.body;
}

TEST_F(MetricsServerTest, HealthSaysWhyItIsDegraded) {
    auto& gauges = Framework::Gauges::Instance();
    gauges.Set(Framework::GaugeNames::kEngineConnected, 1);
    gauges.Set(Framework::GaugeNames::kAuditAvailable, 1);
    Reply reply = Fetch(server_.Port(), "/healthz");
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.body, "ok\n");

    gauges.Set(Framework::GaugeNames::kEngineConnected, 0);
    gauges.Set(Framework::GaugeNames::kWatchesRequested, 5);
    gauges.Set(Framework::GaugeNames::kWatchesFailed, 2);
    reply = Fetch(server_.Port(), "/healthz");
    EXPECT_EQ(reply.status, 503);
    EXPECT_EQ(reply.body,
              "degraded: engine unreachable, watch coverage partial (2 of 5 paths unwatched)\n");
}

TEST_F(MetricsServerTest, OtherPathsAndMethodsAreRefused) {
    EXPECT_EQ(Fetch(server_.Port(), "/").status, 404);
    EXPECT_EQ(Fetch(server_.Port(), "/metrics/../etc/passwd").status, 404);
    EXPECT_EQ(Fetch(server_.Port(), "/metrics", Poco::Net::HTTPRequest::HTTP_POST).status, 405);
    const Reply head = Fetch(server_.Port(), "/metrics?x=1", Poco::Net::HTTPRequest::HTTP_HEAD);
    EXPECT_EQ(head.status, 200);
    EXPECT_TRUE(head.body.empty());
}

TEST(MetricsServerLifecycleTest, RefusesBadAddressesAndBusyPortsAndStopsCleanly) {
    Agent::MetricsServer server;
    std::string error;
    EXPECT_FALSE(server.Start("localhost:80", 0, error));
    EXPECT_NE(error.find("not an IP address"), std::string::npos) << error;
    ASSERT_TRUE(server.Start("127.0.0.1", 0, error)) << error;
    const uint16_t port = server.Port();

    Agent::MetricsServer second;
    error.clear();
    EXPECT_FALSE(second.Start("127.0.0.1", port, error));
    EXPECT_NE(error.find("cannot listen"), std::string::npos) << error;

    server.Stop();
    EXPECT_EQ(server.Port(), 0);
    EXPECT_THROW(Fetch(port, "/healthz"), Poco::Exception);
    // The port is free again once it stopped.
    ASSERT_TRUE(second.Start("127.0.0.1", port, error)) << error;
    EXPECT_EQ(Fetch(port, "/healthz").status, 200);
}
