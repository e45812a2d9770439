// The loaded filenotify module as the tasks that ask for watches see it: one user operation is
// one event, a watch follows its path, each requester gets its own events, and UnInit leaves
// nothing behind. Plain creates, writes and attribute changes, and files made in directories
// made after the watch, are the end-to-end suite's (tests/e2e/cases.sh, cases_user_files.sh).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
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
#include "support/Shell.h"
#include "support/TaskHost.h"
#include "support/TempDir.h"

namespace {

using Engine::FileNotifyMessage;
using Engine::FileNotifyWatchMessage;
using Expected = std::vector<std::pair<std::string, uint32_t>>;  // path, mask
using Step = std::function<void(const std::string& path)>;

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

class FileNotifyTaskTest : public ::testing::Test {
protected:
    void SetUp() override {
        baseline_ = InotifyInstances();
        ASSERT_TRUE(service_.Load("libfilenotify_module.so")) << service_.Error();
        a_ = host_.Add(new RecordingTask("filenotify_test_a"));
        b_ = host_.Add(new RecordingTask("filenotify_test_b"));
        ASSERT_TRUE(a_ != nullptr && b_ != nullptr);
    }
    void TearDown() override {
        service_.Stop();
        host_.Clear();
    }

    void Watch(RecordingTask* t, const std::string& path, uint64_t ext,
               const std::vector<unsigned int>& masks = kMasks) {
        Engine::_FileNotifyOpt options;
        options.extParm = ext;
        ASSERT_EQ(t->SendDirectMsg(kService, new FileNotifyWatchMessage(t, path, masks, options)),
                  0);
    }
    void Unwatch(RecordingTask* t, const std::string& path) {
        ASSERT_EQ(t->SendDirectMsg(kService, new FileNotifyWatchMessage(t, path, false)), 0);
    }

    // Returns once `t` has been sent every event of file operations done before the call (and
    // every request it sent before has been handled): a fresh file is watched and touched
    // until its own event comes back through the same queues.
    void Sync(RecordingTask* t) {
        const std::string probe = dir_ + "/.sync-" + std::to_string(++syncs_);
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

    TestSupport::TempDir tmp_{"tarnwick-filenotify"};
    const std::string dir_ = tmp_.Path();
    std::size_t baseline_ = 0;
    int syncs_ = 0;
    TestSupport::TaskHost host_{"filenotify_test_host"};
    TestSupport::ServiceModule service_;
    RecordingTask* a_ = nullptr;
    RecordingTask* b_ = nullptr;
};

TEST_F(FileNotifyTaskTest, EachOperationIsOneEventAndTheWatchFollowsThePath) {
    int replaced = -1;  // the file sed replaces, still open
    const Step remove = [](const std::string& p) { ASSERT_EQ(::unlink(p.c_str()), 0); };
    const Step moveAway = [](const std::string& p) {
        ASSERT_EQ(::rename(p.c_str(), (p + ".old").c_str()), 0);
    };
    const Step appendMoved = [](const std::string& p) { Append(p + ".old"); };
    // sed writes a temporary file and renames it onto the path.
    const Step sed = [&](const std::string& p) {
        replaced = ::open(p.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
        ASSERT_TRUE(TestSupport::Shell::Run("sed -i 's/more/less/' '" + p + "'").Ok());
    };
    const Step appendBoth = [&](const std::string& p) {
        ASSERT_EQ(::write(replaced, "x", 1), 1);
        ::close(replaced);
        Append(p);
    };
    const Step makeDir = [](const std::string& p) { std::filesystem::create_directory(p); };
    const Step createChild = [](const std::string& p) { Create(p + "/hosts"); };
    struct Case {
        const char* name;  // of the watched path, in a directory of the case's own
        Step before;       // before the watch; each step is followed by a Sync
        std::vector<Step> steps;
        std::vector<uint32_t> masks;  // the events reported, in order
        const char* child;            // the events carry the path plus this
    };
    const std::vector<Case> cases = {
        // Removed: the watch waits for the next file.
        {"passwd", Create, {remove, Create, Append}, {IN_DELETE, IN_CREATE, IN_MODIFY}, ""},
        // Moved away: the moved file is no longer followed.
        {"passwd", Create, {moveAway, appendMoved}, {IN_MOVED_FROM}, ""},
        // Replaced by a rename: the new file is followed, the old one no longer.
        {"shadow", Append, {sed, appendBoth}, {IN_MOVED_TO, IN_MODIFY}, ""},
        // A watched directory's children carry their name.
        {"etc", makeDir, {createChild}, {IN_CREATE}, "/hosts"},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const Case& c = cases[i];
        const std::string path = tmp_.Dir(std::to_string(i)) + "/" + c.name;
        SCOPED_TRACE(path);
        if (c.before) c.before(path);
        Watch(a_, path, i + 1);
        Sync(a_);
        for (const auto& step : c.steps) {
            step(path);
            Sync(a_);
        }
        Expected expected;
        for (uint32_t mask : c.masks) expected.emplace_back(path + c.child, mask);
        EXPECT_EQ(a_->With(i + 1), expected);
    }
}

TEST_F(FileNotifyTaskTest, EachRequesterGetsItsOwnEventsAndUnInitLeavesNothingBehind) {
    const std::string p = dir_ + "/passwd";
    Create(p);
    Watch(a_, p, 1);
    Watch(b_, p, 2);
    Unwatch(a_, dir_ + "/never-watched");  // ignored
    Sync(a_);
    Sync(b_);
    Append(p);
    Sync(a_);
    Unwatch(a_, p);
    Sync(a_);
    Append(p);
    Sync(a_);
    Sync(b_);
    EXPECT_EQ(a_->With(1), (Expected{{p, IN_MODIFY}}));
    EXPECT_EQ(b_->With(2), (Expected{{p, IN_MODIFY}, {p, IN_MODIFY}}));
    EXPECT_TRUE(a_->With(2).empty());
    EXPECT_TRUE(b_->With(1).empty());
    EXPECT_EQ(InotifyInstances(), baseline_ + 1);
    service_.Stop();
    EXPECT_EQ(InotifyInstances(), baseline_);
    Engine::_FileNotifyOpt options;
    EXPECT_NE(a_->SendDirectMsg(kService, new FileNotifyWatchMessage(a_, p, kMasks, options)), 0);
}

}  // namespace
