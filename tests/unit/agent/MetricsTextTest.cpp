#include <gtest/gtest.h>

#include <string>

#include "agent/AgentMetrics.h"
#include "agent/PrometheusText.h"
#include "framework/Gauges.h"

using Agent::AgentMetrics;
using Agent::PrometheusText;

namespace {
std::string RenderInputs(const AgentMetrics::Inputs& in) {
    return PrometheusText::Render(AgentMetrics::Families(in));
}

bool Has(const std::string& text, const std::string& line) {
    return text.find(line + "\n") != std::string::npos;
}
}  // namespace

TEST(PrometheusTextTest, NamesAreMadeValid) {
    EXPECT_EQ(PrometheusText::SafeName("tarnwick_a.b-c"), "tarnwick_a_b_c");
    EXPECT_EQ(PrometheusText::SafeName("9lives"), "_9lives");
    EXPECT_EQ(PrometheusText::SafeName(""), "_");
    EXPECT_EQ(PrometheusText::SafeName("ns:sub_total"), "ns:sub_total");
    EXPECT_EQ(PrometheusText::SafeName("caf\xc3\xa9"), "caf__");
}

TEST(PrometheusTextTest, LabelValuesAndHelpAreEscaped) {
    EXPECT_EQ(PrometheusText::EscapeLabelValue("a\\b\"c\nd"), "a\\\\b\\\"c\\nd");
    EXPECT_EQ(PrometheusText::EscapeHelp("a\\b\"c\nd"), "a\\\\b\"c\\nd");
    PrometheusText::Family family{"x", "two\nlines", "counter", {{{{"task", "evil\"}\n# x"}}, 3}}};
    const std::string text = PrometheusText::Render({family});
    EXPECT_EQ(text,
              "# HELP x two\\nlines\n"
              "# TYPE x counter\n"
              "x{task=\"evil\\\"}\\n# x\"} 3\n");
}

TEST(PrometheusTextTest, FamiliesRenderInOrderAndEmptyOnesAreLeftOut) {
    PrometheusText::Family a{"b_gauge", "B", "gauge", {{{}, -2}}};
    PrometheusText::Family empty{"nothing", "N", "gauge", {}};
    PrometheusText::Family c{
        "a_total", "A", "counter", {{{{"z", "1"}, {"a:b", "2"}}, 5}, {{{"z", "2"}}, 6}}};
    const std::string text = PrometheusText::Render({a, empty, c});
    EXPECT_EQ(text,
              "# HELP b_gauge B\n# TYPE b_gauge gauge\nb_gauge -2\n"
              "# HELP a_total A\n# TYPE a_total counter\n"
              "a_total{a_b=\"2\",z=\"1\"} 5\na_total{z=\"2\"} 6\n");
}

TEST(AgentMetricsTest, PerTaskPerOutputAndPerClassCountersBecomeLabels) {
    auto place = AgentMetrics::PlaceCounter("framework.send.queue_full.audit_task");
    EXPECT_EQ(place.family, "framework.send.queue_full");
    EXPECT_EQ(place.labels.at("task"), "audit_task");
    place = AgentMetrics::PlaceCounter("report.syslog.spool.overflow");
    EXPECT_EQ(place.family, "report.spool.overflow");
    EXPECT_EQ(place.labels.at("output"), "syslog");
    EXPECT_FALSE(place.gauge);
    place = AgentMetrics::PlaceCounter("report.http.spooled_bytes");
    EXPECT_EQ(place.family, "report.spooled_bytes");
    EXPECT_TRUE(place.gauge);
    place = AgentMetrics::PlaceCounter("report.alarms.class.dockerfile_002");
    EXPECT_EQ(place.labels.at("class"), "dockerfile_002");
    // Not an output, and a prefix with nothing after it: plain counters.
    place = AgentMetrics::PlaceCounter("report.alarms.written");
    EXPECT_EQ(place.family, "report.alarms.written");
    EXPECT_TRUE(place.labels.empty());
    place = AgentMetrics::PlaceCounter("framework.send.queue_full.");
    EXPECT_TRUE(place.labels.empty());
}

TEST(AgentMetricsTest, ScrapeHoldsEveryCounterAndGaugeOnce) {
    AgentMetrics::Inputs in;
    in.counters = {{"framework.send.queue_full.audit_task", 2},
                   {"framework.send.queue_full.filenotify_task", 1},
                   {"report.file.spooled_bytes", 120},
                   {"report.alarms.class.dockerfile_001", 4},
                   {"audit.lost", 7}};
    in.gauges = {{Framework::GaugeNames::kEngineConnected, 1},
                 {Framework::GaugeNames::kWatchesArmed, 3}};
    in.protectedContainers = 1;
    in.queueDepths = {{"audit_task", 0}, {"weird \"name\"", 9}};
    const std::string text = RenderInputs(in);
    EXPECT_TRUE(Has(text, "tarnwick_protected_containers 1"));
    EXPECT_TRUE(Has(text, "tarnwick_container_engine_connected 1"));
    EXPECT_TRUE(Has(text, "tarnwick_filenotify_watches_armed 3"));
    EXPECT_TRUE(Has(text, "tarnwick_task_queue_depth{task=\"weird \\\"name\\\"\"} 9"));
    EXPECT_TRUE(Has(text, "# TYPE tarnwick_report_spooled_bytes gauge"));
    EXPECT_TRUE(Has(text, "tarnwick_report_spooled_bytes{output=\"file\"} 120"));
    EXPECT_TRUE(Has(text, "tarnwick_report_alarms_class_total{class=\"dockerfile_001\"} 4"));
    EXPECT_TRUE(Has(text, "tarnwick_audit_lost_total 7"));
    // Two tasks' counters share one family: one HELP, one TYPE.
    const std::string type = "# TYPE tarnwick_framework_send_queue_full_total counter";
    EXPECT_EQ(text.find(type), text.rfind(type));
    EXPECT_TRUE(Has(text, "tarnwick_framework_send_queue_full_total{task=\"audit_task\"} 2"));
    EXPECT_TRUE(Has(text, "tarnwick_framework_send_queue_full_total{task=\"filenotify_task\"} 1"));
}

TEST(AgentMetricsTest, HealthNamesEachReasonAndIgnoresServicesNotLoaded) {
    AgentMetrics::Inputs in;
    EXPECT_TRUE(AgentMetrics::HealthProblems(in).empty());
    in.gauges = {{Framework::GaugeNames::kEngineConnected, 1},
                 {Framework::GaugeNames::kAuditAvailable, 1},
                 {Framework::GaugeNames::kWatchesRequested, 4},
                 {Framework::GaugeNames::kWatchesFailed, 0}};
    EXPECT_TRUE(AgentMetrics::HealthProblems(in).empty());
    in.gauges[Framework::GaugeNames::kEngineConnected] = 0;
    in.gauges[Framework::GaugeNames::kAuditAvailable] = 0;
    in.gauges[Framework::GaugeNames::kWatchesFailed] = 1;
    const auto problems = AgentMetrics::HealthProblems(in);
    ASSERT_EQ(problems.size(), 3u);
    EXPECT_EQ(problems[0], "engine unreachable");
    EXPECT_EQ(problems[1], "audit unavailable");
    EXPECT_EQ(problems[2], "watch coverage partial (1 of 4 paths unwatched)");
}

TEST(GaugesTest, ProtectedContainersAreCountedOnceAcrossServices) {
    auto& gauges = Framework::Gauges::Instance();
    const std::string full(64, 'a');
    gauges.SetContainers("one", {full, std::string(64, 'b')});
    gauges.SetContainers("two", {full.substr(0, 12), std::string(64, 'c')});
    EXPECT_EQ(gauges.ProtectedContainers(), 3u);
    gauges.SetContainers("one", {});
    EXPECT_EQ(gauges.ProtectedContainers(), 2u);
    gauges.SetContainers("two", {});
    EXPECT_EQ(gauges.ProtectedContainers(), 0u);
}
