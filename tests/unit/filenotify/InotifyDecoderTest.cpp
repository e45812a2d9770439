// The decoder against buffers laid out as the kernel lays them out, whole and cut short. Buffers
// the kernel itself filled are decoded by every watch table test.
#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <string>
#include <tuple>
#include <vector>

#include "filenotify/InotifyDecoder.h"

namespace {

using Engine::DecodeInotifyEvents;
using Record = std::tuple<int, uint32_t, uint32_t, std::string>;  // wd, mask, cookie, name

// One record: the header, then the name padded with NULs to `len` (not for absurd lengths).
std::string Bytes(int wd, uint32_t mask, uint32_t cookie, const std::string& name, uint32_t len) {
    struct inotify_event event {};
    event.wd = wd;
    event.mask = mask;
    event.cookie = cookie;
    event.len = len;
    std::string bytes(reinterpret_cast<const char*>(&event), sizeof(event));
    bytes += name;
    if (len > name.size() && len < 4096) bytes.append(len - name.size(), '\0');
    return bytes;
}

TEST(InotifyDecoder, WholeRecordsAreDecodedInOrderAndACutTailIsLeftOut) {
    const std::string modify = Bytes(3, IN_MODIFY, 0, "", 0);
    const std::string named = Bytes(1, IN_CREATE, 0, "longer-name", 16);
    const std::size_t header = sizeof(struct inotify_event);
    struct Row {
        std::string bytes;
        std::vector<Record> records;
        std::size_t consumed;
    };
    const std::vector<Row> rows = {
        {modify + Bytes(1, IN_MOVED_FROM, 77, "passwd", 16) +
             Bytes(1, IN_MOVED_TO | IN_ISDIR, 77, "a", 4) + Bytes(-1, IN_Q_OVERFLOW, 0, "", 0),
         {{3, IN_MODIFY, 0, ""},
          {1, IN_MOVED_FROM, 77, "passwd"},
          {1, IN_MOVED_TO | IN_ISDIR, 77, "a"},
          {-1, IN_Q_OVERFLOW, 0, ""}},
         4 * header + 20},
        // A name that fills its length, without a terminator, is kept whole.
        {Bytes(2, IN_CREATE, 0, "abcdefgh", 8), {{2, IN_CREATE, 0, "abcdefgh"}}, header + 8},
        // Cut after a whole record: in the next header, in the next name.
        {modify + modify.substr(0, 5), {{3, IN_MODIFY, 0, ""}}, header},
        {modify + named.substr(0, named.size() - 3), {{3, IN_MODIFY, 0, ""}}, header},
        // A length that reaches past the buffer is not followed.
        {Bytes(1, IN_CREATE, 0, "abcdefgh", 0xFFFFFFFFu).substr(0, 24), {}, 0},
    };
    for (const auto& row : rows) {
        std::size_t consumed = 99;
        std::vector<Record> records;
        for (const auto& r : DecodeInotifyEvents(row.bytes.data(), row.bytes.size(), &consumed)) {
            records.emplace_back(r.wd, r.mask, r.cookie, r.name);
        }
        EXPECT_EQ(records, row.records) << "row " << &row - rows.data();
        EXPECT_EQ(consumed, row.consumed) << "row " << &row - rows.data();
    }
    std::size_t consumed = 7;
    EXPECT_TRUE(DecodeInotifyEvents(nullptr, 0, &consumed).empty());
    EXPECT_EQ(consumed, 0u);
}

}  // namespace
