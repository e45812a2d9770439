#include <gtest/gtest.h>

#include <string>

#include "agent/AgentMetrics.h"
#include "agent/PrometheusText.h"

using Agent::AgentMetrics;
using Agent::PrometheusText;

TEST(PrometheusTextTest, NamesAreMadeValid) {
    EXPECT_EQ(PrometheusText::SafeName("tarnwick_a.b-c"), "tarnwick_a_b_c");
    EXPECT_EQ(PrometheusText::SafeName("9lives"), "_9lives");
    EXPECT_EQ(PrometheusText::SafeName(""), "_");
    EXPECT_EQ(PrometheusText::SafeName("ns:sub_total"), "ns:sub_total");
    EXPECT_EQ(PrometheusText::SafeName("caf\xc3\xa9"), "caf__");
}

TEST(PrometheusTextTest, FamiliesRenderInOrderEscapedAndEmptyOnesAreLeftOut) {
    const std::string text = PrometheusText::Render({
        {"b_gauge", "B", "gauge", {{{}, -2}}},
        {"nothing", "N", "gauge", {}},
        {"a_total", "A", "counter", {{{{"z", "1"}, {"a:b", "2"}}, 5}, {{{"z", "2"}}, 6}}},
        {"x", "two\nlines \\ \"q\"", "counter", {{{{"task", "evil\\\"}\n# x"}}, 3}}},
    });
    EXPECT_EQ(text,
              "# HELP b_gauge B\n# TYPE b_gauge gauge\nb_gauge -2\n"
              "# HELP a_total A\n# TYPE a_total counter\n"
              "a_total{a_b=\"2\",z=\"1\"} 5\na_total{z=\"2\"} 6\n"
              "# HELP x two\\nlines \\\\ \"q\"\n# TYPE x counter\n"
              "x{task=\"evil\\\\\\\"}\\n# x\"} 3\n");
}

// Per-task and per-output counters become one family with a label each; a level kept among the
// counters (spooled bytes) is a gauge; everything appears once. Gauges, the protected containers
// and the per-class family are read off a running agent by the end-to-end metrics case.
TEST(AgentMetricsTest, ScrapeHoldsEveryCounterOnceLabelledByTaskOrOutput) {
    AgentMetrics::Inputs in;
    in.counters = {{"framework.send.queue_full.audit_task", 2},
                   {"framework.send.queue_full.filenotify_task", 1},
                   {"framework.send.queue_full.", 8},  // a prefix with nothing after it: plain
                   {"report.file.spooled_bytes", 120},
                   {"report.syslog.spool.overflow", 5},
                   {"report.alarms.written", 6},  // not an output: plain
                   {"audit.lost", 7}};
    in.queueDepths = {{"audit_task", 0}, {"weird \"name\"", 9}};
    const std::string text = PrometheusText::Render(AgentMetrics::Families(in));
    for (const char* line : {
             "tarnwick_task_queue_depth{task=\"weird \\\"name\\\"\"} 9",
             "# TYPE tarnwick_report_spooled_bytes gauge",
             "tarnwick_report_spooled_bytes{output=\"file\"} 120",
             "# TYPE tarnwick_report_spool_overflow_total counter",
             "tarnwick_report_spool_overflow_total{output=\"syslog\"} 5",
             "tarnwick_report_alarms_written_total 6",
             "tarnwick_audit_lost_total 7",
             "tarnwick_framework_send_queue_full_total{task=\"audit_task\"} 2",
             "tarnwick_framework_send_queue_full_total{task=\"filenotify_task\"} 1",
         }) {
        EXPECT_NE(text.find(std::string(line) + "\n"), std::string::npos) << line << "\n" << text;
    }
    // Two tasks' counters share one family: one HELP, one TYPE.
    const std::string type = "# TYPE tarnwick_framework_send_queue_full_total counter";
    EXPECT_EQ(text.find(type), text.rfind(type));
    EXPECT_EQ(text.find("task=\"\""), std::string::npos) << text;
}
