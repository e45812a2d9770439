#include "filenotify/InotifyDecoder.h"

#include <sys/inotify.h>

#include <cstring>

namespace Engine {

std::vector<InotifyRecord> DecodeInotifyEvents(const void* data, std::size_t size,
                                               std::size_t* consumed) {
    std::vector<InotifyRecord> records;
    const auto* bytes = static_cast<const unsigned char*>(data);
    const std::size_t header = sizeof(struct inotify_event);
    std::size_t offset = 0;
    while (bytes != nullptr && size - offset >= header) {
        // The buffer carries no alignment promise when it comes from a test or a fuzzer.
        struct inotify_event event;
        std::memcpy(&event, bytes + offset, header);
        if (event.len > size - offset - header) break;
        InotifyRecord record;
        record.wd = event.wd;
        record.mask = event.mask;
        record.cookie = event.cookie;
        const char* name = reinterpret_cast<const char*>(bytes + offset + header);
        // The kernel pads the name with NULs up to len.
        record.name.assign(name, strnlen(name, event.len));
        records.push_back(std::move(record));
        offset += header + event.len;
    }
    if (consumed != nullptr) *consumed = offset;
    return records;
}

}  // namespace Engine
