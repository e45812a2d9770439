// The loaded filenotify module as the tasks that ask for watches see it: each requester gets its
// own events, and UnInit leaves nothing behind. What one file operation is reported as, and
// how a watch follows its path (removed and made again, moved away, replaced by sed's rename,
// made in directories made later), is the end-to-end suite's (tests/e2e/cases.sh
// user_file_operations and replaced_by_rename, cases_user_files.sh parent_directory_moved).
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "engine/AbstractMessageReceiver.h"
#include "filenotify/FileNotifyMessage.h"
#include "filenotify/FileNotifyWatchMessage.h"
#include "support/Deadline.h"
#include "support/FileText.h"
#include "support/RecordingTask.h"
#include "support/ServiceModule.h"
#include "support/TaskHost.h"
#include "support/TempDir.h"

namespace {

using Engine::FileNotifyMessage;
using Engine::FileNotifyWatchMessage;
using Expected = std::vector<std::pair<std::string, uint32_t>>;  // path, mask

constexpr const char* kService = "filenotify_task";
constexpr uint64_t kSyncExt = ~0ull;
const std::vector<unsigned int> kMasks = {IN_CREATE, IN_MODIFY,      IN_DELETE,   IN_MOVE,
                                          IN_ATTRIB, IN_DELETE_SELF, IN_MOVE_SELF};

struct Event {
    std::string path;
    uint32_t mask;
    uint64_t ext;
};

// Stands in for a task that asked for watches: records what it is sent.
class RecordingTask : public TestSupport::RecordingTask<Event>,
                      public Engine::AbstractMessageReceiver {
public:
    explicit RecordingTask(const std::string& name)
        : TestSupport::RecordingTask<Event>(name, 4096) {}

    int FileNotifyMessageAction(FileNotifyMessage* msg) override {
        Record({msg->GetEventFilePath(), msg->GetEventMask(), msg->GetExtParm()});
        return 0;
    }
    // Path and mask of every event with `ext`, in order.
    Expected With(uint64_t ext) const {
        Expected out;
        for (const auto& e : Items()) {
            if (e.ext == ext) out.emplace_back(e.path, e.mask);
        }
        return out;
    }
};

std::size_t InotifyInstances() {
    std::size_t count = 0;
    std::error_code ec;
    for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd", ec)) {
        count += std::filesystem::read_symlink(fd.path(), ec) == "anon_inode:inotify" ? 1 : 0;
    }
    return count;
}

void Create(const std::string& path) { ASSERT_TRUE(TestSupport::FileText::Append(path, "")); }
void Append(const std::string& path) { ASSERT_TRUE(TestSupport::FileText::Append(path, "more\n")); }

void Watch(RecordingTask* t, const std::string& path, uint64_t ext,
           const std::vector<unsigned int>& masks = kMasks) {
    Engine::_FileNotifyOpt options;
    options.extParm = ext;
    ASSERT_EQ(t->SendDirectMsg(kService, new FileNotifyWatchMessage(t, path, masks, options)), 0);
}
void Unwatch(RecordingTask* t, const std::string& path) {
    ASSERT_EQ(t->SendDirectMsg(kService, new FileNotifyWatchMessage(t, path, false)), 0);
}

// Returns once `t` has been sent every event of file operations done before the call (and every
// request it sent before has been handled): a fresh file `probe` is watched and touched until
// its own event comes back through the same queues.
void Sync(RecordingTask* t, const std::string& probe) {
    Create(probe);
    Watch(t, probe, kSyncExt, {IN_ATTRIB});
    const TestSupport::Deadline deadline(std::chrono::seconds(10));
    bool seen = false;
    for (int i = 0; !seen && !deadline.Expired(); ++i) {
        ASSERT_EQ(::chmod(probe.c_str(), i % 2 == 0 ? 0600 : 0644), 0);
        seen = t->WaitFor(
            [&](const std::vector<Event>& events) {
                return std::any_of(events.begin(), events.end(),
                                   [&](const Event& e) { return e.path == probe; });
            },
            std::chrono::milliseconds(20));
    }
    ASSERT_TRUE(seen) << "no event for " << probe;
    Unwatch(t, probe);
}

TEST(FileNotifyTask, EachRequesterGetsItsOwnEventsAndUnInitLeavesNothingBehind) {
    TestSupport::TempDir tmp("tarnwick-filenotify");
    const std::size_t baseline = InotifyInstances();
    // Gone in reverse order: the service stops before its requesters.
    TestSupport::TaskHost host("filenotify_test_host");
    TestSupport::ServiceModule service;
    ASSERT_TRUE(service.Load("libfilenotify_module.so")) << service.Error();
    RecordingTask* a = host.Add(new RecordingTask("filenotify_test_a"));
    RecordingTask* b = host.Add(new RecordingTask("filenotify_test_b"));
    ASSERT_TRUE(a != nullptr && b != nullptr);
    int syncs = 0;
    const auto sync = [&](RecordingTask* t) {
        Sync(t, tmp / (".sync-" + std::to_string(++syncs)));
    };
    const std::string p = tmp / "passwd";
    Create(p);
    Watch(a, p, 1);
    Watch(b, p, 2);
    Unwatch(a, tmp / "never-watched");  // ignored
    sync(a);                            // b's requests came first
    Append(p);
    sync(a);
    Unwatch(a, p);
    sync(a);
    Append(p);
    sync(a);
    sync(b);
    EXPECT_EQ(a->With(1), (Expected{{p, IN_MODIFY}}));
    EXPECT_EQ(b->With(2), (Expected{{p, IN_MODIFY}, {p, IN_MODIFY}}));
    EXPECT_TRUE(a->With(2).empty());
    EXPECT_TRUE(b->With(1).empty());
    EXPECT_EQ(InotifyInstances(), baseline + 1);
    service.Stop();
    EXPECT_EQ(InotifyInstances(), baseline);
    Engine::_FileNotifyOpt options;
    EXPECT_NE(a->SendDirectMsg(kService, new FileNotifyWatchMessage(a, p, kMasks, options)), 0);
}

}  // namespace
