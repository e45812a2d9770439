// The syslog and HTTP outputs over real sockets, the collector's end played by the test. The
// real rsyslogd (over TCP, restarted too) and nginx (stopped and started again) are the
// end-to-end syslog and collector cases.
#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketStream.h>
#include <Poco/Net/StreamSocket.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "report/HttpSink.h"
#include "report/SyslogSink.h"
#include "support/TempDir.h"

namespace {

using Report::HttpSink;
using Report::SyslogSink;
using Lines = std::vector<std::string>;

// A small alarm-like JSON document numbered n.
std::string Doc(int n, std::size_t pad = 0) {
    return "{\"n\":" + std::to_string(n) + ",\"pad\":\"" + std::string(pad, 'x') + "\"}";
}

// A unix datagram socket at `path` standing in for the syslog daemon: the datagram transport
// sends each message as it is. How rsyslog parses the header is the end-to-end syslog case
// (over TCP; the header is the same for every transport).
std::unique_ptr<Poco::Net::DatagramSocket> BindLog(const std::string& path) {
    ::unlink(path.c_str());
    auto socket = std::make_unique<Poco::Net::DatagramSocket>(
        Poco::Net::SocketAddress(Poco::Net::SocketAddress::UNIX_LOCAL, path), false);
    socket->setReceiveTimeout(Poco::Timespan(10, 0));
    return socket;
}

std::string Receive(Poco::Net::DatagramSocket& socket) {
    std::string buffer(65536, '\0');
    const int n = socket.receiveBytes(buffer.data(), static_cast<int>(buffer.size()));
    return buffer.substr(0, static_cast<std::size_t>(std::max(n, 0)));
}

// Each alarm is one message, auth.warning (<36>), carrying the document unchanged; while the
// daemon's socket is gone nothing counts as delivered, and the sink connects to the new one.
TEST(SyslogSinkTest, EachAlarmIsOneDatagramAndTheSinkReconnectsToANewSocket) {
    TestSupport::TempDir tmp;
    const std::string target = "unix:" + tmp / "log.sock";
    SyslogSink::Endpoint endpoint;
    std::string error;
    ASSERT_TRUE(SyslogSink::ParseTarget(target, endpoint, error)) << error;
    SyslogSink sink(target, endpoint, SyslogSink::FacilityCode("auth"), 2000);
    auto daemon = BindLog(tmp / "log.sock");
    const std::string tail = " tarnwick " + std::to_string(::getpid()) + " alarm - ";
    const Lines docs = {Doc(0), Doc(1, 4000)};
    auto result = sink.Deliver(docs);
    EXPECT_EQ(result.delivered, docs.size()) << result.error;
    for (const auto& doc : docs) {
        const std::string message = Receive(*daemon);
        EXPECT_EQ(message.rfind("<36>1 ", 0), 0u) << message;
        EXPECT_EQ(message.find(tail + doc), message.size() - tail.size() - doc.size()) << message;
    }
    // Too long for any datagram: refused for good, never retried (it would hold up the rest).
    EXPECT_EQ(sink.Deliver({Doc(9, 300000)}).rejected, 1u);
    daemon.reset();
    ::unlink((tmp / "log.sock").c_str());
    for (int attempt = 0; attempt < 2; ++attempt) {  // the old socket, then no socket at all
        result = sink.Deliver({Doc(2)});
        EXPECT_EQ(result.delivered + result.rejected, 0u);
        EXPECT_FALSE(result.error.empty());
    }
    daemon = BindLog(tmp / "log.sock");
    result = sink.Deliver({Doc(3)});
    EXPECT_EQ(result.delivered, 1u) << result.error;
    EXPECT_NE(Receive(*daemon).find(tail + Doc(3)), std::string::npos);
}

// A batch is one POST of JSON lines. The collector's answer decides: 2xx delivered, 4xx refused
// for good, 5xx (and no answer within the timeout, which must not hang) asked again later.
// Delivery to a real collector (nginx), and through its outage, is the end-to-end collector case.
TEST(HttpSinkTest, ABatchIsOnePostOfJsonLinesAndOnlyARefusalIsFinal) {
    Poco::Net::ServerSocket collector(Poco::Net::SocketAddress("127.0.0.1", 0));
    HttpSink::Settings settings;
    settings.url = "http://127.0.0.1:" + std::to_string(collector.address().port()) + "/alarms";
    const Lines docs = {Doc(0), Doc(1, 3000)};
    const struct {
        std::string status;  // "" for no answer at all
        int timeoutMs;
        std::size_t delivered, rejected;
    } rows[] = {{"200 OK", 2000, 2, 0},
                {"400 Bad Request", 2000, 0, 2},
                {"503 Service Unavailable", 2000, 0, 0},
                {"", 300, 0, 0}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.status);
        settings.timeoutMs = row.timeoutMs;
        const auto start = std::chrono::steady_clock::now();
        auto pending =
            std::async(std::launch::async, [&] { return HttpSink(settings).Deliver(docs); });
        ASSERT_TRUE(collector.poll(Poco::Timespan(10, 0), Poco::Net::Socket::SELECT_READ));
        Poco::Net::StreamSocket peer = collector.acceptConnection();
        peer.setReceiveTimeout(Poco::Timespan(10, 0));
        Poco::Net::SocketStream in(peer);
        Poco::Net::HTTPRequest request;
        request.read(in);
        std::string body(static_cast<std::size_t>(request.getContentLength()), '\0');
        in.read(body.data(), static_cast<std::streamsize>(body.size()));
        EXPECT_EQ(request.getMethod() + " " + request.getURI() + " " + request.getVersion(),
                  "POST /alarms HTTP/1.1");
        EXPECT_EQ(request.getContentType(), "application/x-ndjson");
        EXPECT_EQ(body, docs[0] + "\n" + docs[1] + "\n");
        const std::string reply =
            "HTTP/1.1 " + row.status + "\r\nContent-Length: 5\r\nConnection: close\r\n\r\nbusy\n";
        if (!row.status.empty()) peer.sendBytes(reply.data(), static_cast<int>(reply.size()));
        const auto result = pending.get();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
        EXPECT_EQ(result.delivered, row.delivered) << result.error;
        EXPECT_EQ(result.rejected, row.rejected);
        EXPECT_EQ(result.error.empty(), row.delivered > 0) << result.error;
        if (row.delivered == 0) {
            EXPECT_NE(result.error.find(row.status.substr(0, 3)), std::string::npos);
        }
    }
}

// One row per way a target or URL is refused; what is taken, and the facilities, are checked
// through the agent's settings check and the sinks above.
TEST(OutputSettings, OnlyWellFormedSyslogTargetsAndHttpUrlsAreTaken) {
    SyslogSink::Endpoint endpoint;
    std::string error;
    EXPECT_TRUE(SyslogSink::ParseTarget("tcp:[::1]:6514", endpoint, error));
    EXPECT_EQ(endpoint.transport, SyslogSink::Transport::kTcp);
    for (const char* bad : {"unix:dev/log", "udp:host", "tcp:host:0", "tcp:host:99999", "tcp::514x",
                            "smtp:host:25"}) {
        EXPECT_FALSE(SyslogSink::ParseTarget(bad, endpoint, error)) << bad;
    }
    for (const char* bad : {"ftp://collector/", "http:///alarms", "http://[::1"}) {
        EXPECT_FALSE(HttpSink::Validate(bad, error)) << bad;
    }
}

}  // namespace
