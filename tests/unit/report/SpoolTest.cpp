#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "TestFiles.h"
#include "report/Spool.h"
#include "support/FileText.h"
#include "support/TempDir.h"

namespace {

using Report::Spool;
using ReportTest::Doc;
using ReportTest::Docs;
using ReportTest::Lines;
using TestSupport::FileText;
using TestSupport::TempDir;
constexpr auto kOk = Spool::AppendResult::kOk;

// The segment files, oldest first.
Lines Segments(const std::string& dir) {
    Lines paths;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        if (entry.path().extension() == ".seg") paths.push_back(entry.path().string());
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

// One Append per line, as single alarms arrive.
void Fill(Spool& spool, const Lines& lines) {
    for (const auto& line : lines) ASSERT_EQ(spool.Append(line), kOk) << line;
}

// Reads and commits everything, `batch` lines at a time.
Lines DrainAll(Spool& spool, std::size_t batch, uint64_t* corrupt = nullptr) {
    Lines all;
    uint64_t bad = 0;
    for (Lines lines; !(lines = spool.Peek(batch, 1 << 20, bad)).empty();) {
        all.insert(all.end(), lines.begin(), lines.end());
        spool.Commit(lines.size());
    }
    if (corrupt != nullptr) *corrupt = bad;
    return all;
}

class SpoolTest : public ::testing::Test {
protected:
    std::unique_ptr<Spool> Open(uint64_t maxBytes = 1 << 20) {
        return ReportTest::OpenSpool(dir_, maxBytes);
    }

    TempDir tmp_;
    std::string dir_ = tmp_.Path() + "/spool/file";
};

// The sink may take part of what it read; what it took stays gone across a restart, what it
// did not take (or only read) comes back, in order and across segments.
TEST_F(SpoolTest, OnlyCommittedLinesGoAndARestartResumesAtTheFirstOneNotCommitted) {
    Lines sent = Docs(0, 300, 50);
    uint64_t corrupt = 0;
    {
        auto spool = Open(64 * 1024);  // 8 KiB segments: several
        Fill(*spool, sent);
        EXPECT_GT(Segments(dir_).size(), 2u);
        EXPECT_EQ(spool->Peek(4, 1 << 20, corrupt).size(), 4u);
        spool->Commit(2);
        spool->Commit(spool->Peek(150, 1 << 20, corrupt).size());  // into the second segment
        spool->Peek(30, 1 << 20, corrupt);  // read but never committed: must come back
    }
    auto spool = Open(64 * 1024);
    const Lines more = Docs(300, 320, 50);
    Fill(*spool, more);
    sent.insert(sent.end(), more.begin(), more.end());
    EXPECT_EQ(DrainAll(*spool, 7, &corrupt), Lines(sent.begin() + 152, sent.end()));
    EXPECT_EQ(corrupt, 0u);
    EXPECT_TRUE(spool->Empty());
    EXPECT_LE(Segments(dir_).size(), 1u);
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
    auto spool = Open(64 << 20);
    uint64_t corrupt = 0;
    const Lines lines = DrainAll(*spool, 100, &corrupt);
    EXPECT_EQ(corrupt, 0u);
    ASSERT_GE(lines.size(), 6u);
    ASSERT_LE(lines.size(), 10u);
    EXPECT_EQ(lines, Docs(static_cast<int>(40010 - lines.size()), 40010, 100));
}

TEST_F(SpoolTest, ABoundIsKeptLineByLineAndRoomComesBackAsLinesAreDelivered) {
    const uint64_t bound = 16 * 1024;
    auto spool = Open(bound);
    // One line alone is past the bound; the ones after it in the batch still fit.
    const auto batch = spool->AppendBatch({Doc(0, 100), Doc(1, 20000), Doc(2, 100)});
    EXPECT_EQ(batch.kept, 2u);
    EXPECT_EQ(batch.overflow, 1u);
    EXPECT_EQ(batch.failed, 0u);
    // The oldest are kept and the newest refused.
    Lines kept = {Doc(0, 100), Doc(2, 100)};
    auto result = kOk;
    for (int n = 3; n < 500 && (result = spool->Append(Doc(n, 100))) == kOk; ++n) {
        kept.push_back(Doc(n, 100));
    }
    EXPECT_EQ(result, Spool::AppendResult::kOverflow);
    EXPECT_LE(spool->PendingBytes(), bound);
    EXPECT_EQ(DrainAll(*spool, 1000), kept);
    EXPECT_EQ(spool->Append(Doc(1000, 100)), kOk);
}

TEST_F(SpoolTest, AFullDiskRefusesWholeAppendsAndLeavesOnlyWholeLines) {
    auto spool = Open();
    Fill(*spool, {Doc(0, 100)});
    const std::string segment = Segments(dir_).back();
    {
        // Room for part of each of the appends below, not all of one.
        ReportTest::FileSizeCap cap(FileText::Read(segment).size() + 2048);
        EXPECT_EQ(spool->Append(Doc(1, 3000)), Spool::AppendResult::kFailed);
        EXPECT_FALSE(spool->LastError().empty());
        const auto batch = spool->AppendBatch(Docs(2, 52, 100));
        EXPECT_EQ(batch.kept, 0u);
        EXPECT_EQ(batch.failed, 50u);
        EXPECT_EQ(FileText::Read(segment), Doc(0, 100) + "\n");
    }
    Fill(*spool, {Doc(52)});
    EXPECT_EQ(DrainAll(*spool, 10), (Lines{Doc(0, 100), Doc(52)}));
}

// What a crash can leave on disk is cut, skipped and counted, or clamped at the next open;
// none of it is ever delivered, and new lines follow.
TEST_F(SpoolTest, WhatACrashLeftOnDiskIsNeverDelivered) {
    const std::string zeroed = std::string(40, '\0') + "\n{\"n\":\n";
    const struct {
        const char* what;
        std::string segmentTail;
        std::string cursor;
        uint64_t cut;
        uint64_t corrupt;
        Lines lines;
    } cases[] = {
        {"a torn last line", "{\"n\":5,\"pad\":\"xx", "", 16, 0, {Doc(0), Doc(1)}},
        {"a zeroed block, then half a document", zeroed, "", 0, 2, {Doc(0), Doc(1)}},
        // The cursor is only ever recorded after a commit: what it passed was delivered.
        {"a cursor beyond the data", "", "0 999999\n", 0, 0, {Doc(1)}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(TempDir::RemoveTree(dir_));
        Fill(*Open(), {Doc(0)});
        ASSERT_TRUE(FileText::Append(Segments(dir_).back(), c.segmentTail));
        if (!c.cursor.empty()) {
            ASSERT_TRUE(FileText::Write(dir_ + "/cursor", c.cursor));
        }
        auto spool = Open();
        EXPECT_EQ(spool->CutAtOpen(), c.cut);
        Fill(*spool, {Doc(1)});
        uint64_t corrupt = 0;
        EXPECT_EQ(DrainAll(*spool, 100, &corrupt), c.lines);
        EXPECT_EQ(corrupt, c.corrupt);
    }
}

TEST_F(SpoolTest, AnOwnedOrUnusableDirectoryIsRefusedWithTheReason) {
    auto first = Open();
    Spool second(dir_, 1 << 20);
    std::string error;
    EXPECT_FALSE(second.Open(error));
    EXPECT_NE(error.find("in use"), std::string::npos) << error;
    first.reset();
    EXPECT_TRUE(second.Open(error)) << error;

    Spool blocked(tmp_.File("blocker", "x") + "/spool", 1 << 20);
    EXPECT_FALSE(blocked.Open(error));
    EXPECT_NE(error.find("blocker"), std::string::npos) << error;
    EXPECT_EQ(blocked.Append(Doc(0)), Spool::AppendResult::kFailed);
}

}  // namespace
