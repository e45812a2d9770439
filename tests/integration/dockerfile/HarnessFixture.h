#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ModuleHarness.h"
#include "filenotify/FileNotifyWatchMessage.h"
#include "framework/DataMessage.h"
#include "process_collect/AuditFileSystemCtrlMessage.h"

namespace DockerFileHarness {

/// Base fixture: clean capture, the module loaded and initialised next to the recording
/// neighbours; everything stopped again afterwards.
class ModuleFixture : public ::testing::Test {
protected:
    void SetUp() override {
        Logs().Clear();
        Sent().Clear();
        std::string error;
        ASSERT_TRUE(harness.Start(error)) << error << " (" << ModuleLibraryPath() << ")";
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
    /// Waits for the n-th alarm (1-based), checks its message type and parses it.
    Json::Value WaitAlarm(size_t n) {
        Json::Value doc;
        if (!Sent().WaitCount<Framework::DataMessage>(kReportTask, n)) {
            ADD_FAILURE() << "no alarm #" << n << "\n" << Logs().Dump();
            return doc;
        }
        auto msg = Alarms()[n - 1];
        EXPECT_EQ("2", msg->GetType());
        EXPECT_TRUE(ParseJson(msg->GetData(), doc)) << msg->GetData();
        return doc;
    }

    /// Paths of the watch requests sent so far, add and remove alike.
    std::vector<std::string> WatchedPaths() const {
        std::vector<std::string> paths;
        for (const auto& w : Watches()) paths.push_back(w->path);
        return paths;
    }

    ModuleHarness harness;
};

/// The seven inotify masks of every add-watch request, in their order.
inline const std::vector<unsigned int>& WatchMasks() {
    static const std::vector<unsigned int> masks = {0x100, 0x2, 0x200, 0xC0, 0x4, 0x400, 0x800};
    return masks;
}

/// Options block in its default state except for the extra parameter.
inline void ExpectDefaultOptions(const Engine::_FileNotifyOpt& o, uint64_t extParm) {
    EXPECT_FALSE(o.recursive);
    EXPECT_FALSE(o.onlyDir);
    EXPECT_FALSE(o.dontFollow);
    EXPECT_FALSE(o.exclUnlink);
    EXPECT_FALSE(o.oneShot);
    EXPECT_FALSE(o.reportSelfOnly);
    EXPECT_TRUE(o.followPath);
    EXPECT_FALSE(o.reserved);
    EXPECT_TRUE(o.ignoreMasks.empty());
    EXPECT_EQ(extParm, o.extParm);
    EXPECT_TRUE(o.includeNames.empty());
    EXPECT_TRUE(o.excludeNames.empty());
    EXPECT_FALSE(o.coalesce);
    EXPECT_EQ(0, o.maxEvents);
    EXPECT_FALSE(o.debug);
}

}  // namespace DockerFileHarness
