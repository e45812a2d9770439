#pragma once

// The module loaded as the agent loads it, on the real framework, next to stand-ins for the four
// services it talks to. The stand-ins add every message to the log capture on the sender's
// thread, so a test sees what the module logged and sent in one order.

#include <gtest/gtest.h>
#include <json/json.h>

#include <ctime>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "Capture.h"
#include "container/ContainerMessage.h"
#include "container/ContainerRegisterMessage.h"
#include "filenotify/FileNotifyMessage.h"
#include "filenotify/FileNotifyWatchMessage.h"
#include "framework/DataMessage.h"
#include "framework/TaskCondition.h"
#include "process_collect/AuditFileSystemCtrlMessage.h"
#include "process_collect/AuditUnsubscribeMessage.h"
#include "support/Deadline.h"
#include "support/ServiceModule.h"
#include "support/TaskHost.h"

namespace DockerFileTest {

using Strings = std::vector<std::string>;
constexpr const char* kModuleTask = "dockerfile_task";

/// Takes every message handed to it into the capture and handles none.
class Neighbour : public Framework::Task {
public:
    explicit Neighbour(const char* name)
        : Framework::Task(name, "test", Framework::TaskCondition::TASK_TYPE_MESSAGE, 16) {}
    int EnqueueMsg(std::shared_ptr<Framework::Message>& msg) override {
        Logs().Add({"", 0, name(), msg});
        return 1;
    }
};

inline bool IsDefault(const Engine::_FileNotifyOpt& o) {
    const auto members = [](const Engine::_FileNotifyOpt& x) {
        return std::tie(x.recursive, x.onlyDir, x.dontFollow, x.exclUnlink, x.oneShot,
                        x.reportSelfOnly, x.followPath, x.reserved, x.ignoreMasks, x.includeNames,
                        x.excludeNames, x.coalesce, x.maxEvents, x.debug);
    };
    return members(o) == members(Engine::_FileNotifyOpt());
}

/// A message the module sent, with every member it carries; " !" marks options other than the
/// default, or a sender or subscriber other than the module's task.
inline std::string Describe(const Framework::Message* m, const Framework::Task* task) {
    std::ostringstream out;
    if (auto* w = dynamic_cast<const Engine::FileNotifyWatchMessage*>(m)) {
        out << (w->add ? "add " : "remove ") << w->path << std::hex;
        for (unsigned int mask : w->masks) out << " " << mask;
        if (w->add) out << " ext " << std::dec << w->options.extParm;
        if (!IsDefault(w->options) || w->sender != task) out << " !";
    } else if (auto* a = dynamic_cast<const Engine::AuditFileSystemCtrlMessage*>(m)) {
        out << a->ruleOption << " " << a->ruleKey << " " << a->ruleArgument;
        if (a->flag || !a->text.empty() || a->number != 0 || a->notifyOpt.extParm != 0 ||
            !IsDefault(a->notifyOpt) || a->sender != task) {
            out << " !";
        }
    } else if (auto* c = dynamic_cast<const Engine::ContainerRegisterMessage*>(m)) {
        out << (c->subscribe ? "subscribe" : "unsubscribe") << (c->option ? " option" : "")
            << (c->task != task ? " !" : "");
    } else if (auto* u = dynamic_cast<const Engine::AuditUnsubscribeMessage*>(m)) {
        out << "unsubscribe" << (u->task != task ? " !" : "");
    } else if (auto* d = dynamic_cast<const Framework::DataMessage*>(m)) {
        out << "alarm type " << d->GetType();
    } else {
        out << m->TypeName();
    }
    return out.str();
}

inline Json::Value ParseJson(const std::string& text) {
    Json::Value value;
    std::istringstream in(text);
    std::string errors;
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &value, &errors)) << text;
    return value;
}

/// A policy document of the module holding the rule objects `rules` (JSON text).
inline std::string Doc(const std::string& rules) {
    return R"({"feature_name":"dockerfile_feature","hash":"h1","policy_id":"p1",)"
           R"("content":{"rules":[)" +
           rules + "]}}";
}

class ModuleFixture : public ::testing::Test {
protected:
    void SetUp() override {
        Logs().Clear();
        for (const char* name :
             {"container_collect_task", "filenotify_task", "audit_task", "data_comm_report_task"}) {
            ASSERT_NE(nullptr, sender = neighbours.Add(new Neighbour(name)));
        }
        Load();
    }
    void Load() {
        ASSERT_TRUE(module.Load("libdockerfile_module.so")) << module.Error();
        task = module.Get()->FindTask(kModuleTask);
        ASSERT_NE(nullptr, task);
    }

    /// The framework's result of delivering a document under the module's policy key.
    int Deliver(const std::string& document) {
        Framework::Policy* current = nullptr;
        return module.Get()->RefreshPolicy("10001", "dockerfile_feature", document, current);
    }
    void Policy(const std::string& document) { ASSERT_EQ(0, Deliver(document)) << Logs().Dump(); }

    /// Sends `msg` to the module's task as a neighbour would, and waits until it was handled.
    void Send(Framework::Message* msg) {
        sender->SendDirectMsg(kModuleTask, msg);
        const int waitMs = static_cast<int>(TestSupport::kDefaultWait.count());
        ASSERT_TRUE(Framework::Task::WaitIdle(kModuleTask, waitMs)) << Logs().Dump();
    }
    void Container(const std::string& id, const std::string& name, const std::string& imageId,
                   const std::string& imageName, const std::string& rootPath, bool running = true) {
        auto info = std::make_shared<Engine::ContainerInfo>();
        info->running = running;
        info->id = id;
        info->name = name;
        info->cmd = "/bin/sh -c run-" + name;
        info->imageId = imageId;
        info->imageName = imageName;
        info->rootPath = rootPath;
        Send(new Engine::ContainerMessage(info));
    }

    /// What the module logged (the root logger's records marked "root") and sent, in order: a
    /// record as its priority letter and text, a message as its recipient and Describe.
    Strings Timeline() const {
        Strings out;
        for (const auto& e : Logs().Entries()) {
            if (e.msg) {
                out.push_back("to " + e.text + ": " + Describe(e.msg.get(), task));
            } else if (e.logger.empty() || e.logger == "dockerfile_module") {
                out.push_back((e.logger.empty() ? "root " : "") +
                              std::string(1, "-FCEWNIDT"[e.priority]) + " " + e.text);
            }
        }
        return out;
    }
    /// The messages of type T sent since the capture was cleared.
    template <class T>
    std::vector<std::shared_ptr<T>> Sent() const {
        std::vector<std::shared_ptr<T>> out;
        for (const auto& e : Logs().Entries()) {
            if (auto m = std::dynamic_pointer_cast<T>(e.msg)) out.push_back(m);
        }
        return out;
    }
    /// Paths of the watch requests sent, add and remove alike.
    Strings Watched() const {
        Strings paths;
        for (const auto& w : Sent<Engine::FileNotifyWatchMessage>()) paths.push_back(w->path);
        return paths;
    }

    /// The n-th alarm (1-based) sent since the capture was cleared, parsed.
    Json::Value Alarm(size_t n) {
        const auto alarms = Sent<Framework::DataMessage>();
        if (alarms.size() < n) {
            ADD_FAILURE() << "no alarm #" << n << "\n" << Logs().Dump();
            return Json::Value();
        }
        EXPECT_EQ("2", alarms[n - 1]->GetType());
        return ParseJson(alarms[n - 1]->GetData());
    }
    /// "event_id" is a non-empty string and "occur_time" an integer from `notBefore` to now;
    /// every other member equals `want` in type and value.
    static void ExpectAlarm(Json::Value doc, const Json::Value& want, int64_t notBefore) {
        ASSERT_TRUE(doc["event_id"].isString()) << doc;
        EXPECT_FALSE(doc["event_id"].asString().empty());
        ASSERT_TRUE(doc["occur_time"].isIntegral()) << "a number, not a string";
        EXPECT_GE(doc["occur_time"].asInt64(), notBefore);
        EXPECT_LE(doc["occur_time"].asInt64(), static_cast<int64_t>(time(nullptr)));
        doc.removeMember("event_id");
        doc.removeMember("occur_time");
        EXPECT_EQ(want, doc) << doc;
    }

    // Declared in this order so that the module stops before its neighbours go.
    TestSupport::TaskHost neighbours{"neighbours"};
    TestSupport::ServiceModule module;
    Framework::Task* sender = nullptr;
    /// The module's task, kept for comparisons only: it is gone after UnInit.
    const Framework::Task* task = nullptr;
};

}  // namespace DockerFileTest
