#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "engine/AbstractMessageReceiver.h"
#include "filenotify/FileNotifyMessage.h"
#include "filenotify/FileNotifyWatchMessage.h"
#include "framework/Task.h"
#include "support/Deadline.h"
#include "support/RecordingTask.h"
#include "support/ServiceModule.h"
#include "support/Shell.h"
#include "support/TaskHost.h"
#include "support/TempDir.h"

namespace {

using Engine::FileNotifyMessage;
using Engine::FileNotifyWatchMessage;

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

    std::vector<Event> EventsWith(uint64_t ext) const {
        std::vector<Event> out;
        for (const auto& e : Items()) {
            if (e.ext == ext) out.push_back(e);
        }
        return out;
    }
};

std::size_t CountInotifyInstances() {
    std::size_t count = 0;
    DIR* d = ::opendir("/proc/self/fd");
    if (d == nullptr) return 0;
    while (struct dirent* entry = ::readdir(d)) {
        char target[256] = {0};
        const std::string link = std::string("/proc/self/fd/") + entry->d_name;
        if (::readlink(link.c_str(), target, sizeof(target) - 1) > 0 &&
            std::string(target) == "anon_inode:inotify") {
            ++count;
        }
    }
    ::closedir(d);
    return count;
}

void WriteFile(const std::string& path, const std::string& text, int flags) {
    const int fd = ::open(path.c_str(), flags | O_WRONLY | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0) << path;
    if (!text.empty()) {
        ASSERT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    ::close(fd);
}

void Create(const std::string& path) { WriteFile(path, "", O_CREAT | O_EXCL); }
void Append(const std::string& path) { WriteFile(path, "more\n", O_APPEND); }

class FileNotifyTaskTest : public ::testing::Test {
protected:
    void SetUp() override {
        baseline_ = CountInotifyInstances();
        ASSERT_TRUE(service_.Load("libfilenotify_module.so")) << service_.Error();
        a_ = host_.Add(new RecordingTask("filenotify_test_a"));
        b_ = host_.Add(new RecordingTask("filenotify_test_b"));
        ASSERT_NE(a_, nullptr);
        ASSERT_NE(b_, nullptr);
    }
    void TearDown() override {
        StopService();
        host_.Clear();
    }
    void StopService() { service_.Stop(); }

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
                    for (const auto& e : events) {
                        if (e.path == probe) return true;
                    }
                    return false;
                },
                std::chrono::milliseconds(20));
        }
        ASSERT_TRUE(seen) << "no event for " << probe;
        Unwatch(t, probe);
    }

    // Waits for the n-th event with `ext` at `t`; the events seen so far otherwise.
    std::vector<Event> WaitEvents(RecordingTask* t, uint64_t ext, std::size_t n) {
        t->WaitFor(
            [&](const std::vector<Event>& events) {
                std::size_t count = 0;
                for (const auto& e : events) count += e.ext == ext ? 1 : 0;
                return count >= n;
            },
            std::chrono::seconds(10));
        return t->EventsWith(ext);
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

// Exactly the expected (path, mask) sequence, nothing more, once everything was delivered.
void ExpectEvents(const std::vector<Event>& events,
                  const std::vector<std::pair<std::string, uint32_t>>& expected) {
    std::string seen;
    for (const auto& e : events) seen += " (" + e.path + " " + std::to_string(e.mask) + ")";
    ASSERT_EQ(events.size(), expected.size()) << "events:" << seen;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(events[i].path, expected[i].first) << "event " << i;
        EXPECT_EQ(events[i].mask, expected[i].second) << "event " << i;
    }
}

class FileOperationsTest : public FileNotifyTaskTest {};

TEST_F(FileOperationsTest, CreatingAWatchedPathIsOneCreate) {
    const std::string p = dir_ + "/passwd";
    Watch(a_, p, 7);
    Sync(a_);
    Create(p);
    WaitEvents(a_, 7, 1);
    Sync(a_);
    const auto events = a_->EventsWith(7);
    ExpectEvents(events, {{p, IN_CREATE}});
    EXPECT_EQ(events[0].ext, 7u);
}

TEST_F(FileOperationsTest, AppendIsModifyAndChmodIsAttrib) {
    const std::string p = dir_ + "/passwd";
    Create(p);
    Watch(a_, p, 7);
    Sync(a_);
    Append(p);
    WaitEvents(a_, 7, 1);
    ASSERT_EQ(::chmod(p.c_str(), 0600), 0);
    WaitEvents(a_, 7, 2);
    Sync(a_);
    ExpectEvents(a_->EventsWith(7), {{p, IN_MODIFY}, {p, IN_ATTRIB}});
}

TEST_F(FileOperationsTest, RemovalIsOneDeleteAndTheWatchWaitsForTheNextFile) {
    const std::string p = dir_ + "/passwd";
    Create(p);
    Watch(a_, p, 7);
    Sync(a_);
    ASSERT_EQ(::unlink(p.c_str()), 0);
    WaitEvents(a_, 7, 1);
    Sync(a_);
    Create(p);
    WaitEvents(a_, 7, 2);
    Append(p);
    WaitEvents(a_, 7, 3);
    Sync(a_);
    ExpectEvents(a_->EventsWith(7), {{p, IN_DELETE}, {p, IN_CREATE}, {p, IN_MODIFY}});
}

TEST_F(FileOperationsTest, MoveAwayIsOneMoveAndTheMovedFileIsNoLongerFollowed) {
    const std::string p = dir_ + "/passwd";
    const std::string away = dir_ + "/passwd.old";
    Create(p);
    Watch(a_, p, 7);
    Sync(a_);
    ASSERT_EQ(::rename(p.c_str(), away.c_str()), 0);
    WaitEvents(a_, 7, 1);
    Append(away);
    Sync(a_);
    ExpectEvents(a_->EventsWith(7), {{p, IN_MOVED_FROM}});
}

TEST_F(FileOperationsTest, ReplacementByRenameIsOneMoveThenTheNewFileIsFollowed) {
    const std::string p = dir_ + "/shadow";
    WriteFile(p, "root:a\n", O_CREAT);
    Watch(a_, p, 7);
    Sync(a_);
    const int oldFile = ::open(p.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    ASSERT_GE(oldFile, 0);
    // sed writes a temporary file and renames it onto the path.
    ASSERT_TRUE(TestSupport::Shell::Run("sed -i 's/a/b/' '" + p + "'").Ok());
    WaitEvents(a_, 7, 1);
    ASSERT_EQ(::write(oldFile, "x", 1), 1);  // the replaced file no longer is the path
    ::close(oldFile);
    Append(p);
    WaitEvents(a_, 7, 2);
    Sync(a_);
    ExpectEvents(a_->EventsWith(7), {{p, IN_MOVED_TO}, {p, IN_MODIFY}});
}

class PathsThatDoNotExistYetTest : public FileNotifyTaskTest {};

TEST_F(PathsThatDoNotExistYetTest, FileInDirectoriesMadeLaterIsReportedWhenCreated) {
    const std::string p = dir_ + "/merged/etc/passwd";
    Watch(a_, p, 3);
    Sync(a_);
    ASSERT_EQ(::mkdir((dir_ + "/merged").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((dir_ + "/merged/etc").c_str(), 0755), 0);
    Sync(a_);  // nothing is reported for the directories on the way
    EXPECT_TRUE(a_->EventsWith(3).empty());
    Create(p);
    WaitEvents(a_, 3, 1);
    Append(p);
    WaitEvents(a_, 3, 2);
    Sync(a_);
    ExpectEvents(a_->EventsWith(3), {{p, IN_CREATE}, {p, IN_MODIFY}});
}

TEST_F(PathsThatDoNotExistYetTest, ChildrenOfAWatchedDirectoryCarryTheirName) {
    const std::string d = dir_ + "/etc";
    ASSERT_EQ(::mkdir(d.c_str(), 0755), 0);
    Watch(a_, d, 5, {IN_CREATE});
    Sync(a_);
    Create(d + "/hosts");
    WaitEvents(a_, 5, 1);
    Sync(a_);
    ExpectEvents(a_->EventsWith(5), {{d + "/hosts", IN_CREATE}});
}

class RequestersTest : public FileNotifyTaskTest {};

TEST_F(RequestersTest, TwoRequestersOnOnePathEachGetTheirOwnExtraParameter) {
    const std::string p = dir_ + "/passwd";
    Create(p);
    Watch(a_, p, 1);
    Watch(b_, p, 2);
    Sync(a_);
    Sync(b_);
    Append(p);
    WaitEvents(a_, 1, 1);
    WaitEvents(b_, 2, 1);
    Sync(a_);
    Sync(b_);
    ExpectEvents(a_->EventsWith(1), {{p, IN_MODIFY}});
    ExpectEvents(b_->EventsWith(2), {{p, IN_MODIFY}});
    EXPECT_TRUE(a_->EventsWith(2).empty());
    EXPECT_TRUE(b_->EventsWith(1).empty());
}

TEST_F(RequestersTest, RemoveStopsOnlyThatRequestersEvents) {
    const std::string p = dir_ + "/passwd";
    Create(p);
    Watch(a_, p, 1);
    Watch(b_, p, 2);
    Unwatch(a_, dir_ + "/never-watched");  // ignored
    Unwatch(a_, p);
    Sync(a_);
    Sync(b_);
    Append(p);
    WaitEvents(b_, 2, 1);
    Sync(a_);
    Sync(b_);
    EXPECT_TRUE(a_->EventsWith(1).empty());
    ExpectEvents(b_->EventsWith(2), {{p, IN_MODIFY}});
}

class ShutdownTest : public FileNotifyTaskTest {};

TEST_F(ShutdownTest, UnInitLeavesNoInotifyInstanceAndTheTaskIsGone) {
    const std::string p = dir_ + "/passwd";
    Create(p);
    Watch(a_, p, 1);
    Sync(a_);
    EXPECT_EQ(CountInotifyInstances(), baseline_ + 1);
    StopService();
    EXPECT_EQ(CountInotifyInstances(), baseline_);
    Engine::_FileNotifyOpt options;
    EXPECT_NE(a_->SendDirectMsg(kService, new FileNotifyWatchMessage(a_, p, kMasks, options)), 0);
}

}  // namespace
