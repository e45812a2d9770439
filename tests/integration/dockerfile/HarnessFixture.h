#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "ModuleHarness.h"
#include "container/ContainerRegisterMessage.h"
#include "filenotify/FileNotifyWatchMessage.h"
#include "framework/DataMessage.h"
#include "process_collect/AuditFileSystemCtrlMessage.h"
#include "process_collect/AuditUnsubscribeMessage.h"

namespace DockerFileHarness {

/// Options block in its default state apart from the extra parameter.
inline bool DefaultOptions(const Engine::_FileNotifyOpt& o) {
    return !o.recursive && !o.onlyDir && !o.dontFollow && !o.exclUnlink && !o.oneShot &&
           !o.reportSelfOnly && o.followPath && !o.reserved && o.ignoreMasks.empty() &&
           o.includeNames.empty() && o.excludeNames.empty() && !o.coalesce && o.maxEvents == 0 &&
           !o.debug;
}

/// One message the module sent, as text: the request with every member it carries ("opts!"
/// when the options block is not the default, "!sender" when the module task is not the sender).
inline std::string Describe(const Recorded& r, const Framework::Task* task) {
    std::ostringstream out;
    out << "to " << r.task << ": ";
    if (auto* w = dynamic_cast<Engine::FileNotifyWatchMessage*>(r.msg.get())) {
        out << (w->add ? "add " : "remove ") << w->path;
        if (!w->masks.empty()) out << " masks";
        for (unsigned int m : w->masks) out << " " << std::hex << m << std::dec;
        if (w->add) out << " ext " << w->options.extParm;
        if (!DefaultOptions(w->options)) out << " opts!";
        if (w->sender != task) out << " !sender";
    } else if (auto* a = dynamic_cast<Engine::AuditFileSystemCtrlMessage*>(r.msg.get())) {
        out << a->ruleOption << " " << a->ruleKey << " " << a->ruleArgument;
        if (a->flag || !a->text.empty() || a->number != 0 || a->notifyOpt.extParm != 0 ||
            !DefaultOptions(a->notifyOpt))
            out << " opts!";
        if (a->sender != task) out << " !sender";
    } else if (auto* c = dynamic_cast<Engine::ContainerRegisterMessage*>(r.msg.get())) {
        out << (c->subscribe ? "subscribe" : "unsubscribe") << (c->option ? " option" : "");
        if (c->task != task) out << " !task";
    } else if (auto* u = dynamic_cast<Engine::AuditUnsubscribeMessage*>(r.msg.get())) {
        out << "unsubscribe" << (u->task != task ? " !task" : "");
    } else if (auto* d = dynamic_cast<Framework::DataMessage*>(r.msg.get())) {
        out << "alarm type " << d->GetType();
    } else {
        out << r.msg->TypeName();
    }
    return out.str();
}

/// Base fixture: clean capture, the module loaded and initialised next to the recording
/// neighbours; everything stopped again afterwards.
class ModuleFixture : public ::testing::Test {
protected:
    void SetUp() override {
        Logs().Clear();
        Sent().Clear();
        std::string error;
        ASSERT_TRUE(harness.Start(error)) << error << " (" << ModuleLibraryPath() << ")";
        task = harness.ModuleTask();
    }
    void TearDown() override { harness.Stop(); }

    /// Delivers a policy and asserts that the framework took it.
    void Policy(const std::string& document) {
        ASSERT_EQ(0, harness.DeliverPolicy(document)) << Logs().Dump();
    }

    /// Sends a notification and waits until the task handled it.
    void Notify(const Engine::ContainerInfo& info) {
        harness.SendContainer(info);
        ASSERT_TRUE(harness.Sync()) << Logs().Dump();
    }

    std::vector<std::shared_ptr<Engine::FileNotifyWatchMessage>> Watches() const {
        return Sent().Of<Engine::FileNotifyWatchMessage>(kFileNotifyTask);
    }
    std::vector<std::shared_ptr<Engine::AuditFileSystemCtrlMessage>> AuditRules() const {
        return Sent().Of<Engine::AuditFileSystemCtrlMessage>(kAuditTask);
    }
    std::vector<std::shared_ptr<Framework::DataMessage>> Alarms() const {
        return Sent().Of<Framework::DataMessage>(kReportTask);
    }
    /// Waits until the task is idle, then takes the n-th alarm (1-based), checks its message type
    /// and parses it.
    Json::Value WaitAlarm(size_t n) {
        Json::Value doc;
        if (!harness.Sync() || Alarms().size() < n) {
            ADD_FAILURE() << "no alarm #" << n << "\n" << Logs().Dump();
            return doc;
        }
        auto msg = Alarms()[n - 1];
        EXPECT_EQ("2", msg->GetType());
        EXPECT_TRUE(ParseJson(msg->GetData(), doc)) << msg->GetData();
        return doc;
    }

    /// Checks an alarm document: "event_id" is a non-empty string and "occur_time" an integer
    /// between `notBefore` and now; every other member equals `want` in type and value.
    static void ExpectAlarm(Json::Value doc, const Json::Value& want, int64_t notBefore) {
        const int64_t now = static_cast<int64_t>(time(nullptr));
        ASSERT_TRUE(doc["event_id"].isString()) << ToText(doc);
        EXPECT_FALSE(doc["event_id"].asString().empty());
        ASSERT_TRUE(doc["occur_time"].isIntegral()) << "a number, not a string";
        EXPECT_GE(doc["occur_time"].asInt64(), notBefore);
        EXPECT_LE(doc["occur_time"].asInt64(), now);
        doc.removeMember("event_id");
        doc.removeMember("occur_time");
        EXPECT_EQ(want, doc) << ToText(doc);
    }
    /// JSON text that the test itself wrote, parsed.
    static Json::Value FromText(const std::string& text) {
        Json::Value value;
        EXPECT_TRUE(ParseJson(text, value)) << text;
        return value;
    }

    /// What the module logged (its own logger, and the root logger marked "root") and what it
    /// sent, in one order: a log line as its priority letter and text, a message as Describe.
    std::vector<std::string> Timeline() const {
        std::vector<std::pair<uint64_t, std::string>> events;
        for (const auto& l : Logs().Lines()) {
            if (l.logger != "dockerfile_module" && !l.logger.empty()) continue;
            const std::string prefix = l.logger.empty() ? "root " : "";
            events.emplace_back(l.seq, prefix + "-FCEWNIDT"[l.priority] + " " + l.text);
        }
        for (const auto& r : Sent().All()) events.emplace_back(r.seq, Describe(r, task));
        std::sort(events.begin(), events.end());
        std::vector<std::string> out;
        for (const auto& e : events) out.push_back(e.second);
        return out;
    }

    /// Paths of the watch requests sent so far, add and remove alike.
    std::vector<std::string> WatchedPaths() const {
        std::vector<std::string> paths;
        for (const auto& w : Watches()) paths.push_back(w->path);
        return paths;
    }

    ModuleHarness harness;
    /// The module's task, kept for comparisons only: it is gone after UnInit.
    const Framework::Task* task = nullptr;
};

}  // namespace DockerFileHarness
