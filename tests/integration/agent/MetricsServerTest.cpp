// The metrics endpoint over HTTP. How each counter and gauge is named and labelled is the
// metrics mapping's own test; a running agent's scrape (valid exposition text, its gauges) and
// its /healthz, healthy and with the engine unreachable (503), are the end-to-end metrics case.
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
    Poco::Net::HTTPResponse response;
    std::string body;
};

Reply Fetch(uint16_t port, const std::string& path,
            const std::string& method = Poco::Net::HTTPRequest::HTTP_GET) {
    Poco::Net::HTTPClientSession session("127.0.0.1", port);
    session.setTimeout(Poco::Timespan(10, 0));
    Poco::Net::HTTPRequest request(method, path, Poco::Net::HTTPMessage::HTTP_1_1);
    session.sendRequest(request);
    Reply reply;
    Poco::StreamCopier::copyToString(session.receiveResponse(reply.response), reply.body);
    return reply;
}
}  // namespace

// A container protected by two services counts once, by its full or its short id; /healthz
// names each missing part; other paths and methods are refused, and so is a port in use.
// Stopping (the port given back) is in every end-to-end metrics run.
TEST(MetricsServerTest, CountsContainersOnceSaysWhyItIsDegradedAndRefusesOtherRequests) {
    Agent::MetricsServer server;
    std::string error;
    ASSERT_TRUE(server.Start("127.0.0.1", 0, error)) << error;
    Framework::Gauges& gauges = Framework::Gauges::Instance();
    const std::string full(64, 'a');
    gauges.SetContainers("one", {full, std::string(64, 'b')});
    gauges.SetContainers("two", {full.substr(0, 12), std::string(64, 'c')});
    const Reply reply = Fetch(server.Port(), "/metrics");
    ASSERT_EQ(reply.response.getStatus(), 200);
    EXPECT_EQ(reply.response.getContentType(), Agent::PrometheusText::kContentType);
    EXPECT_NE(reply.body.find("\ntarnwick_protected_containers 3\n"), std::string::npos)
        << reply.body;
    gauges.SetContainers("one", {});
    gauges.SetContainers("two", {});

    gauges.Set(Framework::GaugeNames::kEngineConnected, 0);
    gauges.Set(Framework::GaugeNames::kAuditAvailable, 0);
    gauges.Set(Framework::GaugeNames::kWatchesRequested, 5);
    gauges.Set(Framework::GaugeNames::kWatchesFailed, 2);
    const Reply health = Fetch(server.Port(), "/healthz");
    for (const auto& gauge : gauges.Snapshot()) gauges.Erase(gauge.first);
    EXPECT_EQ(health.response.getStatus(), 503);
    EXPECT_EQ(health.body,
              "degraded: engine unreachable, audit unavailable, watch coverage partial (2 of 5 "
              "paths unwatched)\n");

    EXPECT_EQ(Fetch(server.Port(), "/metrics/../etc/passwd").response.getStatus(), 404);
    EXPECT_EQ(
        Fetch(server.Port(), "/metrics", Poco::Net::HTTPRequest::HTTP_POST).response.getStatus(),
        405);
    const Reply head = Fetch(server.Port(), "/metrics?x=1", Poco::Net::HTTPRequest::HTTP_HEAD);
    EXPECT_EQ(head.response.getStatus(), 200);
    EXPECT_TRUE(head.body.empty());
    // A port in use. (A bad address never reaches the server: the agent refuses to start.)
    Agent::MetricsServer second;
    EXPECT_FALSE(second.Start("127.0.0.1", server.Port(), error));
    EXPECT_NE(error.find("cannot listen"), std::string::npos) << error;
}
