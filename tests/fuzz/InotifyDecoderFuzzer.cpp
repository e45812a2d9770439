// Bytes as read() from an inotify descriptor through the event decoder, once from libFuzzer's
// buffer and once from a copy one byte off alignment.
#include <sys/inotify.h>

#include <algorithm>

#include "FuzzCheck.h"
#include "filenotify/InotifyDecoder.h"

static auto DecodeChecked(const unsigned char* bytes, std::size_t size) {
    std::size_t consumed = size + 1;
    auto records = Engine::DecodeInotifyEvents(bytes, size, &consumed);
    FUZZ_CHECK(consumed <= size);
    // Every record's header and name came out of the bytes it says it consumed.
    std::size_t namesAndHeaders = 0;
    for (const auto& record : records) {
        FUZZ_CHECK(record.name.find('\0') == std::string::npos);
        namesAndHeaders += sizeof(struct inotify_event) + record.name.size();
    }
    FUZZ_CHECK(namesAndHeaders <= consumed);
    // Decoding only the whole records gives the same records.
    std::size_t again = 0;
    FUZZ_CHECK(Engine::DecodeInotifyEvents(bytes, consumed, &again).size() == records.size());
    FUZZ_CHECK(again == consumed);
    return records;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const auto aligned = DecodeChecked(data, size);
    std::vector<unsigned char> shifted(size + 1);
    std::copy(data, data + size, shifted.begin() + 1);
    const auto unaligned = DecodeChecked(shifted.data() + 1, size);
    FUZZ_CHECK(aligned.size() == unaligned.size());
    for (std::size_t i = 0; i < aligned.size(); ++i) {
        FUZZ_CHECK(aligned[i].wd == unaligned[i].wd && aligned[i].mask == unaligned[i].mask &&
                   aligned[i].name == unaligned[i].name);
    }
    FUZZ_CHECK(Engine::DecodeInotifyEvents(nullptr, size, nullptr).empty());
    return 0;
}
