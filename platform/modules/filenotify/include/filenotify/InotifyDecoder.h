#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Engine {

/// One event as the kernel's inotify read() hands it out.
struct InotifyRecord {
    int wd = -1;          ///< watch descriptor (-1 for queue-wide events such as IN_Q_OVERFLOW)
    uint32_t mask = 0;    ///< IN_* bits
    uint32_t cookie = 0;  ///< pairs IN_MOVED_FROM with IN_MOVED_TO
    std::string name;     ///< child name for events on a watched directory, else empty
};

/// Decodes a buffer read from an inotify descriptor into records, in order. Stops at the first
/// record whose header or name does not fit in the buffer; `consumed` (when given) receives the
/// number of bytes that made up whole records, so a caller can tell a truncated tail.
std::vector<InotifyRecord> DecodeInotifyEvents(const void* data, std::size_t size,
                                               std::size_t* consumed = nullptr);

}  // namespace Engine
