#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "filenotify/InotifyDecoder.h"
#include "support/TempDir.h"

namespace {

using Engine::DecodeInotifyEvents;
using Engine::InotifyRecord;

// One record as the kernel lays it out: header, then the name padded with NULs to `len`.
std::string Record(int wd, uint32_t mask, uint32_t cookie, const std::string& name, uint32_t len) {
    struct inotify_event event;
    std::memset(&event, 0, sizeof(event));
    event.wd = wd;
    event.mask = mask;
    event.cookie = cookie;
    event.len = len;
    std::string bytes(reinterpret_cast<const char*>(&event), sizeof(event));
    bytes += name;
    if (len > name.size() && len < 4096)
        bytes.append(len - name.size(), '\0');  // no padding for absurd lengths
    return bytes;
}

std::vector<InotifyRecord> Decode(const std::string& bytes, std::size_t* consumed = nullptr) {
    return DecodeInotifyEvents(bytes.data(), bytes.size(), consumed);
}

TEST(InotifyDecoderWholeBuffers, EmptyBufferGivesNothing) {
    std::size_t consumed = 7;
    EXPECT_TRUE(DecodeInotifyEvents(nullptr, 0, &consumed).empty());
    EXPECT_EQ(consumed, 0u);
}

TEST(InotifyDecoderWholeBuffers, RecordsKeepOrderFieldsAndUnpaddedNames) {
    const std::string bytes =
        Record(3, IN_MODIFY, 0, "", 0) + Record(1, IN_MOVED_FROM, 77, "passwd", 16) +
        Record(1, IN_MOVED_TO | IN_ISDIR, 77, "a", 4) + Record(-1, IN_Q_OVERFLOW, 0, "", 0);
    std::size_t consumed = 0;
    const auto records = Decode(bytes, &consumed);
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(consumed, bytes.size());
    EXPECT_EQ(records[0].wd, 3);
    EXPECT_EQ(records[0].mask, static_cast<uint32_t>(IN_MODIFY));
    EXPECT_EQ(records[0].name, "");
    EXPECT_EQ(records[1].name, "passwd");
    EXPECT_EQ(records[1].cookie, 77u);
    EXPECT_EQ(records[2].name, "a");
    EXPECT_EQ(records[2].mask, static_cast<uint32_t>(IN_MOVED_TO | IN_ISDIR));
    EXPECT_EQ(records[3].wd, -1);
    EXPECT_EQ(records[3].mask, static_cast<uint32_t>(IN_Q_OVERFLOW));
}

TEST(InotifyDecoderWholeBuffers, NameThatFillsItsLengthWithoutTerminatorIsKeptWhole) {
    const auto records = Decode(Record(2, IN_CREATE, 0, "abcdefgh", 8));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].name, "abcdefgh");
}

TEST(InotifyDecoderWholeBuffers, BufferReadFromTheKernelDecodes) {
    const TestSupport::TempDir tmp("tarnwick-decoder");
    const std::string& dir = tmp.Path();
    const int fd = inotify_init1(IN_CLOEXEC);
    ASSERT_GE(fd, 0);
    const int wd = inotify_add_watch(fd, dir.c_str(), IN_CREATE);
    ASSERT_GE(wd, 0);
    const std::string file = dir + "/created-file";
    const int created = ::creat(file.c_str(), 0600);
    ASSERT_GE(created, 0);
    ::close(created);
    char buffer[4096];
    const ssize_t n = ::read(fd, buffer, sizeof(buffer));  // blocking: the event is queued
    ::close(fd);
    ASSERT_GT(n, 0);
    std::size_t consumed = 0;
    const auto records = DecodeInotifyEvents(buffer, static_cast<std::size_t>(n), &consumed);
    EXPECT_EQ(consumed, static_cast<std::size_t>(n));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].wd, wd);
    EXPECT_EQ(records[0].mask, static_cast<uint32_t>(IN_CREATE));
    EXPECT_EQ(records[0].name, "created-file");
}

TEST(InotifyDecoderTruncatedBuffers, PartialHeaderAfterWholeRecordIsLeftOut) {
    const std::string whole = Record(1, IN_MODIFY, 0, "", 0);
    const std::string bytes = whole + Record(2, IN_MODIFY, 0, "", 0).substr(0, 5);
    std::size_t consumed = 0;
    const auto records = Decode(bytes, &consumed);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].wd, 1);
    EXPECT_EQ(consumed, whole.size());
}

TEST(InotifyDecoderTruncatedBuffers, NameCutShortStopsDecoding) {
    const std::string whole = Record(1, IN_CREATE, 0, "a", 4);
    const std::string cut = Record(1, IN_CREATE, 0, "longer-name", 16);
    std::size_t consumed = 0;
    const auto records = Decode(whole + cut.substr(0, cut.size() - 3), &consumed);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(consumed, whole.size());
}

TEST(InotifyDecoderTruncatedBuffers, HugeLengthDoesNotReadPastTheBuffer) {
    const std::string bytes = Record(1, IN_CREATE, 0, "abcdefgh", 0xFFFFFFFFu).substr(0, 24);
    std::size_t consumed = 9;
    EXPECT_TRUE(Decode(bytes, &consumed).empty());
    EXPECT_EQ(consumed, 0u);
}

}  // namespace
