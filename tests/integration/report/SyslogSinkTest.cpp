#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "ServerProcess.h"
#include "TestFiles.h"
#include "framework/Counters.h"
#include "report/SinkWorker.h"
#include "report/SyslogSink.h"
#include "support/Deadline.h"
#include "support/FileText.h"
#include "support/TempDir.h"

namespace {

using Report::SyslogSink;
using ReportTest::Doc;
using TestSupport::FileText;
using TestSupport::WaitUntil;

constexpr const char* kRsyslogd = "/usr/sbin/rsyslogd";

// A private rsyslogd: a local socket, UDP and TCP inputs on free ports, every message written
// to out.log as "facility severity app-name msgid message", so that the test sees how rsyslog
// parsed each field of the RFC 5424 header.
class Rsyslog {
public:
    explicit Rsyslog(const std::string& dir) : dir_(dir) {
        udpPort_ = ReportTest::FreePort(true);
        tcpPort_ = ReportTest::FreePort(false);
        std::ofstream(dir_ + "/rsyslog.conf")
            << "global(workDirectory=\"" << dir_ << "\" maxMessageSize=\"64k\")\n"
            << "module(load=\"imuxsock\" SysSock.Use=\"off\")\n"
            << "input(type=\"imuxsock\" Socket=\"" << Socket()
            << "\" UseSpecialParser=\"off\" ParseHostname=\"on\")\n"
            << "module(load=\"imudp\")\n"
            << "input(type=\"imudp\" address=\"127.0.0.1\" port=\"" << udpPort_ << "\")\n"
            << "module(load=\"imtcp\")\n"
            << "input(type=\"imtcp\" address=\"127.0.0.1\" port=\"" << tcpPort_ << "\")\n"
            << "template(name=\"fields\" type=\"string\" string=\"%syslogfacility-text% "
               "%syslogseverity-text% %app-name% %msgid% %msg%\\n\")\n"
            << "action(type=\"omfile\" file=\"" << Output() << "\" template=\"fields\")\n";
    }

    bool Start() {
        ::unlink((dir_ + "/rsyslogd.pid").c_str());
        if (!process_.Start(
                {kRsyslogd, "-n", "-f", dir_ + "/rsyslog.conf", "-i", dir_ + "/rsyslogd.pid"},
                dir_ + "/rsyslogd.out")) {
            return false;
        }
        // Ready when the TCP input accepts and the socket exists (inputs open together).
        return WaitUntil(
            [&] { return ReportTest::Accepts(tcpPort_) && ::access(Socket().c_str(), F_OK) == 0; });
    }
    void Stop() { process_.Stop(); }

    std::string Socket() const { return dir_ + "/log.sock"; }
    std::string Output() const { return dir_ + "/out.log"; }
    std::string Target(SyslogSink::Transport transport) const {
        switch (transport) {
            case SyslogSink::Transport::kUnix:
                return "unix:" + Socket();
            case SyslogSink::Transport::kUdp:
                return "udp:127.0.0.1:" + std::to_string(udpPort_);
            default:
                return "tcp:127.0.0.1:" + std::to_string(tcpPort_);
        }
    }
    // The lines written so far, whole ones only: rsyslog may be halfway through the last.
    std::vector<std::string> Lines() const {
        std::istringstream text(FileText::Read(Output()));
        std::vector<std::string> lines;
        for (std::string line; std::getline(text, line);) {
            if (!text.eof()) lines.push_back(line);
        }
        return lines;
    }
    // The messages received, as the JSON documents they carry.
    std::vector<std::string> Messages() const {
        std::vector<std::string> docs;
        for (const std::string& line : Lines()) {
            const std::size_t brace = line.find('{');
            if (brace != std::string::npos) docs.push_back(line.substr(brace));
        }
        return docs;
    }

private:
    std::string dir_;
    int udpPort_ = -1;
    int tcpPort_ = -1;
    ReportTest::ServerProcess process_;
};

std::unique_ptr<SyslogSink> MakeSink(const std::string& target) {
    SyslogSink::Endpoint endpoint;
    std::string error;
    EXPECT_TRUE(SyslogSink::ParseTarget(target, endpoint, error)) << error;
    return std::make_unique<SyslogSink>(target, endpoint, SyslogSink::FacilityCode("auth"), 2000);
}

class SyslogSinkTest : public ::testing::TestWithParam<SyslogSink::Transport> {
protected:
    void SetUp() override {
        if (::access(kRsyslogd, X_OK) != 0) {
            GTEST_SKIP() << "rsyslogd is not installed (Debian package rsyslog)";
        }
        rsyslog_.reset(new Rsyslog(tmp_.Path()));
        ASSERT_TRUE(rsyslog_->Start()) << FileText::Read(tmp_.Path() + "/rsyslogd.out");
    }

    TestSupport::TempDir tmp_;
    std::unique_ptr<Rsyslog> rsyslog_;
};

TEST_P(SyslogSinkTest, EachAlarmIsOneRfc5424MessageCarryingTheDocumentUnchanged) {
    auto sink = MakeSink(rsyslog_->Target(GetParam()));
    const std::vector<std::string> docs = {Doc(0), Doc(1, 4000), "{\"text\":\"a b \\\"q\\\"\"}"};
    const auto result = sink->Deliver(docs);
    EXPECT_EQ(result.delivered, docs.size()) << result.error;
    ASSERT_TRUE(WaitUntil([&] { return rsyslog_->Lines().size() == docs.size(); }));
    const auto lines = rsyslog_->Lines();
    for (std::size_t i = 0; i < docs.size(); ++i) {
        // rsyslog parsed the header: facility, severity, app name and message id came through.
        EXPECT_EQ(lines[i], "auth warning tarnwick alarm " + docs[i]);
    }
}

INSTANTIATE_TEST_SUITE_P(Transports, SyslogSinkTest,
                         ::testing::Values(SyslogSink::Transport::kUnix,
                                           SyslogSink::Transport::kUdp,
                                           SyslogSink::Transport::kTcp),
                         [](const ::testing::TestParamInfo<SyslogSink::Transport>& info) {
                             return info.param == SyslogSink::Transport::kUnix  ? "Unix"
                                    : info.param == SyslogSink::Transport::kUdp ? "Udp"
                                                                                : "Tcp";
                         });

class SyslogRestartTest : public SyslogSinkTest {};

// An rsyslogd that goes away and comes back: alarms raised meanwhile wait in the spool and
// arrive once, in order, on a new connection.
TEST_P(SyslogRestartTest, AlarmsRaisedWhileTheCollectorIsDownArriveAfterItReturns) {
    auto spool = std::make_unique<Report::Spool>(tmp_.Path() + "/spool", 1 << 20);
    std::string error;
    ASSERT_TRUE(spool->Open(error)) << error;
    Report::SinkWorker worker(MakeSink(rsyslog_->Target(GetParam())), std::move(spool));
    worker.Start();
    std::vector<std::string> sent;
    for (int i = 0; i < 10; ++i) {
        sent.push_back(Doc(i));
        worker.Offer(sent.back());
    }
    ASSERT_TRUE(WaitUntil([&] { return rsyslog_->Messages().size() == 10; }));

    const uint64_t failed = Framework::Counters::Instance().Value("report.syslog.attempts_failed");
    rsyslog_->Stop();
    for (int i = 10; i < 30; ++i) {
        sent.push_back(Doc(i));
        worker.Offer(sent.back());
    }
    ASSERT_TRUE(WaitUntil([&] {
        return Framework::Counters::Instance().Value("report.syslog.attempts_failed") > failed;
    }));
    ASSERT_TRUE(rsyslog_->Start());
    ASSERT_TRUE(
        WaitUntil([&] { return rsyslog_->Messages().size() >= 30; }, std::chrono::seconds(30)));
    EXPECT_EQ(rsyslog_->Messages(), sent);
}

INSTANTIATE_TEST_SUITE_P(Transports, SyslogRestartTest,
                         ::testing::Values(SyslogSink::Transport::kUnix,
                                           SyslogSink::Transport::kTcp),
                         [](const ::testing::TestParamInfo<SyslogSink::Transport>& info) {
                             return info.param == SyslogSink::Transport::kUnix ? "Unix" : "Tcp";
                         });

TEST(SyslogTarget, OnlyWellFormedTargetsAreTaken) {
    SyslogSink::Endpoint endpoint;
    std::string error;
    EXPECT_TRUE(SyslogSink::ParseTarget("unix:/dev/log", endpoint, error));
    EXPECT_TRUE(SyslogSink::ParseTarget("tcp:[::1]:6514", endpoint, error));
    EXPECT_EQ(endpoint.transport, SyslogSink::Transport::kTcp);
    for (const char* bad : {"/dev/log", "unix:dev/log", "udp:host", "tcp:host:0", "tcp:host:99999",
                            "tcp::514x", "smtp:host:25", ""}) {
        EXPECT_FALSE(SyslogSink::ParseTarget(bad, endpoint, error)) << bad;
    }
    EXPECT_EQ(SyslogSink::FacilityCode("local7"), 23);
    EXPECT_EQ(SyslogSink::FacilityCode("nope"), -1);
}

}  // namespace
