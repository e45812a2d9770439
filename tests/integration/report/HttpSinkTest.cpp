#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "ServerProcess.h"
#include "TestFiles.h"
#include "framework/Counters.h"
#include "report/HttpSink.h"
#include "report/SinkWorker.h"
#include "support/Deadline.h"
#include "support/FileText.h"
#include "support/Shell.h"
#include "support/TempDir.h"

namespace {

using Report::HttpSink;
using ReportTest::Doc;
using TestSupport::FileText;
using TestSupport::WaitUntil;

constexpr const char* kNginx = "/usr/sbin/nginx";

// A private nginx on a free port. POST /alarms is accepted and its body written to bodies.log
// (proxying to itself makes nginx read the body); /reject answers 400, /unavailable 503.
// With tls, it serves https with a self-signed certificate for 127.0.0.1.
class Nginx {
public:
    Nginx(const std::string& dir, bool tls) : dir_(dir), tls_(tls) {
        port_ = ReportTest::FreePort();
        const std::string listen = "127.0.0.1:" + std::to_string(port_) + (tls ? " ssl" : "");
        std::ofstream conf(dir_ + "/nginx.conf");
        conf << "daemon off; master_process off; worker_processes 1;\n"
             << "pid " << dir_ << "/nginx.pid;\nerror_log " << dir_ << "/error.log;\n"
             << "events { worker_connections 64; }\nhttp {\n";
        for (const char* temp : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
            conf << "  " << temp << "_temp_path " << dir_ << "/" << temp << ";\n";
        }
        conf << "  access_log off;\n"
             << "  log_format body escape=none '$request_body';\n"
             << "  log_format request '$request_method $content_type $status';\n"
             << "  server {\n    listen " << listen << ";\n"
             << "    client_max_body_size 16m; client_body_buffer_size 16m;\n"
             << "    client_body_in_single_buffer on;\n";
        if (tls) {
            conf << "    ssl_certificate " << Cert() << "; ssl_certificate_key " << dir_
                 << "/key.pem;\n";
        }
        conf << "    location = /alarms {\n"
             << "      access_log " << dir_ << "/bodies.log body;\n"
             << "      access_log " << dir_ << "/requests.log request;\n"
             << "      proxy_pass " << (tls ? "https" : "http") << "://127.0.0.1:" << port_
             << "/accepted;\n    }\n"
             << "    location = /accepted { return 200 \"ok\\n\"; }\n"
             << "    location = /reject { return 400 \"malformed\\n\"; }\n"
             << "    location = /unavailable { return 503 \"busy\\n\"; }\n  }\n}\n";
    }

    bool MakeCertificate() {
        const std::string cmd =
            "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj "
            "/CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 -keyout " +
            dir_ + "/key.pem -out " + Cert() + " >/dev/null 2>&1";
        return TestSupport::Shell::Run(cmd).Ok();
    }
    bool Start() {
        if (!process_.Start(
                {kNginx, "-p", dir_, "-c", dir_ + "/nginx.conf", "-e", dir_ + "/error.log"},
                dir_ + "/nginx.out")) {
            return false;
        }
        return WaitUntil([&] { return ReportTest::Accepts(port_); });
    }
    void Stop() { process_.Stop(); }

    std::string Url(const std::string& path) const {
        return std::string(tls_ ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_) +
               path;
    }
    std::string Cert() const { return dir_ + "/cert.pem"; }
    // The alarm lines received, in order (nginx ends each logged body with an empty line).
    std::vector<std::string> Received() const {
        std::vector<std::string> lines;
        for (auto& line : FileText::Lines(dir_ + "/bodies.log")) {
            if (!line.empty()) lines.push_back(line);
        }
        return lines;
    }
    std::vector<std::string> Requests() const { return FileText::Lines(dir_ + "/requests.log"); }
    std::string Log() const {
        return FileText::Read(dir_ + "/nginx.out") + FileText::Read(dir_ + "/error.log");
    }

private:
    std::string dir_;
    bool tls_;
    int port_ = -1;
    ReportTest::ServerProcess process_;
};

HttpSink::Settings SettingsFor(const std::string& url) {
    HttpSink::Settings settings;
    settings.url = url;
    settings.timeoutMs = 2000;
    settings.maxBackoffMs = 500;
    return settings;
}

class HttpSinkTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (::access(kNginx, X_OK) != 0) GTEST_SKIP() << "nginx is not installed (Debian nginx)";
    }
    bool StartNginx(bool tls = false) {
        nginx_.reset(new Nginx(tmp_.Path(), tls));
        if (tls && !nginx_->MakeCertificate()) return false;
        return nginx_->Start();
    }

    TestSupport::TempDir tmp_;
    std::unique_ptr<Nginx> nginx_;
};

TEST_F(HttpSinkTest, ABatchIsOnePostOfJsonLines) {
    ASSERT_TRUE(StartNginx()) << nginx_->Log();
    HttpSink sink(SettingsFor(nginx_->Url("/alarms")));
    const std::vector<std::string> docs = {Doc(0), Doc(1, 3000), Doc(2)};
    const auto result = sink.Deliver(docs);
    EXPECT_EQ(result.delivered, docs.size()) << result.error;
    ASSERT_TRUE(WaitUntil([&] { return nginx_->Received().size() == docs.size(); }));
    EXPECT_EQ(nginx_->Received(), docs);
    EXPECT_EQ(nginx_->Requests(), std::vector<std::string>{"POST application/x-ndjson 200"});
}

TEST_F(HttpSinkTest, ARefusalIsFinalButAnOverloadedCollectorIsAskedAgain) {
    ASSERT_TRUE(StartNginx()) << nginx_->Log();
    HttpSink refusing(SettingsFor(nginx_->Url("/reject")));
    const auto refused = refusing.Deliver({Doc(0), Doc(1)});
    EXPECT_EQ(refused.rejected, 2u);
    EXPECT_EQ(refused.delivered, 0u);
    EXPECT_NE(refused.error.find("400"), std::string::npos) << refused.error;

    HttpSink busy(SettingsFor(nginx_->Url("/unavailable")));
    const auto later = busy.Deliver({Doc(0)});
    EXPECT_EQ(later.rejected + later.delivered, 0u);
    EXPECT_NE(later.error.find("503"), std::string::npos) << later.error;
}

TEST_F(HttpSinkTest, AlarmsRaisedWhileTheCollectorIsDownArriveOnceInOrderAfterItReturns) {
    ASSERT_TRUE(StartNginx()) << nginx_->Log();
    auto spool = std::make_unique<Report::Spool>(tmp_.Path() + "/spool", 1 << 20);
    std::string error;
    ASSERT_TRUE(spool->Open(error)) << error;
    Report::SinkWorker worker(std::make_unique<HttpSink>(SettingsFor(nginx_->Url("/alarms"))),
                              std::move(spool));
    worker.Start();
    std::vector<std::string> sent;
    for (int i = 0; i < 10; ++i) {
        sent.push_back(Doc(i));
        worker.Offer(sent.back());
    }
    ASSERT_TRUE(WaitUntil([&] { return nginx_->Received().size() == 10; }));

    const auto failedCount = [] {
        return Framework::Counters::Instance().Value("report.http.attempts_failed");
    };
    const uint64_t failed = failedCount();
    nginx_->Stop();
    for (int i = 10; i < 40; ++i) {
        sent.push_back(Doc(i));
        worker.Offer(sent.back());
    }
    ASSERT_TRUE(WaitUntil([&] { return failedCount() >= failed + 2; }));
    ASSERT_TRUE(nginx_->Start()) << nginx_->Log();
    ASSERT_TRUE(
        WaitUntil([&] { return nginx_->Received().size() >= 40; }, std::chrono::seconds(20)));
    EXPECT_EQ(nginx_->Received(), sent);
}

TEST_F(HttpSinkTest, HttpsChecksTheCollectorsCertificate) {
    ASSERT_TRUE(StartNginx(true)) << nginx_->Log();
    HttpSink::Settings settings = SettingsFor(nginx_->Url("/alarms"));
    settings.caFile = nginx_->Cert();
    HttpSink trusting(settings);
    const auto result = trusting.Deliver({Doc(0)});
    EXPECT_EQ(result.delivered, 1u) << result.error;

    settings.caFile.clear();  // the system's CAs do not know a self-signed certificate
    HttpSink doubting(settings);
    const auto refused = doubting.Deliver({Doc(1)});
    EXPECT_EQ(refused.delivered, 0u);
    EXPECT_FALSE(refused.error.empty());
    ASSERT_TRUE(WaitUntil([&] { return !nginx_->Received().empty(); }));
    EXPECT_EQ(nginx_->Received(), std::vector<std::string>{Doc(0)});
}

TEST(HttpSinkTimeout, ACollectorThatNeverAnswersCostsOneTimeoutNotAHang) {
    // A listening socket that is never served: the connection opens, no answer ever comes.
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    ASSERT_EQ(::listen(fd, 4), 0);
    ASSERT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len), 0);
    HttpSink::Settings settings =
        SettingsFor("http://127.0.0.1:" + std::to_string(ntohs(addr.sin_port)) + "/alarms");
    settings.timeoutMs = 300;
    HttpSink sink(settings);
    const auto start = std::chrono::steady_clock::now();
    const auto result = sink.Deliver({Doc(0)});
    const auto took = std::chrono::steady_clock::now() - start;
    ::close(fd);
    EXPECT_EQ(result.delivered, 0u);
    EXPECT_FALSE(result.error.empty());
    EXPECT_LT(took, std::chrono::seconds(2));
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
