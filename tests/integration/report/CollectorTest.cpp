// The syslog and HTTP outputs against real collectors: a private rsyslogd and nginx on free
// ports of 127.0.0.1, started in the foreground in the test's scratch directory.
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <string>
#include <vector>

#include "TestFiles.h"
#include "framework/Counters.h"
#include "report/HttpSink.h"
#include "report/SinkWorker.h"
#include "report/SyslogSink.h"
#include "support/Deadline.h"
#include "support/FileText.h"
#include "support/Shell.h"
#include "support/TempDir.h"

namespace {

using Report::HttpSink;
using Report::SyslogSink;
using ReportTest::Doc;
using ReportTest::Lines;
using TestSupport::FileText;
using TestSupport::WaitUntil;
using Transport = SyslogSink::Transport;

constexpr const char* kRsyslogd = "/usr/sbin/rsyslogd";
constexpr const char* kNginx = "/usr/sbin/nginx";

// A server in the foreground, its output in a file of its own. Stop (also from the destructor,
// whatever the test's outcome) sends SIGTERM and waits, then SIGKILL after a deadline, so that
// no server outlives its test; a test process that crashes takes its servers with it
// (parent-death signal).
class ServerProcess {
public:
    ~ServerProcess() { Stop(); }

    bool Start(const std::vector<std::string>& argv, const std::string& outputFile) {
        Stop();
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        const pid_t parent = ::getpid();
        pid_ = ::fork();
        if (pid_ == 0) {
            // Only async-signal-safe calls between fork and exec.
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent) ::_exit(127);
            const int out =
                ::open(outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
            if (out >= 0) {
                ::dup2(out, STDOUT_FILENO);
                ::dup2(out, STDERR_FILENO);
            }
            ::execv(args[0], args.data());
            ::_exit(127);
        }
        return pid_ > 0;
    }
    void Stop() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGTERM);
        if (!WaitUntil([&] { return ::waitpid(pid_, nullptr, WNOHANG) != 0; })) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
};

// A port of 127.0.0.1 that nothing listens on right now (over TCP; UDP ports are rarely taken).
int FreePort() {
    return Poco::Net::ServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0)).address().port();
}

bool Accepts(int port) try {
    Poco::Net::StreamSocket socket(
        Poco::Net::SocketAddress("127.0.0.1", static_cast<Poco::UInt16>(port)));
    return true;
} catch (const Poco::Exception&) {
    return false;
}

// Placeholders (%NAME%) in a server's configuration replaced by their values.
std::string Configure(std::string text,
                      const std::vector<std::pair<std::string, std::string>>& values) {
    for (const auto& [from, to] : values) {
        for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at)) {
            text.replace(at, from.size(), to);
        }
    }
    return text;
}

// Every message written to out.log as "facility severity app-name msgid message", so that the
// test sees how rsyslog parsed each field of the RFC 5424 header.
const char* const kRsyslogConf = R"(global(workDirectory="%D%" maxMessageSize="64k")
module(load="imuxsock" SysSock.Use="off")
input(type="imuxsock" Socket="%D%/log.sock" UseSpecialParser="off" ParseHostname="on")
module(load="imudp")
input(type="imudp" address="127.0.0.1" port="%PORT%")
module(load="imtcp")
input(type="imtcp" address="127.0.0.1" port="%PORT%")
template(name="fields" type="string"
         string="%syslogfacility-text% %syslogseverity-text% %app-name% %msgid% %msg%\n")
action(type="omfile" file="%D%/out.log" template="fields")
)";

class Rsyslog {
public:
    explicit Rsyslog(const std::string& dir) : dir_(dir) {
        FileText::Write(
            dir_ + "/rsyslog.conf",
            Configure(kRsyslogConf, {{"%D%", dir_}, {"%PORT%", std::to_string(port_)}}));
    }

    bool Start() {
        ::unlink((dir_ + "/rsyslogd.pid").c_str());
        // Ready when the TCP input accepts and the socket exists (inputs open together).
        return process_.Start(
                   {kRsyslogd, "-n", "-f", dir_ + "/rsyslog.conf", "-i", dir_ + "/rsyslogd.pid"},
                   dir_ + "/rsyslogd.out") &&
               WaitUntil([&] { return Accepts(port_) && ::access(Socket().c_str(), F_OK) == 0; });
    }
    void Stop() { process_.Stop(); }

    std::string Socket() const { return dir_ + "/log.sock"; }
    std::string Target(Transport transport) const {
        return transport == Transport::kUnix  ? "unix:" + Socket()
               : transport == Transport::kUdp ? "udp:127.0.0.1:" + std::to_string(port_)
                                              : "tcp:127.0.0.1:" + std::to_string(port_);
    }
    // The lines written so far, whole ones only: rsyslog may be halfway through the last.
    Lines WholeLines() const {
        std::istringstream text(FileText::Read(dir_ + "/out.log"));
        Lines lines;
        for (std::string line; std::getline(text, line);) {
            if (!text.eof()) lines.push_back(line);
        }
        return lines;
    }

private:
    std::string dir_;
    int port_ = FreePort();  // for UDP and TCP alike
    ServerProcess process_;
};

std::unique_ptr<SyslogSink> MakeSyslogSink(const std::string& target) {
    SyslogSink::Endpoint endpoint;
    std::string error;
    EXPECT_TRUE(SyslogSink::ParseTarget(target, endpoint, error)) << error;
    return std::make_unique<SyslogSink>(target, endpoint, SyslogSink::FacilityCode("auth"), 2000);
}

// What rsyslog wrote for these documents: it parsed the header (facility, severity, app name
// and message id) and passed the document on unchanged.
Lines Written(const Lines& docs) {
    Lines lines;
    for (const auto& doc : docs) lines.push_back("auth warning tarnwick alarm " + doc);
    return lines;
}

class SyslogSinkTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (::access(kRsyslogd, X_OK) != 0) {
            GTEST_SKIP() << "rsyslogd is not installed (Debian package rsyslog)";
        }
        rsyslog_ = std::make_unique<Rsyslog>(tmp_.Path());
        ASSERT_TRUE(rsyslog_->Start()) << FileText::Read(tmp_.Path() + "/rsyslogd.out");
    }

    TestSupport::TempDir tmp_;
    std::unique_ptr<Rsyslog> rsyslog_;
};

TEST_F(SyslogSinkTest, EachAlarmIsOneRfc5424MessageCarryingTheDocumentUnchanged) {
    const Lines docs = {Doc(0), Doc(1, 4000), "{\"text\":\"a b \\\"q\\\"\"}"};
    Lines expected;
    for (const auto transport : {Transport::kUnix, Transport::kUdp, Transport::kTcp}) {
        const std::string target = rsyslog_->Target(transport);
        SCOPED_TRACE(target);
        const auto result = MakeSyslogSink(target)->Deliver(docs);
        EXPECT_EQ(result.delivered, docs.size()) << result.error;
        for (const auto& line : Written(docs)) expected.push_back(line);
        ASSERT_TRUE(WaitUntil([&] { return rsyslog_->WholeLines().size() >= expected.size(); }));
        EXPECT_EQ(rsyslog_->WholeLines(), expected);
    }
}

// Alarms sent while rsyslogd is away (its socket gone) arrive once it is back, in order. A TCP
// connection to a restarted rsyslogd is the end-to-end suite's syslog case.
TEST_F(SyslogSinkTest, AlarmsSentWhileTheUnixSocketIsGoneArriveOnceItIsBack) {
    const auto failed = [] {
        return Framework::Counters::Instance().Value("report.syslog.attempts_failed");
    };
    Report::SinkWorker worker(MakeSyslogSink(rsyslog_->Target(Transport::kUnix)),
                              ReportTest::OpenSpool(tmp_ / "spool"));
    worker.Start();
    const Lines sent = ReportTest::Docs(0, 30);
    for (int i = 0; i < 10; ++i) worker.Offer(sent[i]);
    ASSERT_TRUE(WaitUntil([&] { return rsyslog_->WholeLines().size() == 10; }));
    const uint64_t failedBefore = failed();
    rsyslog_->Stop();
    for (int i = 10; i < 30; ++i) worker.Offer(sent[i]);
    ASSERT_TRUE(WaitUntil([&] { return failed() >= failedBefore + 2; }));
    ASSERT_TRUE(rsyslog_->Start());
    ASSERT_TRUE(
        WaitUntil([&] { return rsyslog_->WholeLines().size() >= 30; }, std::chrono::seconds(30)));
    EXPECT_EQ(rsyslog_->WholeLines(), Written(sent));
}

TEST(SyslogTarget, OnlyWellFormedTargetsAreTaken) {
    SyslogSink::Endpoint endpoint;
    std::string error;
    EXPECT_TRUE(SyslogSink::ParseTarget("unix:/dev/log", endpoint, error));
    EXPECT_TRUE(SyslogSink::ParseTarget("tcp:[::1]:6514", endpoint, error));
    EXPECT_EQ(endpoint.transport, Transport::kTcp);
    for (const char* bad : {"/dev/log", "unix:dev/log", "udp:host", "tcp:host:0", "tcp:host:99999",
                            "tcp::514x", "smtp:host:25", ""}) {
        EXPECT_FALSE(SyslogSink::ParseTarget(bad, endpoint, error)) << bad;
    }
    EXPECT_EQ(SyslogSink::FacilityCode("local7"), 23);
    EXPECT_EQ(SyslogSink::FacilityCode("nope"), -1);
}

// POST /alarms is accepted and its body written to bodies.log (proxying to itself makes nginx
// read the body); /reject answers 400, /unavailable 503. With tls, it serves https with a
// self-signed certificate for 127.0.0.1.
const char* const kNginxConf = R"(daemon off; master_process off; worker_processes 1;
pid %D%/nginx.pid; error_log %D%/error.log;
events { worker_connections 64; }
http {
  client_body_temp_path %D%/body; proxy_temp_path %D%/proxy; fastcgi_temp_path %D%/fastcgi;
  uwsgi_temp_path %D%/uwsgi; scgi_temp_path %D%/scgi;
  access_log off;
  log_format body escape=none '$request_body';
  log_format request '$request_method $content_type $status';
  server {
    listen 127.0.0.1:%PORT% %SSL%;
    client_max_body_size 16m; client_body_buffer_size 16m; client_body_in_single_buffer on;
    %CERT%
    location = /alarms {
      access_log %D%/bodies.log body; access_log %D%/requests.log request;
      proxy_pass %URL%/accepted;
    }
    location = /accepted { return 200 "ok\n"; }
    location = /reject { return 400 "malformed\n"; }
    location = /unavailable { return 503 "busy\n"; }
  }
}
)";

class Nginx {
public:
    Nginx(const std::string& dir, bool tls) : dir_(dir), tls_(tls) {
        const std::string cert =
            "ssl_certificate " + Cert() + "; ssl_certificate_key " + dir_ + "/key.pem;";
        FileText::Write(dir_ + "/nginx.conf",
                        Configure(kNginxConf, {{"%D%", dir_},
                                               {"%PORT%", std::to_string(port_)},
                                               {"%SSL%", tls ? "ssl" : ""},
                                               {"%CERT%", tls ? cert : ""},
                                               {"%URL%", Url("")}}));
    }

    bool MakeCertificate() {
        return TestSupport::Shell::Run(
                   "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 "
                   "-addext subjectAltName=IP:127.0.0.1 -keyout " +
                   dir_ + "/key.pem -out " + Cert() + " >/dev/null 2>&1")
            .Ok();
    }
    bool Start() {
        return process_.Start(
                   {kNginx, "-p", dir_, "-c", dir_ + "/nginx.conf", "-e", dir_ + "/error.log"},
                   dir_ + "/nginx.out") &&
               WaitUntil([&] { return Accepts(port_); });
    }
    // The alarm lines received, in order (nginx ends each logged body with an empty line).
    Lines Received() const {
        Lines lines;
        for (auto& line : FileText::Lines(dir_ + "/bodies.log")) {
            if (!line.empty()) lines.push_back(line);
        }
        return lines;
    }

    std::string Url(const std::string& path) const {
        return (tls_ ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(port_) + path;
    }
    std::string Cert() const { return dir_ + "/cert.pem"; }
    Lines Requests() const { return FileText::Lines(dir_ + "/requests.log"); }
    std::string Log() const {
        return FileText::Read(dir_ + "/nginx.out") + FileText::Read(dir_ + "/error.log");
    }

private:
    std::string dir_;
    bool tls_;
    int port_ = FreePort();
    ServerProcess process_;
};

HttpSink::Settings SettingsFor(const std::string& url) {
    HttpSink::Settings settings;
    settings.url = url;
    settings.timeoutMs = 2000;
    return settings;
}

class HttpSinkTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (::access(kNginx, X_OK) != 0) GTEST_SKIP() << "nginx is not installed (Debian nginx)";
    }
    bool StartNginx(bool tls = false) {
        nginx_ = std::make_unique<Nginx>(tmp_.Path(), tls);
        return (!tls || nginx_->MakeCertificate()) && nginx_->Start();
    }

    TestSupport::TempDir tmp_;
    std::unique_ptr<Nginx> nginx_;
};

TEST_F(HttpSinkTest, ABatchIsOnePostOfJsonLinesAndOnlyARefusalIsFinal) {
    ASSERT_TRUE(StartNginx()) << nginx_->Log();
    const Lines docs = {Doc(0), Doc(1, 3000), Doc(2)};
    const auto result = HttpSink(SettingsFor(nginx_->Url("/alarms"))).Deliver(docs);
    EXPECT_EQ(result.delivered, docs.size()) << result.error;
    ASSERT_TRUE(WaitUntil([&] { return nginx_->Received().size() == docs.size(); }));
    EXPECT_EQ(nginx_->Received(), docs);
    EXPECT_EQ(nginx_->Requests(), Lines{"POST application/x-ndjson 200"});

    const auto refused = HttpSink(SettingsFor(nginx_->Url("/reject"))).Deliver({Doc(0), Doc(1)});
    EXPECT_EQ(refused.rejected, 2u);
    EXPECT_EQ(refused.delivered, 0u);
    EXPECT_NE(refused.error.find("400"), std::string::npos) << refused.error;
    // An overloaded collector is asked again later: nothing is given up.
    const auto later = HttpSink(SettingsFor(nginx_->Url("/unavailable"))).Deliver({Doc(0)});
    EXPECT_EQ(later.rejected + later.delivered, 0u);
    EXPECT_NE(later.error.find("503"), std::string::npos) << later.error;
}

TEST_F(HttpSinkTest, HttpsChecksTheCollectorsCertificate) {
    ASSERT_TRUE(StartNginx(true)) << nginx_->Log();
    HttpSink::Settings settings = SettingsFor(nginx_->Url("/alarms"));
    settings.caFile = nginx_->Cert();
    const auto trusted = HttpSink(settings).Deliver({Doc(0)});
    EXPECT_EQ(trusted.delivered, 1u) << trusted.error;
    settings.caFile.clear();  // the system's CAs do not know a self-signed certificate
    const auto refused = HttpSink(settings).Deliver({Doc(1)});
    EXPECT_EQ(refused.delivered, 0u);
    EXPECT_FALSE(refused.error.empty());
    ASSERT_TRUE(WaitUntil([&] { return !nginx_->Received().empty(); }));
    EXPECT_EQ(nginx_->Received(), Lines{Doc(0)});
}

TEST(HttpSinkTimeout, ACollectorThatNeverAnswersCostsOneTimeoutNotAHang) {
    // Listening, never served: the connection opens, no answer ever comes.
    const Poco::Net::ServerSocket silent(Poco::Net::SocketAddress("127.0.0.1", 0));
    HttpSink::Settings settings =
        SettingsFor("http://127.0.0.1:" + std::to_string(silent.address().port()) + "/alarms");
    settings.timeoutMs = 300;
    const auto start = std::chrono::steady_clock::now();
    const auto result = HttpSink(settings).Deliver({Doc(0)});
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(result.delivered, 0u);
    EXPECT_FALSE(result.error.empty());
}

TEST(HttpSinkUrl, OnlyHttpAndHttpsUrlsWithAHostAreTaken) {
    std::string error;
    EXPECT_TRUE(HttpSink::Validate("http://collector:8080/alarms", error));
    EXPECT_TRUE(HttpSink::Validate("https://collector/alarms", error));
    for (const char* bad :
         {"", "collector:8080", "ftp://collector/", "http:///alarms", "http://[::1"}) {
        EXPECT_FALSE(HttpSink::Validate(bad, error)) << bad;
    }
}

}  // namespace
