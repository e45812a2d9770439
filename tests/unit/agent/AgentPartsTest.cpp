// The agent's own parts: its log file, the policy directory, the modules' loader and the
// metrics text. The log's records are gathered and written in batches, never out of order, never
// held back past a short delay, written to the file they were logged for, and formatted as they
// always were.
#include <Poco/AutoPtr.h>
#include <Poco/FileChannel.h>
#include <Poco/Message.h>
#include <Poco/PatternFormatter.h>
#include <Poco/Timestamp.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "agent/AgentMetrics.h"
#include "agent/LogLineFormatter.h"
#include "agent/ModuleLoader.h"
#include "agent/PolicyDirectory.h"
#include "agent/PrometheusText.h"
#include "agent/ReopenableFileChannel.h"
#include "support/Deadline.h"
#include "support/FileText.h"
#include "support/TempDir.h"

namespace {

using Agent::AgentMetrics;
using Agent::PolicyDirectory;
using TestSupport::FileText;
using TestSupport::WaitUntil;

TEST(ReopenableFileChannelTest, GatheredRecordsReachTheFileByThemselvesANoticeAtOnceAndAReopen) {
    TestSupport::TempDir tmp;
    const std::string path = tmp / "agent.log";
    Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel(path));
    file->setProperty("flush", "true");
    Poco::AutoPtr<Agent::ReopenableFileChannel> channel(new Agent::ReopenableFileChannel(file));
    channel->open();
    const auto log = [&](const std::string& text, Poco::Message::Priority prio) {
        channel->log(Poco::Message("test", text, prio));
    };
    std::vector<std::string> expected = {"first", "second", "stopping"};
    log("first", Poco::Message::PRIO_DEBUG);
    log("second", Poco::Message::PRIO_INFORMATION);
    log("stopping", Poco::Message::PRIO_NOTICE);
    // No wait: the notice and everything gathered before it are in the file when log() returns.
    EXPECT_EQ(FileText::Lines(path), expected);
    log("later", Poco::Message::PRIO_INFORMATION);
    expected.push_back("later");
    ASSERT_TRUE(WaitUntil([&] { return FileText::Lines(path) == expected; }));
    // Gathered before a reopen: they stay with the old file.
    log("before rotation", Poco::Message::PRIO_INFORMATION);
    ASSERT_EQ(::rename(path.c_str(), (path + ".1").c_str()), 0);
    std::string error;
    ASSERT_TRUE(channel->Reopen(error)) << error;
    log("after rotation", Poco::Message::PRIO_WARNING);
    expected.push_back("before rotation");
    EXPECT_EQ(FileText::Lines(path + ".1"), expected);
    EXPECT_EQ(FileText::Lines(path), std::vector<std::string>{"after rotation"});
}

TEST(LogLineFormatter, WritesWhatThePatternFormatterWrote) {
    Poco::AutoPtr<Poco::PatternFormatter> pattern(
        new Poco::PatternFormatter("%Y-%m-%d %H:%M:%S.%i [%p] %s %U:%u: %t"));
    Poco::AutoPtr<Agent::LogLineFormatter> lines(new Agent::LogLineFormatter());
    const Poco::Timestamp::TimeVal times[] = {0, 1700000000123456, 1700000000999999,
                                              1700000001000000, 4102444799999000};
    for (const auto micros : times) {
        for (int prio = Poco::Message::PRIO_FATAL; prio <= Poco::Message::PRIO_TRACE; ++prio) {
            for (const bool located : {true, false}) {  // with the logging source line or not
                Poco::Message msg("dockerfile_module", "Docker file text: 100%",
                                  static_cast<Poco::Message::Priority>(prio));
                if (located) msg.setSourceFile("UserFileMonitor.cpp");
                if (located) msg.setSourceLine(142);
                msg.setTime(Poco::Timestamp(micros));
                std::string expected, got;
                pattern->format(msg, expected);
                lines->format(msg, got);
                EXPECT_EQ(got, expected);
            }
        }
    }
}

class PolicyDirectoryTest : public ::testing::Test {
protected:
    // Written aside and renamed, as an operator's tooling would, with an mtime `ahead` seconds
    // from now, so that a rewrite within the same second still looks changed.
    void Write(const std::string& name, const std::string& text, int ahead = 0) {
        ASSERT_TRUE(FileText::Write(tmp_ / ("." + name + ".tmp"), text));
        ASSERT_EQ(std::rename((tmp_ / ("." + name + ".tmp")).c_str(), (tmp_ / name).c_str()), 0);
        const struct timespec times[2] = {{0, UTIME_NOW}, {time(nullptr) + ahead, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, (tmp_ / name).c_str(), times, 0), 0);
    }
    TestSupport::TempDir tmp_{"tarnwick-policy"};
    PolicyDirectory policies_{tmp_.Path()};
    std::vector<PolicyDirectory::Problem> problems_;
};

// The key is the file name without .json; a file being written aside is no policy.
TEST_F(PolicyDirectoryTest, ReportsNewAndChangedDocumentsOnceEvenEmptyOnes) {
    for (const char* notPolicy : {".json", "10001.json.tmp", ".10001.json", "README"}) {
        EXPECT_EQ(PolicyDirectory::KeyOf(notPolicy), "") << notPolicy;
    }
    Write("10001.json", "{\"a\":1}");
    Write("20002.json", "");
    Write("notes.txt", "ignored");
    auto changes = policies_.Scan(problems_);
    ASSERT_EQ(changes.size(), 2u);
    EXPECT_EQ(changes[0].key, "10001");
    EXPECT_EQ(changes[0].document, "{\"a\":1}");
    EXPECT_EQ(changes[1].key, "20002");
    EXPECT_TRUE(policies_.Scan(problems_).empty());

    Write("10001.json", "{\"a\":1}", 5);  // the same content again: not a new policy
    EXPECT_TRUE(policies_.Scan(problems_).empty());
    Write("10001.json", "{\"a\":2}", 10);
    changes = policies_.Scan(problems_);
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].document, "{\"a\":2}");
    EXPECT_TRUE(problems_.empty());
}

TEST_F(PolicyDirectoryTest, OversizedDocumentIsAProblemAndAMissingDirectoryNothing) {
    const std::string path = tmp_.File("10001.json", "{}");
    ASSERT_EQ(truncate(path.c_str(), PolicyDirectory::kMaxDocumentBytes + 1), 0);
    EXPECT_TRUE(policies_.Scan(problems_).empty());
    ASSERT_EQ(problems_.size(), 1u);
    EXPECT_EQ(problems_[0].path, path);
    problems_.clear();
    EXPECT_TRUE(PolicyDirectory(tmp_ / "nope").Scan(problems_).empty());
    EXPECT_TRUE(problems_.empty());
}

// Services first in their order, then feature modules by name; libraries that are not modules
// refused with the reason; init in that order, uninit in reverse.
TEST(ModuleLoaderTest, ListsServicesFirstRefusesNonModulesInitsInOrderAndUnInitsInReverse) {
    TestSupport::TempDir tmp{"tarnwick-loader"};
    ::setenv("TARNWICK_TEST_MODULE_LOG", (tmp / "events.log").c_str(), 1);
    const auto files = Agent::ModuleLoader::ListModuleFiles(TEST_MODULE_DIR);
    std::vector<std::string> names, errors;
    for (const auto& f : files) names.push_back(f.substr(f.find_last_of('/') + 1));
    EXPECT_EQ(names, (std::vector<std::string>{"libdata_comm_module.so", "libcontainer_module.so",
                                               "libalpha_feature_module.so", "libnoentry_module.so",
                                               "libnull_module.so"}));
    {
        Agent::ModuleLoader loader;
        std::string error;
        for (const auto& file : files) {
            if (!loader.LoadOne(file, error)) errors.push_back(error);
        }
        // dlopen's own reason follows.
        if (!loader.LoadOne(tmp / "libmissing.so", error)) errors.push_back(error.substr(0, 12));
        ASSERT_EQ(loader.Modules().size(), 3u);
        loader.InitAll();
        // A policy for a key nobody registered is taken by no module.
        EXPECT_EQ(loader.DeliverPolicy("10001", "dockerfile_feature", "{}"), 0);
        loader.UnInitAll();  // uninit twice (here and in the destructor) would show below
    }
    ::unsetenv("TARNWICK_TEST_MODULE_LOG");
    EXPECT_EQ(errors,
              (std::vector<std::string>{"no CreateModule entry point",
                                        "CreateModule returned no module", "cannot load:"}));
    EXPECT_EQ(
        FileText::Lines(tmp / "events.log"),
        (std::vector<std::string>{"data_comm:init", "container:init", "alpha_feature:init",
                                  "alpha_feature:uninit", "container:uninit", "data_comm:uninit"}));
}

// Names made valid (a metric's may hold ':', a label's may not), families in order, help texts
// and label values escaped, empty families left out.
TEST(PrometheusTextTest, FamiliesRenderInOrderWithValidNamesEscapedAndEmptyOnesAreLeftOut) {
    const std::string text = Agent::PrometheusText::Render({
        {"9b.gauge", "B", "gauge", {{{}, -2}}},
        {"nothing", "N", "gauge", {}},
        {"ns:a-total", "A", "counter", {{{{"z", "1"}, {"a:b", "2"}}, 5}, {{{"z", "2"}}, 6}}},
        {"", "two\nlines \\ \"q\"", "counter", {{{{"t\xc3\xa9sk", "evil\\\"}\n# x"}}, 3}}},
    });
    EXPECT_EQ(text,
              "# HELP _9b_gauge B\n# TYPE _9b_gauge gauge\n_9b_gauge -2\n"
              "# HELP ns:a_total A\n# TYPE ns:a_total counter\n"
              "ns:a_total{a_b=\"2\",z=\"1\"} 5\nns:a_total{z=\"2\"} 6\n"
              "# HELP _ two\\nlines \\\\ \"q\"\n# TYPE _ counter\n"
              "_{t__sk=\"evil\\\\\\\"}\\n# x\"} 3\n");
}

// Per-task and per-output counters become one family with a label each; a level kept among the
// counters (spooled bytes) is a gauge. Gauges, the protected containers, the per-class family
// and each family appearing once (promtool) are read off a running agent by the end-to-end
// metrics case.
TEST(AgentMetricsTest, ScrapeHoldsEveryCounterOnceLabelledByTaskOrOutput) {
    AgentMetrics::Inputs in;
    in.counters = {{"framework.send.queue_full.audit_task", 2},
                   {"framework.send.queue_full.", 8},  // a prefix with nothing after it: plain
                   {"report.file.spooled_bytes", 120},
                   {"report.syslog.spool.overflow", 5},
                   {"report.alarms.written", 6}};  // not an output: plain
    in.queueDepths = {{"audit_task", 0}, {"filenotify_task", 9}};
    const std::string text = Agent::PrometheusText::Render(AgentMetrics::Families(in));
    for (const char* line : {
             "tarnwick_task_queue_depth{task=\"filenotify_task\"} 9",
             "# TYPE tarnwick_report_spooled_bytes gauge",
             "tarnwick_report_spooled_bytes{output=\"file\"} 120",
             "tarnwick_report_spool_overflow_total{output=\"syslog\"} 5",
             "tarnwick_report_alarms_written_total 6",
             "tarnwick_framework_send_queue_full_total{task=\"audit_task\"} 2",
         }) {
        EXPECT_NE(text.find(std::string(line) + "\n"), std::string::npos) << line << "\n" << text;
    }
    EXPECT_EQ(text.find("task=\"\""), std::string::npos) << text;
}

}  // namespace
