#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "TestFiles.h"
#include "report/Spool.h"
#include "support/FileText.h"
#include "support/TempDir.h"

namespace {

using Report::Spool;
using ReportTest::Doc;
using TestSupport::FileText;
using TestSupport::TempDir;

std::vector<std::string> Segments(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (const dirent* e = ::readdir(d)) {
            const std::string name = e->d_name;
            if (name.size() > 4 && name.compare(name.size() - 4, 4, ".seg") == 0) {
                names.push_back(name);
            }
        }
        ::closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Reads and commits everything, `batch` lines at a time.
std::vector<std::string> DrainAll(Spool& spool, std::size_t batch, uint64_t* corrupt = nullptr) {
    std::vector<std::string> all;
    uint64_t bad = 0;
    for (;;) {
        const auto lines = spool.Peek(batch, 1 << 20, bad);
        if (lines.empty()) break;
        all.insert(all.end(), lines.begin(), lines.end());
        spool.Commit(lines.size());
    }
    if (corrupt != nullptr) *corrupt = bad;
    return all;
}

class SpoolTest : public ::testing::Test {
protected:
    std::unique_ptr<Spool> OpenSpool(uint64_t maxBytes = 1 << 20) {
        auto spool = std::make_unique<Spool>(dir_, maxBytes);
        std::string error;
        EXPECT_TRUE(spool->Open(error)) << error;
        return spool;
    }

    TempDir tmp_;
    std::string dir_ = tmp_.Path() + "/spool/file";
};

TEST_F(SpoolTest, LinesComeBackInOrderAcrossSegmentsAndDeliveredSegmentsGo) {
    auto spool = OpenSpool(64 * 1024);  // small segments: many of them
    std::vector<std::string> sent;
    for (int i = 0; i < 300; ++i) {
        sent.push_back(Doc(i, 50));
        ASSERT_EQ(spool->Append(sent.back()), Spool::AppendResult::kOk) << i;
    }
    EXPECT_GT(Segments(dir_).size(), 2u);
    EXPECT_EQ(DrainAll(*spool, 7), sent);
    EXPECT_TRUE(spool->Empty());
    EXPECT_LE(Segments(dir_).size(), 1u);
}

TEST_F(SpoolTest, OnlyCommittedLinesAreGoneAndPeekingAgainRepeatsTheRest) {
    auto spool = OpenSpool();
    for (int i = 0; i < 10; ++i) spool->Append(Doc(i));
    uint64_t corrupt = 0;
    EXPECT_EQ(spool->Peek(4, 1 << 20, corrupt).size(), 4u);
    spool->Commit(2);  // the sink took two of the four
    const auto again = spool->Peek(100, 1 << 20, corrupt);
    ASSERT_EQ(again.size(), 8u);
    EXPECT_EQ(again.front(), Doc(2));
    EXPECT_EQ(corrupt, 0u);
}

TEST_F(SpoolTest, ARestartResumesAtTheCommittedLineAndKeepsAppending) {
    std::vector<std::string> sent;
    {
        auto spool = OpenSpool(64 * 1024);
        for (int i = 0; i < 200; ++i) {
            sent.push_back(Doc(i, 40));
            spool->Append(sent.back());
        }
        uint64_t corrupt = 0;
        spool->Commit(spool->Peek(60, 1 << 20, corrupt).size());
        spool->Peek(30, 1 << 20, corrupt);  // read but never committed: must come back
    }
    auto spool = OpenSpool(64 * 1024);
    for (int i = 200; i < 220; ++i) {
        sent.push_back(Doc(i, 40));
        spool->Append(sent.back());
    }
    EXPECT_EQ(DrainAll(*spool, 50), std::vector<std::string>(sent.begin() + 60, sent.end()));
}

// A process that dies without closing the spool (no destructor, cursor maybe not recorded):
// the next start may deliver the last lines again, but never skips or garbles one, also right
// after the spool emptied itself.
TEST_F(SpoolTest, ACrashRepeatsTheLastLinesButNeverSkipsOne) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        Spool* spool = new Spool(dir_, 64 << 20);  // never deleted: the crash
        std::string error;
        if (!spool->Open(error)) ::_exit(2);
        uint64_t corrupt = 0;
        for (int i = 0; i < 40000; ++i) spool->Append(Doc(i, 100));  // past the truncation size
        while (!spool->Peek(500, 1 << 20, corrupt).empty()) spool->Commit(500);
        for (int i = 40000; i < 40010; ++i) spool->Append(Doc(i, 100));
        spool->Peek(4, 1 << 20, corrupt);
        spool->Commit(4);
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    auto spool = OpenSpool(64 << 20);
    uint64_t corrupt = 0;
    const auto lines = DrainAll(*spool, 100, &corrupt);
    EXPECT_EQ(corrupt, 0u);
    ASSERT_GE(lines.size(), 6u);
    ASSERT_LE(lines.size(), 10u);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i], Doc(static_cast<int>(40010 - lines.size() + i), 100));
    }
}

TEST_F(SpoolTest, ABoundIsKeptAndRoomComesBackAsLinesAreDelivered) {
    const uint64_t bound = 16 * 1024;
    auto spool = OpenSpool(bound);
    int kept = 0;
    int overflowed = 0;
    for (int i = 0; i < 500; ++i) {
        const auto result = spool->Append(Doc(i, 100));
        if (result == Spool::AppendResult::kOk) ++kept;
        if (result == Spool::AppendResult::kOverflow) ++overflowed;
    }
    EXPECT_EQ(kept + overflowed, 500);
    EXPECT_GT(overflowed, 0);
    EXPECT_LE(spool->PendingBytes(), bound);
    // The oldest are kept and the newest refused: what is spooled is an unbroken prefix.
    const auto drained = DrainAll(*spool, 1000);
    ASSERT_EQ(static_cast<int>(drained.size()), kept);
    EXPECT_EQ(drained.back(), Doc(kept - 1, 100));
    EXPECT_EQ(spool->Append(Doc(1000, 100)), Spool::AppendResult::kOk);
}

TEST_F(SpoolTest, ABatchKeepsEachLineThatFitsInOrderAndRefusesTheRestOneByOne) {
    auto spool = OpenSpool(4096);
    // The third line alone is past the bound; the ones after it still fit.
    const std::vector<std::string> batch = {Doc(0, 100), Doc(1, 100), Doc(2, 5000), Doc(3, 100)};
    const Spool::BatchResult result = spool->AppendBatch(batch);
    EXPECT_EQ(result.kept, 3u);
    EXPECT_EQ(result.overflow, 1u);
    EXPECT_EQ(result.failed, 0u);
    EXPECT_EQ(DrainAll(*spool, 10), (std::vector<std::string>{batch[0], batch[1], batch[3]}));
}

TEST_F(SpoolTest, ABatchTheDiskCutsShortLeavesNoPartOfItBehind) {
    auto spool = OpenSpool();
    ASSERT_EQ(spool->Append(Doc(0)), Spool::AppendResult::kOk);
    std::vector<std::string> batch;
    for (int i = 1; i <= 50; ++i) batch.push_back(Doc(i, 100));
    {
        ReportTest::FileSizeCap cap(2048);  // room for some of the batch, not all of it
        const Spool::BatchResult result = spool->AppendBatch(batch);
        EXPECT_EQ(result.kept, 0u);
        EXPECT_EQ(result.failed, batch.size());
    }
    ASSERT_EQ(spool->Append(Doc(51)), Spool::AppendResult::kOk);
    EXPECT_EQ(DrainAll(*spool, 100), (std::vector<std::string>{Doc(0), Doc(51)}));
}

TEST_F(SpoolTest, APartialLineLeftByACrashIsCutAtOpen) {
    {
        auto spool = OpenSpool();
        for (int i = 0; i < 5; ++i) spool->Append(Doc(i));
    }
    const auto segments = Segments(dir_);
    ASSERT_EQ(segments.size(), 1u);
    const std::string torn = "{\"n\":5,\"pad\":\"xx";
    std::ofstream(dir_ + "/" + segments.back(), std::ios::app) << torn;

    auto spool = OpenSpool();
    EXPECT_EQ(spool->CutAtOpen(), torn.size());
    spool->Append(Doc(6));
    uint64_t corrupt = 0;
    const auto lines = DrainAll(*spool, 100, &corrupt);
    EXPECT_EQ(lines, (std::vector<std::string>{Doc(0), Doc(1), Doc(2), Doc(3), Doc(4), Doc(6)}));
    EXPECT_EQ(corrupt, 0u);
}

TEST_F(SpoolTest, DamagedLinesAreSkippedAndCountedNeverDelivered) {
    {
        auto spool = OpenSpool();
        spool->Append(Doc(0));
    }
    const std::string segment = dir_ + "/" + Segments(dir_).back();
    // What a crash can leave on disk: a zeroed block, half a document, then good lines again.
    std::ofstream(segment, std::ios::app) << std::string(40, '\0') << "\n{\"n\":\n";
    auto spool = OpenSpool();
    spool->Append(Doc(1));
    uint64_t corrupt = 0;
    EXPECT_EQ(DrainAll(*spool, 100, &corrupt), (std::vector<std::string>{Doc(0), Doc(1)}));
    EXPECT_EQ(corrupt, 2u);
}

TEST_F(SpoolTest, ACursorBeyondTheDataIsClampedNotTrusted) {
    {
        auto spool = OpenSpool();
        spool->Append(Doc(0));
    }
    std::ofstream(dir_ + "/cursor") << "0 999999\n";
    auto spool = OpenSpool();
    spool->Append(Doc(1));
    uint64_t corrupt = 0;
    const auto lines = spool->Peek(10, 1 << 20, corrupt);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), Doc(1));
}

TEST_F(SpoolTest, AFullDiskRefusesTheLineAndLeavesOnlyWholeLines) {
    auto spool = OpenSpool();
    spool->Append(Doc(0, 100));
    const std::string segment = dir_ + "/" + Segments(dir_).back();
    struct stat st;
    ASSERT_EQ(::stat(segment.c_str(), &st), 0);
    {
        ReportTest::FileSizeCap cap(static_cast<rlim_t>(st.st_size) + 50);
        EXPECT_EQ(spool->Append(Doc(1, 100)), Spool::AppendResult::kFailed);
        EXPECT_FALSE(spool->LastError().empty());
    }
    EXPECT_EQ(FileText::Read(segment), Doc(0, 100) + "\n");
    EXPECT_EQ(spool->Append(Doc(2, 100)), Spool::AppendResult::kOk);
    EXPECT_EQ(DrainAll(*spool, 10), (std::vector<std::string>{Doc(0, 100), Doc(2, 100)}));
}

TEST_F(SpoolTest, ASecondOwnerIsRefusedUntilTheFirstLetsGo) {
    auto first = OpenSpool();
    Spool second(dir_, 1 << 20);
    std::string error;
    EXPECT_FALSE(second.Open(error));
    EXPECT_NE(error.find("in use"), std::string::npos) << error;
    first.reset();
    EXPECT_TRUE(second.Open(error)) << error;
}

TEST_F(SpoolTest, AnUnusableDirectoryIsReportedAndAppendsFail) {
    std::ofstream(tmp_.Path() + "/blocker") << "x";
    Spool spool(tmp_.Path() + "/blocker/spool", 1 << 20);
    std::string error;
    EXPECT_FALSE(spool.Open(error));
    EXPECT_NE(error.find("blocker"), std::string::npos) << error;
    EXPECT_EQ(spool.Append(Doc(0)), Spool::AppendResult::kFailed);
}

}  // namespace
