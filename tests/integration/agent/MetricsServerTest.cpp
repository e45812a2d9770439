#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/StreamCopier.h>
#include <gtest/gtest.h>

#include <string>

#include "agent/MetricsServer.h"
#include "agent/PrometheusText.h"
#include "framework/Gauges.h"

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

class MetricsServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(server_.Start("127.0.0.1", 0, error)) << error;
        ASSERT_NE(server_.Port(), 0);
    }
    void TearDown() override {
        for (const auto& gauge : gauges_.Snapshot()) gauges_.Erase(gauge.first);
        gauges_.SetContainers("one", {});
        gauges_.SetContainers("two", {});
    }

    Framework::Gauges& gauges_ = Framework::Gauges::Instance();
    Agent::MetricsServer server_;
};
}  // namespace

// How each counter and gauge is named and labelled is the metrics mapping's own test; that the
// scrape of a running agent is valid exposition text is the end-to-end metrics case.
TEST_F(MetricsServerTest, AContainerProtectedByTwoServicesCountsOnceByFullOrShortId) {
    const std::string full(64, 'a');
    gauges_.SetContainers("one", {full, std::string(64, 'b')});
    gauges_.SetContainers("two", {full.substr(0, 12), std::string(64, 'c')});
    const Reply reply = Fetch(server_.Port(), "/metrics");
    ASSERT_EQ(reply.status, 200);
    EXPECT_EQ(reply.contentType, Agent::PrometheusText::kContentType);
    EXPECT_NE(reply.body.find("\ntarnwick_protected_containers 3\n"), std::string::npos)
        << reply.body;
    gauges_.SetContainers("one", {});
    EXPECT_NE(Fetch(server_.Port(), "/metrics").body.find("\ntarnwick_protected_containers 2\n"),
              std::string::npos);
}

// Without any service loaded there is nothing to be unhealthy about; each missing part is named.
TEST_F(MetricsServerTest, HealthSaysWhyItIsDegraded) {
    Reply reply = Fetch(server_.Port(), "/healthz");
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.body, "ok\n");
    gauges_.Set(Framework::GaugeNames::kEngineConnected, 0);
    gauges_.Set(Framework::GaugeNames::kAuditAvailable, 0);
    gauges_.Set(Framework::GaugeNames::kWatchesRequested, 5);
    gauges_.Set(Framework::GaugeNames::kWatchesFailed, 2);
    reply = Fetch(server_.Port(), "/healthz");
    EXPECT_EQ(reply.status, 503);
    EXPECT_EQ(reply.body,
              "degraded: engine unreachable, audit unavailable, watch coverage partial (2 of 5 "
              "paths unwatched)\n");
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
