// The decoder against buffers laid out as the kernel lays them out, whole and cut short. Buffers
// the kernel itself filled, several records to a read, are decoded by every watch table test.
#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <string>
#include <vector>

#include "filenotify/InotifyDecoder.h"

namespace {

using Engine::DecodeInotifyEvents;

// One record: the header, then the name padded with NULs to `len` (not for absurd lengths).
std::string Bytes(int wd, const std::string& name, uint32_t len) {
    struct inotify_event event {};
    event.wd = wd;
    event.mask = IN_CREATE;
    event.len = len;
    std::string bytes(reinterpret_cast<const char*>(&event), sizeof(event));
    bytes += name;
    if (len > name.size() && len < 4096) bytes.append(len - name.size(), '\0');
    return bytes;
}

TEST(InotifyDecoder, WholeRecordsAreDecodedInOrderAndACutTailIsLeftOut) {
    // A padded name, and a name that fills its length without a terminator, kept whole; then a
    // record cut in its header.
    const std::string whole = Bytes(1, "passwd", 16) + Bytes(2, "abcdefgh", 8);
    const std::string bytes = whole + Bytes(3, "", 0).substr(0, 5);
    std::size_t consumed = 99;
    std::vector<std::string> records;
    for (const auto& r : DecodeInotifyEvents(bytes.data(), bytes.size(), &consumed)) {
        records.push_back(std::to_string(r.wd) + ":" + r.name);
    }
    EXPECT_EQ(records, (std::vector<std::string>{"1:passwd", "2:abcdefgh"}));
    EXPECT_EQ(consumed, whole.size());
    // A length that reaches past the buffer is not followed.
    const std::string overlong = Bytes(1, "abcdefgh", 0xFFFFFFFFu).substr(0, 24);
    EXPECT_TRUE(DecodeInotifyEvents(overlong.data(), overlong.size(), &consumed).empty());
    EXPECT_EQ(consumed, 0u);
    consumed = 7;
    EXPECT_TRUE(DecodeInotifyEvents(nullptr, 0, &consumed).empty());
    EXPECT_EQ(consumed, 0u);
}

}  // namespace
